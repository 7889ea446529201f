// Clients whose drivers are real images, beside scripted ones: how a scenario names and drives them, and what is shown
// of them.
#include "tests/kit/driver_fixture.h"
#include "tests/play/played.h"
#include "tools/play/diagram.h"
#include "tools/play/perfetto.h"

#include <nlohmann/json.hpp>

namespace tests {
namespace {

// The sample client, which watches client 2, and a scripted client 2 that watches it.
std::string WithReal(const std::string& steps, const std::string& image = "zepn_client")
{
    return R"({"title": "t", "states": {"up": 2},
 "clients": {
  "fan": {"image": ")" +
           image + R"(", "guid": "5a3e0001-0b61-4b0c-9d55-27c2f8f1a900",
   "states": {"connected": 3, "asleep": 4}, "parameters": {"ClientNumber": 1, "WatchedNumber": 2, "Note": "text"}},
  "peer": {"guid": "5a3e0002-0b61-4b0c-9d55-27c2f8f1a900", "name": "Peer"},
  "other": {"image": "zepn_client"}},
 "steps": [
  )" + steps +
           "\n]}";
}

TEST(RealClientSteps, ThatCannotBeDoneAreRefused)
{
    const std::pair<const char*, const char*> kRows[] = {
        {R"({"do": "load", "client": "fan"}, {"do": "stop", "client": "fan"}, {"do": "unload", "client": "fan"},
            {"do": "load", "client": "fan"}, {"do": "pull", "client": "fan"})",
         "none"},
        {R"({"do": "post", "client": "fan", "state": "up"})",
         "file.json:8: steps[0].client: \"fan\" is a real driver and calls by itself"},
        {R"({"do": "load", "client": "peer"})", "file.json:8: steps[0].client: \"peer\" is scripted; \"load\" is for"},
        {R"({"do": "subscribe", "client": "peer", "to": "other", "state": "any"})",
         "file.json:8: steps[0].to: the client \"other\" needs a field \"guid\""},
        {R"({"do": "expect", "client": "fan", "state": "asleeep"})",
         "file.json:8: steps[0].state: no state \"asleeep\" in \"states\"; did you mean \"asleep\"?"},
        {R"({"do": "expect", "client": "peer", "state": "asleep"})", "file.json:8: steps[0].state: no state"},
        {R"({"do": "stop", "client": "fan"})", "file.json:8: steps[0]: the client's driver is not loaded"},
        {R"({"do": "load", "client": "fan"}, {"do": "load", "client": "fan"})",
         "file.json:8: steps[1]: the client's driver is loaded already"},
        {R"({"do": "load", "client": "fan"}, {"do": "unload", "client": "fan"})",
         "file.json:8: steps[1]: the system does not unload a driver that has a device; \"stop\""},
        {R"({"do": "load", "client": "fan"}, {"do": "pull", "client": "fan"}, {"do": "stop", "client": "fan"})",
         "file.json:8: steps[2]: the client's device was removed already"},
    };
    for (const auto& [steps, expected] : kRows) {
        const std::string mistakes = MistakesIn(WithReal(steps));
        EXPECT_EQ(mistakes.substr(0, std::string(expected).size()), expected) << steps << "\n" << mistakes;
    }
    EXPECT_EQ(MistakesIn(R"({"title": "t", "clients": {
 "a": {"image": "a", "answers": []},
 "b": {"guid": "6f1b2c3d-0001-4a5b-8c9d-000000000001", "name": "B", "parameters": {}},
 "zepn": {"image": "a", "parameters": {"A": -1}}}, "steps": []})"),
              "file.json:2: clients.a.answers: is for a scripted client, and this one has an \"image\"\n"
              "file.json:3: clients.b.parameters: is for a client with an \"image\"\n"
              "file.json:4: clients.zepn: the name is taken: a real driver's service is called so\n"
              "file.json:4: clients.zepn.parameters.A: expected a whole number from 0 to 4294967295");
}

class RealClients : public OnContainer {
protected:
    // What was printed, as text or as JSON.
    std::string Play(const std::string& scenario, bool expectGood,
                     play::Timeline::Form form = play::Timeline::Form::kText, play::Observer* observer = nullptr)
    {
        const Played played = PlayWith({.image = GetParam().image, .drivers = drivers_},
                                       play::ParseScenario(scenario, "file.json"), observer, form);
        EXPECT_EQ(played.isGood, expectGood) << played.text;
        return played.text;
    }

    std::map<std::string, std::filesystem::path> drivers_;
};
FOR_ALL_CONTAINERS(RealClients);

// The driver reads its parameters, calls the Notifier by itself, and reaches the scripted client and is reached by it.
constexpr const char* kTogether = R"({"do": "load", "client": "fan"},
  {"do": "deliver", "shows": ["registers: 0x00000000"]},
  {"do": "expect", "client": "fan", "state": "up"},
  {"do": "register", "client": "peer"},
  {"do": "subscribe", "client": "peer", "to": "fan", "state": "any", "shows": ["fan is in state up, at once"]},
  {"do": "post", "client": "peer", "state": "up"},
  {"do": "deliver", "shows": ["is notified: client 2 is in state 2", "is notified: fan is in state connected"]},
  {"do": "expect", "client": "fan", "state": "connected"},
  {"do": "pull", "client": "fan", "shows": ["deregisters: 0x00000000"]},
  {"do": "expect", "client": "fan", "state": "unregistered"},
  {"do": "expect", "client": "peer", "state": "up"},
  {"do": "unload", "client": "fan"}, {"do": "wait", "argument": 10},
  {"do": "load", "client": "fan"}, {"do": "deliver"},
  {"do": "expect", "client": "fan", "state": "up"})";

TEST_P(RealClients, PlayBesideScriptedOnes)
{
    const std::string shown = Play(WithReal(kTogether), true);
    EXPECT_TRUE(Has(shown, "\nreal drivers started 2, clients 1, states posted 1, deliveries"));
    EXPECT_TRUE(Has(shown, "no violation, nothing left"));
}

TEST_P(RealClients, PrintIntoTimelineDiagramAndTrace)
{
    unsigned prints = 0;
    for (const std::string& line : LinesOf(Play(WithReal(kTogether), true, play::Timeline::Form::kJson))) {
        const auto entry = nlohmann::json::parse(line);
        if (entry["kind"] == "print") {
            EXPECT_EQ(entry["who"], "fan");
            ++prints;
        }
    }
    EXPECT_GE(prints, 10u);

    play::Diagram diagram("t");
    play::Perfetto perfetto("t", [] { return 0; });
    std::ostringstream drawn;
    (void)Play(WithReal(kTogether), true, play::Timeline::Form::kText, &diagram);
    diagram.Write(drawn);
    EXPECT_TRUE(Has(drawn.str(), "system->>fan: loads zepn_client."));
    EXPECT_TRUE(Has(drawn.str(), "Note over fan: client 1: registers: 0x00000000"));

    std::ostringstream traced;
    (void)Play(WithReal(kTogether), true, play::Timeline::Form::kText, &perfetto);
    perfetto.Write(traced);
    std::map<int, std::string> tracks;
    const nlohmann::json trace = nlohmann::json::parse(traced.str());
    for (const auto& event : trace["traceEvents"]) {
        if (event["name"] == "thread_name") {
            tracks[event["tid"]] = event["args"]["name"];
        } else if (event.value("cat", "") == "print") {
            EXPECT_EQ(tracks[event["tid"]], "fan");
            --prints;
        }
    }
    EXPECT_EQ(prints, 0u);
}

TEST_P(RealClients, AreJudgedByTheirStateAndTheirStart)
{
    EXPECT_TRUE(Has(
        Play(WithReal(R"({"do": "load", "client": "fan"}, {"do": "expect", "client": "fan", "state": "up"})"), false),
        "!! fan is not registered, and should be in state up"));
    // A call that is to fail does so for the named driver alone, and shows where it does.
    (void)Play(WithReal(R"({"do": "load", "client": "fan"},
        {"do": "deliver", "fail": {"call": "WdfObjectCreate", "driver": "notifier", "status": "STATUS_NO_MEMORY"},
         "shows": ["WdfObjectCreate fails, as the file says: STATUS_NO_MEMORY", "registers: 0x"]},
        {"do": "expect", "client": "fan", "state": "unregistered"})"),
               true);
    EXPECT_TRUE(Has(Play(WithReal(R"({"do": "load", "client": "fan"},
        {"do": "deliver", "fail": {"call": "WdfObjectCreate", "driver": "fan", "status": "STATUS_NO_MEMORY"}})"),
                         false),
                    "!! the step never calls WdfObjectCreate, which was to fail"));
    // A driver that does not start is unloaded again, so it can be loaded once more.
    const std::string steps = R"({"do": "load", "client": "fan", "expect": "STATUS_INSUFFICIENT_RESOURCES",
        "fail": {"call": ")";
    for (const char* call : {"WdfDriverCreate", "WdfDeviceCreate", "WdfWorkItemCreate"}) {
        (void)Play(WithReal(steps + call + R"(", "status": "STATUS_INSUFFICIENT_RESOURCES"}},
            {"do": "load", "client": "fan"}, {"do": "deliver"}, {"do": "expect", "client": "fan", "state": "up"})"),
                   true);
    }
}

// The open target holds the device.
TEST_P(RealClients, HoldTheNotifierUntilTheyCloseIt)
{
    const std::string shown = Play(WithReal(R"({"do": "load", "client": "fan"}, {"do": "deliver"}, {"do": "remove"},
            {"do": "unload"})"),
                                   false);
    EXPECT_TRUE(Has(shown, "!! zepn: handles are open"));
    EXPECT_TRUE(Has(shown, "!! file.json:9: the step is left out: the system does not unload a driver that has a "));
    EXPECT_TRUE(Has(shown, "no violation, nothing left"));
}

TEST_P(RealClients, MissingImagesAndUnknownNamesAreRefused)
{
    const auto message = [this](const std::string& scenario) { return Thrown([&] { (void)Play(scenario, true); }); };
    const std::string missing = message(WithReal("", "build/{container}/fan"));
    EXPECT_EQ(missing, std::string("file.json:3: clients.fan.image: build/") + GetParam().name + "/fan" +
                           (GetParam().name == std::string("native") ? ".so" : ".sys") +
                           " is missing; build it, or name another with --driver fan=PATH");
    drivers_["fan"] = "nowhere.sys";
    EXPECT_TRUE(Has(message(WithReal("")), "nowhere.sys is missing"));
    drivers_ = {{"fam", "a.sys"}, {"peer", "b.sys"}};
    EXPECT_EQ(message(WithReal("")),
              "file.json:1: --driver fam=a.sys: no client of this name has an \"image\"; did you mean \"fan\"?\n"
              "file.json:1: --driver peer=b.sys: no client of this name has an \"image\"");
}

TEST(ScenarioPage, ShowsAScenarioThatIsRight)
{
    const std::string page = ReadAll(ZEPN_ROOT "/docs/scenarios.md");
    const std::size_t begin = page.find("```json\n") + 8;
    EXPECT_EQ(MistakesIn(page.substr(begin, page.find("```", begin) - begin)), "none");
}

TEST(Player, ShowsWhatIsNoAnswerAndWhatStaysUndelivered)
{
    const std::string scenario = R"({"title": "t", "states": {"up": 2}, "clients": {
        "a": {"guid": "6f1b2c3d-0001-4a5b-8c9d-000000000001", "name": "A", "appsState": "up",
              "answers": [{"from": "b", "state": "up", "answer": "none"}], "commands": [{"id": 1, "answer": "up"}]},
        "b": {"guid": "6f1b2c3d-0001-4a5b-8c9d-000000000002", "name": "B"}},
      "steps": [{"do": "register", "client": "a"}, {"do": "register", "client": "b"},
        {"do": "subscribe", "client": "a", "to": "b", "state": "up"}, {"do": "post", "client": "a", "state": "up"},
        {"do": "post", "client": "b", "state": "up"},
        {"do": "deliver", "shows": ["does not answer: it says 0"]},
        {"do": "command", "client": "b", "to": "a", "id": 1},
        {"do": "deliver", "shows": ["does not answer: it is already up"]},
        {"do": "sleep", "shows": ["does not answer: it is already up"]},
        {"do": "post", "client": "b", "state": 7}]})";
    const std::string shown = TimelineOf(scenario, true);
    EXPECT_TRUE(Has(shown, "undelivered at the end of the file: NotifierEvtWorkItem"));
    EXPECT_EQ(shown.find("answers "), std::string::npos) << shown;
    EXPECT_THROW((void)PlayWith({.image = "nowhere/zepn.sys"}, play::ParseScenario(scenario, "f")), host::HostError);
}

}  // namespace
}  // namespace tests
