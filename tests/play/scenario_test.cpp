// Scenario files: what is wrong with one is said with line, column, field and what was expected; and the demo's own
// play.
#include "tools/play/player.h"
#include "tools/play/reading/scenario_reader.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <set>
#include <sstream>

namespace tests {
namespace {

using play::ParseScenario;
using play::ScenarioError;

std::string MistakesIn(const std::string& text)
{
    try {
        (void)ParseScenario(text, "file.json");
    } catch (const ScenarioError& error) {
        return error.what();
    }
    return "none";
}

// A good scenario into which one line is put.
std::string With(const std::string& step)
{
    return R"({"title": "t", "states": {"up": 3},
 "clients": {"power": {"guid": "6f1b2c3d-0001-4a5b-8c9d-000000000001", "name": "Power"}},
 "steps": [
  )" + step +
           "\n]}";
}

TEST(Scenario, MistakesNameLineColumnFieldAndExpectation)
{
    EXPECT_EQ(MistakesIn(With(R"({"do": "register", "client": "power"})")), "none");
    const std::pair<std::string, std::string> kRows[] = {
        {R"({"do": "registr", "client": "power"})",
         "file.json:4:10: steps[0].do: unknown step \"registr\"; did you mean \"register\"?"},
        {R"({"do": "register", "client": "pwer"})",
         "file.json:4:32: steps[0].client: no client \"pwer\" in \"clients\"; did you mean \"power\"?"},
        {R"({"do": "register", "cleint": "power"})",
         "file.json:4:22: steps[0].cleint: unknown field; did you mean \"client\"?\n"
         "file.json:4:3: steps[0]: field \"client\" is missing"},
        {R"({"do": "post", "client": "power", "state": "upp"})",
         "file.json:4:46: steps[0].state: no state \"upp\" in \"states\"; did you mean \"up\"?"},
        {R"({"do": "post", "client": "power", "state": -1})",
         "file.json:4:46: steps[0].state: expected a whole number from 0 to 4294967295"},
        {R"({"do": "post", "client": "power", "state": [3]})",
         "file.json:4:46: steps[0].state: expected a text, found a list"},
        {R"({"do": "post", "client": "power", "state": "any"})",
         "file.json:4:46: steps[0].state: no state \"any\" in \"states\""},
        {R"({"do": "leave", "client": "power", "expect": "STATUS_FINE"})",
         "file.json:4:48: steps[0].expect: expected a status like \"STATUS_NOT_FOUND\" or \"0xC0000225\""},
        {R"({"do": "deliver", "client": "power"})", "file.json:4:21: steps[0].client: unknown field"},
        {R"({"do": "deliver", "shows": "a text"})", "file.json:4:30: steps[0].shows: expected a list, found a text"},
        {R"({"do": "deliver", "shows": ["a text", 3]})",
         "file.json:4:41: steps[0].shows[1]: expected a text, found a number"},
        {R"(7)", "file.json:4:3: steps[0]: expected an object, found a number"},
        {R"({"do": "deliver",})",
         "file.json:4:20: syntax: syntax error while parsing object key - unexpected '}'; expected string literal"},
    };
    for (const auto& [step, expected] : kRows) {
        const std::string mistakes = MistakesIn(With(step));
        EXPECT_EQ(mistakes.substr(0, expected.size()), expected) << mistakes;
    }
}

TEST(Scenario, MistakesOutsideTheStepsAreFoundTooAndAllAtOnce)
{
    const std::string mistakes = MistakesIn(R"({"title": 3,
 "states": {"any": 1, "up": "three"},
 "clients": {"power": {"guid": "nonsense", "name": "P", "answers": [{"from": "modem", "state": "up"}]}}
})");
    for (const char* expected :
         {"file.json:1:11: title: expected a text, found a number",
          "file.json:1:1: scenario: field \"steps\" is missing",
          "file.json:2:13: states.any:", "file.json:2:29: states.up: expected a whole number",
          "file.json:3:32: clients.power.guid: expected a GUID", "clients.power.answers[0].from: no client \"modem\"",
          "clients.power.answers[0]: field \"answer\" is missing"}) {
        EXPECT_NE(mistakes.find(expected), std::string::npos) << expected << "\n" << mistakes;
    }
}

TEST(Scenario, WithoutADeviceNothingIsAskedOfIt)
{
    const auto mistakes = [](const std::string& steps) {
        return MistakesIn(R"({"title": "t", "device": false, "states": {}, "clients": {}, "steps": [)" + steps + "]}");
    };
    EXPECT_EQ(mistakes(R"({"do": "unload"})"), "none");
    EXPECT_EQ(mistakes(R"({"do": "addDevice"}, {"do": "count"})"), "none");
    EXPECT_EQ(mistakes(R"({"do": "count"}, {"do": "addDevice"})"),
              "file.json:1:72: steps: with \"device\": false a step \"addDevice\" comes before this one");
}

class Demo : public testing::TestWithParam<const char*> {
protected:
    std::vector<nlohmann::json> Play(const std::string& scenarioFile, bool expectGood)
    {
        const play::Scenario scenario =
            play::ReadScenario(std::filesystem::path(ZEPN_ROOT) / "scenarios" / scenarioFile);
        play::PlayOptions options;
        options.image = GetParam() == std::string("native")
                            ? std::filesystem::path(ZEPN_NATIVE_DRIVER)
                            : std::filesystem::path(ZEPN_ROOT) / "out" / GetParam() / "zepn.sys";
        options.decodingFiles = std::filesystem::path(ZEPN_ROOT) / "out" / "manifest";
        options.eventLevel = 5;
        options.traceMessages = true;
        std::ostringstream out;
        play::Timeline timeline(out, play::Timeline::Form::kJson, false);
        EXPECT_EQ(play::Play(scenario, options, timeline), expectGood) << out.str();
        std::vector<nlohmann::json> entries;
        std::istringstream lines(out.str());
        for (std::string line; std::getline(lines, line);) {
            entries.push_back(nlohmann::json::parse(line));
        }
        return entries;
    }
};

#if defined(__x86_64__)
INSTANTIATE_TEST_SUITE_P(On, Demo, testing::Values("native", "x64"), [](const auto& info) { return info.param; });
#else
INSTANTIATE_TEST_SUITE_P(On, Demo, testing::Values("native", "arm64"), [](const auto& info) { return info.param; });
#endif

TEST_P(Demo, BootScenarioPlaysToItsEndWithoutTrouble)
{
    const auto entries = Play("boot.json", true);
    std::set<std::string> seen;
    for (const auto& entry : entries) {
        if (entry["kind"] != "report") {
            seen.insert(entry["what"]);
        }
        EXPECT_NE(entry["kind"], "trouble") << entry;
    }
    for (const char* expected :
         {"is told that modem is in state none, at once", "answers: its own state is now starting",
          "is told that modem is in state starting", "withdraws video", "is about to sleep; held for 50 ms"}) {
        EXPECT_TRUE(seen.contains(expected)) << expected;
    }
    EXPECT_EQ(entries.back()["kind"], "end");
}

TEST_P(Demo, FailuresScenarioShowsEachStatusWithItsEvent)
{
    std::set<std::string> outcomes;
    for (const auto& entry : Play("failures.json", true)) {
        if (entry["kind"] == "call") {
            outcomes.insert(entry["outcome"]);
        }
    }
    for (const char* expected :
         {"STATUS_ZEP_NOTIFIER_ALREADY_REGISTERED", "STATUS_INVALID_DEVICE_REQUEST", "STATUS_IO_DEVICE_ERROR",
          "STATUS_BUFFER_TOO_SMALL", "STATUS_NOT_FOUND", "STATUS_OBJECT_NAME_EXISTS", "STATUS_NOT_SUPPORTED"}) {
        EXPECT_TRUE(outcomes.contains(expected)) << expected;
    }
}

TEST(Player, MarksEachUnmetExpectationAndFailsTheRun)
{
    const std::pair<const char*, const char*> kRows[] = {
        {R"({"do": "leave", "client": "power", "expect": "STATUS_SUCCESS"})", "STATUS_NOT_FOUND  <-- not expected"},
        {R"({"do": "register", "client": "power", "shows": ["as \"Power\"", "registers"]})",
         "!! the step does not show, in its place: registers"},
        {R"({"do": "register", "client": "power", "trouble": "dead handle"})",
         "!! expected trouble that did not come: dead handle"},
        {R"({"do": "subscribe", "client": "power", "to": "power", "state": "any",
             "fail": {"call": "WdfCollectionRemove"}, "expect": "STATUS_ZEP_NOTIFIER_NO_DRIVER"})",
         "!! the step never calls WdfCollectionRemove, which was to fail"},
    };
    for (const auto& [step, marked] : kRows) {
        play::PlayOptions options;
        options.image = ZEPN_NATIVE_DRIVER;
        std::ostringstream out;
        play::Timeline timeline(out, play::Timeline::Form::kText, false);
        EXPECT_FALSE(play::Play(ParseScenario(With(step), "f"), options, timeline));
        EXPECT_NE(out.str().find(marked), std::string::npos) << out.str();
    }
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
        const play::Scenario scenario = ParseScenario(std::string(R"({"title": "t", "states": {}, "clients": {
            "power": {"guid": "6f1b2c3d-0001-4a5b-8c9d-000000000001", "name": "Power"},
            "modem": {"guid": "6f1b2c3d-0002-4a5b-8c9d-000000000002", "name": "Modem", "appsState": "heard",
                      "commands": []}},
          "steps": [{"do": "register", "client": "power"}, {"do": "register", "client": "modem"},
            {"do": "subscribe", "client": "modem", "to": "power", "state": 3},
            {"do": "unload", "client": "modem"}, )") + steps +
                                                          "]}",
                                                      "f");
        play::PlayOptions options;
        options.image = ZEPN_NATIVE_DRIVER;
        std::ostringstream out;
        play::Timeline timeline(out, play::Timeline::Form::kText, false);
        EXPECT_FALSE(play::Play(scenario, options, timeline));
        EXPECT_NE(out.str().find(finding), std::string::npos) << out.str();
    }
}

}  // namespace
}  // namespace tests
