// Scenario files: what is wrong with one is said with line, field and what was expected; and the demo's own play.
#include "tests/kit/driver_fixture.h"
#include "tests/play/played.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>

namespace tests {
namespace {

using play::ParseScenario;
using play::ScenarioError;

// A good scenario into which one line is put.
std::string With(const std::string& step)
{
    return R"({"title": "t", "states": {"up": 3},
 "clients": {"power": {"guid": "6f1b2c3d-0001-4a5b-8c9d-000000000001", "name": "Power"}},
 "steps": [
  )" + step +
           "\n]}";
}

TEST(Scenario, MistakesNameLineFieldAndExpectation)
{
    EXPECT_EQ(MistakesIn(With(R"({"do": "register", "client": "power"})")), "none");
    const std::pair<std::string, std::string> kRows[] = {
        {R"({"do": "registr", "client": "power"})",
         "file.json:4: steps[0].do: unknown step \"registr\"; did you mean \"register\"?"},
        {R"({"do": "register", "client": "pwer"})",
         "file.json:4: steps[0].client: no client \"pwer\" in \"clients\"; did you mean \"power\"?"},
        {R"({"do": "register", "cleint": "power"})",
         "file.json:4: steps[0].cleint: unknown field; did you mean \"client\"?\n"
         "file.json:4: steps[0]: field \"client\" is missing"},
        {R"({"do": "post", "client": "power", "state": "upp"})",
         "file.json:4: steps[0].state: no state \"upp\" in \"states\"; did you mean \"up\"?"},
        {R"({"do": "post", "client": "power", "state": -1})",
         "file.json:4: steps[0].state: expected a whole number from 0 to 4294967295"},
        {R"({"do": "post", "client": "power", "state": [3]})",
         "file.json:4: steps[0].state: expected a text, found a list"},
        {R"({"do": "post", "client": "power", "state": "any"})",
         "file.json:4: steps[0].state: no state \"any\" in \"states\""},
        {R"({"do": "deliver", "fail": {"call": "WdfDriverCrate"}})",
         "file.json:4: steps[0].fail.call: the host has no platform function \"WdfDriverCrate\"; did you mean "
         "\"WdfDriverCreate\"?"},
        {R"({"do": "deregister", "client": "power", "expect": "STATUS_FINE"})",
         "file.json:4: steps[0].expect: expected a status like \"STATUS_NOT_FOUND\" or \"0xC0000225\""},
        {R"({"do": "deregister", "client": "power", "expect": "STATUS_NOT_FOUN"})",
         "file.json:4: steps[0].expect: expected a status like \"STATUS_NOT_FOUND\" or \"0xC0000225\"; did you mean "
         "\"STATUS_NOT_FOUND\"?"},
        {R"({"do": "deliver", "client": "power"})", "file.json:4: steps[0].client: unknown field"},
        {R"({"do": "deliver", "shows": "a text"})", "file.json:4: steps[0].shows: expected a list, found a text"},
        {R"({"do": "deliver", "shows": ["a text", 3]})",
         "file.json:4: steps[0].shows[1]: expected a text, found a number"},
        {R"(7)", "file.json:4: steps[0]: expected an object, found a number"},
        {"{\"do\": \"deliver\"} // and\n  {\"do\": \"deliver\"}",
         "file.json:4: syntax: a comma is missing after this value"},
        {R"({"do": "control", "id": 3 "expect": "0x0"})", "file.json:4: syntax: a comma is missing after this value"},
        {R"({"do": "deliver",})",
         "file.json:4: syntax: syntax error while parsing object key - unexpected '}'; expected string literal"},
    };
    for (const auto& [step, expected] : kRows) {
        const std::string mistakes = MistakesIn(With(step));
        EXPECT_EQ(mistakes.substr(0, expected.size()), expected) << mistakes;
    }
}

TEST(Scenario, MistakesOutsideTheStepsAreFoundTooAndAllAtOnce)
{
    const std::string mistakes = MistakesIn(R"({"title": 3,
 "states": {"any": 1, "up": "three", "off": 0, "all": 10},
 "clients": {"power": {"guid": "nonsense", "name": "P", "answers": [{"from": "modem", "state": "up"}]}}
})");
    for (const char* expected :
         {"file.json:1: title: expected a text, found a number", "file.json:1: scenario: field \"steps\" is missing",
          "file.json:2: states.any:", "file.json:2: states.up: expected a whole number",
          "file.json:2: states.off: 0 is called \"none\"", "file.json:2: states.all: 10 is ZEP_STATE_ANY",
          "file.json:3: clients.power.guid: expected a GUID", "clients.power.answers[0].from: no client \"modem\"",
          "clients.power.answers[0]: field \"answer\" is missing"}) {
        EXPECT_TRUE(Has(mistakes, expected));
    }
}

TEST(Scenario, WithoutADeviceNothingIsAskedOfIt)
{
    const auto mistakes = [](const std::string& steps) {
        return MistakesIn(R"({"title": "t", "notifier": "loaded", "states": {}, "clients": {}, "steps": [)" + steps +
                          "]}");
    };
    EXPECT_EQ(mistakes(R"({"do": "unload"})"), "none");
    EXPECT_EQ(mistakes(R"({"do": "addDevice"}, {"do": "count"})"), "none");
    EXPECT_EQ(mistakes(R"({"do": "unload"}, {"do": "load"}, {"do": "count"})"), "none");
    EXPECT_EQ(mistakes(R"({"do": "count"}, {"do": "addDevice"})"),
              "file.json:1: steps[0]: nobody has the driver's function tables yet; \"addDevice\" comes first");
}

TEST(Scenario, StepsThatCannotBeDoneAreRefused)
{
    const std::pair<const char*, const char*> kRows[] = {
        {R"({"do": "remove"}, {"do": "unload"})", nullptr},
        {R"({"do": "surpriseRemoval"}, {"do": "remove"}, {"do": "addDevice"}, {"do": "open"}, {"do": "control"})",
         nullptr},
        {R"({"do": "control"})", "the control device is not open"},
        {R"({"do": "open"}, {"do": "close"}, {"do": "close"})", "the control device is not open"},
        {R"({"do": "open"}, {"do": "open"})", "the control device is open already"},
        {R"({"do": "open"}, {"do": "remove"})", "the control device is open, so"},
        {R"({"do": "unload"})", "does not unload a driver that has a device"},
        {R"({"do": "remove"}, {"do": "unload"}, {"do": "register", "client": "power"})", "the driver is not loaded"},
        {R"({"do": "remove"}, {"do": "unload"}, {"do": "addDevice"})", "the driver is not loaded"},
        {R"({"do": "addDevice"})", "the driver has a device"},
        {R"({"do": "load"})", "the driver is loaded already"},
        {R"({"do": "remove"}, {"do": "remove"})", "the driver has no device"},
        {R"({"do": "surpriseRemoval"}, {"do": "surpriseRemoval"})", "the device was pulled out already"},
        {R"({"do": "open", "expect": "STATUS_NO_MEMORY"}, {"do": "control"})", "the control device is not open"},
    };
    for (const auto& [steps, expected] : kRows) {
        const std::string mistakes = MistakesIn(With(steps));
        EXPECT_EQ(mistakes == "none", expected == nullptr) << steps << "\n" << mistakes;
        EXPECT_TRUE(Has(mistakes, expected == nullptr ? "none" : expected));
        EXPECT_EQ(mistakes.find('\n'), std::string::npos) << mistakes;
    }
}

TEST(Scenario, WhatStandsTwiceOrTakesTooMuchMemoryIsRefused)
{
    const std::string mistakes = MistakesIn(R"({"title": "t", "states": {"up": 1, "up": 2},
 "clients": {"a": {"guid": "6f1b2c3d-0001-4a5b-8c9d-000000000001", "name": "A", "entries": 4294967295},
             "a": {"guid": "6f1b2c3d-0001-4a5b-8c9d-000000000001", "name": "A"}},
 "steps": [{"do": "describe", "capacity": 4294967295}]})");
    EXPECT_EQ(mistakes, "file.json:1: states.up: is given twice\n"
                        "file.json:3: clients.a: is given twice\n"
                        "file.json:2: clients.a.entries: expected a whole number from 0 to 100000\n"
                        "file.json:4: steps[0].capacity: expected a whole number from 0 to 100000");
}

TEST(Scenario, DeepAndLongFilesAndFoldersAreRefused)
{
    EXPECT_EQ(MistakesIn(std::string(1'000'000, '[')), "file.json:1: syntax: nested more than 32 deep");
    EXPECT_EQ(MistakesIn("[1e999]"), "file.json:1: syntax: number overflow parsing '1e999'");
    try {
        (void)play::ReadScenario(std::filesystem::temp_directory_path());
        FAIL() << "a folder was read";
    } catch (const ScenarioError& error) {
        EXPECT_NE(std::string(error.what()).find(": is a folder"), std::string::npos) << error.what();
    }
    EXPECT_THROW((void)play::ReadScenario("/dev/zero"), ScenarioError);
}

// Twenty mistakes are enough, and reading takes no longer for them.
TEST(Scenario, TenMegabytesAndAHundredThousandClientsAreReadOrRefused)
{
#if defined(ZEPN_EMULATED) || defined(ZEPN_SANITIZED)
    constexpr unsigned kClients = 5'000;  // a look-up that walks them all shows where it is not slowed down ten times
#else
    constexpr unsigned kClients = 100'000;
#endif
    std::string clients;
    std::string steps;
    char text[160];
    for (unsigned number = 0; number < kClients; ++number) {
        std::snprintf(text, sizeof(text),
                      "%s\"c%u\": {\"guid\": \"6f1b2c3d-0001-4a5b-8c9d-0000%08x\", \"name\": \"C\"}\n",
                      number == 0 ? "" : ",", number, number);
        clients += text;
        std::snprintf(text, sizeof(text), "%s{\"do\": \"register\", \"client\": \"c%u\"}\n", number == 0 ? "" : ",",
                      number);
        steps += text;
    }
    const auto file = [&](const std::string& name) {
        return R"({"title": "t", "states": {}, "clients": {)" + clients + "}, \"steps\": [" + steps + "]" + name + "}";
    };
    const std::string good = file("");
    EXPECT_GT(good.size(), kClients * 105u);
    EXPECT_EQ(ParseScenario(good, "f").clients.size(), kClients);
    std::string wrong = good;
    for (std::size_t at = 0; (at = wrong.find("\"client\": \"c", at)) != std::string::npos; ++at) {
        wrong[at + 11] = 'x';
    }
    const std::string mistakes = MistakesIn(wrong);
    EXPECT_EQ(std::ranges::count(mistakes, '\n'), 20) << mistakes;
    EXPECT_TRUE(Has(mistakes, "there may be more mistakes"));
}

class Demo : public OnContainer {};
FOR_ALL_CONTAINERS(Demo);

// Their steps say what each must show and end in.
TEST_P(Demo, ScenariosPlayToTheirEndWithAllReports)
{
    const std::filesystem::path root = ZEPN_ROOT;
    for (const char* file : {"boot.json", "failures.json"}) {
        const Played played = PlayWith(
            {.image = GetParam().image, .decodingFiles = root / "out/manifest", .eventLevel = 5, .traceMessages = true},
            play::ReadScenario(root / "scenarios" / file), nullptr, play::Timeline::Form::kJson);
        EXPECT_TRUE(played.isGood) << played.text;
        std::string last;
        for (const std::string& line : LinesOf(played.text)) {
            last = nlohmann::json::parse(line)["kind"];
        }
        EXPECT_EQ(last, "end");
    }
}

TEST(Player, MarksEachUnmetExpectationAndFailsTheRun)
{
    const std::pair<const char*, const char*> kRows[] = {
        {R"({"do": "deregister", "client": "power", "expect": "STATUS_SUCCESS"})",
         "STATUS_NOT_FOUND  <-- not expected"},
        {R"({"do": "register", "client": "power", "shows": ["as \"Power\"", "registers"]})",
         "!! the step does not show, in its place: registers"},
        {R"({"do": "register", "client": "power", "finding": "dead handle"})",
         "!! the expected finding did not come: dead handle"},
        {R"({"do": "subscribe", "client": "power", "to": "power", "state": "any",
             "fail": {"call": "WdfCollectionRemove"}, "expect": "STATUS_ZEP_NOTIFIER_NO_DRIVER"})",
         "!! the step never calls WdfCollectionRemove, which was to fail"},
    };
    for (const auto& [step, marked] : kRows) {
        EXPECT_TRUE(Has(TimelineOf(With(step), false), marked));
    }
}

// The callback before sleep hangs, and with it whatever waits for it.
TEST(Player, GoesOnAfterAHangToTheLastStep)
{
    const char* kScenario = R"({"title": "t", "states": {},
        "clients": {"power": {"guid": "6f1b2c3d-0001-4a5b-8c9d-000000000001", "name": "Power", "appsState": 3,
                              "inside": [{"on": "appsState", "do": "post"}]}},
        "steps": [{"do": "register", "client": "power"}, {"do": "sleep", "finding": "holds itself"}, )";
    const std::string removed = TimelineOf(kScenario + std::string(R"(
        {"do": "remove", "finding": "hang"}, {"do": "unload"}]})"),
                                           false);
    EXPECT_TRUE(Has(removed, "!! file.json:5: the step is left out: the system does not unload a driver that has a "));
    EXPECT_TRUE(Has(removed, "a thread hangs, so its driver stays"));
    EXPECT_TRUE(Has(TimelineOf(kScenario + std::string(R"({"do": "wake"}]})"), true), "a thread hangs"));
}

TEST(Player, LeavesOutAStepWhoseNeedsAnEarlierOneDidNotMeet)
{
    const std::string timeline = TimelineOf(With(R"({"do": "surpriseRemoval"}, {"do": "open"}, {"do": "control"},
        {"do": "note", "text": "the end"})"),
                                            false);
    EXPECT_TRUE(Has(timeline, "!! file.json:4: the step is left out: the control device is not open"));
    EXPECT_TRUE(Has(timeline, "the end"));
}

TEST(Player, EndsAnswersThatGoOnWithoutEnd)
{
    const std::string timeline = TimelineOf(R"({"title": "t", "states": {}, "clients": {
        "a": {"guid": "6f1b2c3d-0001-4a5b-8c9d-000000000001", "name": "A",
              "answers": [{"from": "b", "state": 1, "answer": 2}, {"from": "b", "state": 2, "answer": 1}]},
        "b": {"guid": "6f1b2c3d-0001-4a5b-8c9d-000000000002", "name": "B",
              "answers": [{"from": "a", "state": 1, "answer": 2}, {"from": "a", "state": 2, "answer": 1}]}},
      "steps": [{"do": "register", "client": "a"}, {"do": "register", "client": "b"},
        {"do": "subscribe", "client": "a", "to": "b", "state": "any"},
        {"do": "subscribe", "client": "b", "to": "a", "state": "any"},
        {"do": "post", "client": "a", "state": 1}, {"do": "deliver"}]})",
                                            false);
    EXPECT_TRUE(Has(timeline, "!! clients answer each other without end: they stop after 1000 answers"));
}

// A driver that is unloaded while its client is registered is found by whichever callback comes first.
TEST(Player, FindsACallbackOfAnUnloadedDriver)
{
    const std::pair<const char*, const char*> kRows[] = {
        {R"({"do": "sleep"})", "the application-state callback of modem, whose driver is unloaded"},
        {R"({"do": "command", "client": "power", "to": "modem", "id": 1}, {"do": "deliver"})",
         "the command callback of modem, whose driver is unloaded"},
        {R"({"do": "post", "client": "power", "state": 3}, {"do": "deliver"})",
         "the state callback of modem, whose driver is unloaded"},
    };
    for (const auto& [steps, finding] : kRows) {
        const std::string scenario = R"({"title": "t", "states": {}, "clients": {
            "power": {"guid": "6f1b2c3d-0001-4a5b-8c9d-000000000001", "name": "Power"},
            "modem": {"guid": "6f1b2c3d-0002-4a5b-8c9d-000000000002", "name": "Modem", "appsState": "enabled",
                      "commands": []}},
          "steps": [{"do": "register", "client": "power"}, {"do": "register", "client": "modem"},
            {"do": "subscribe", "client": "modem", "to": "power", "state": 3},
            {"do": "unload", "client": "modem"}, )";
        EXPECT_TRUE(Has(TimelineOf(scenario + steps + "]}", false), finding));
    }
}

}  // namespace
}  // namespace tests
