#include "tests/fuzz/kinds.h"
#include "tools/play/player.h"
#include "tools/play/reading/scenario_reader.h"

#include <nlohmann/json.hpp>

#include <sstream>
#include <utility>

namespace fuzz {
namespace {

using Json = nlohmann::ordered_json;

// Each step by its name in "do", with the fields that it needs; values are drawn by field.
const std::vector<std::pair<std::string, std::vector<std::string>>> kSteps = {
    {"register", {"client"}},
    {"subscribe", {"client", "to", "state"}},
    {"unsubscribe", {"client", "to", "state"}},
    {"post", {"client", "state"}},
    {"deregister", {"client"}},
    {"deliver", {}},
    {"deliver", {"runs"}},
    {"command", {"client", "to", "id"}},
    {"attach", {}},
    {"detach", {}},
    {"count", {}},
    {"describe", {"capacity"}},
    {"startDump", {"client"}},
    {"addDumpData", {"client"}},
    {"queryDump", {"client"}},
    {"addTriageData", {"client"}},
    {"stopDump", {"client"}},
    {"open", {}},
    {"control", {}},
    {"control", {"id"}},
    {"close", {}},
    {"timeout", {"argument"}},
    {"wait", {"argument"}},
    {"addDevice", {}},
    {"sleep", {}},
    {"wake", {}},
    {"askToStop", {}},
    {"askToRemove", {}},
    {"surpriseRemoval", {}},
    {"remove", {}},
    {"unload", {}},
    {"unload", {"client"}},
    {"load", {}},
    {"load", {"client"}},
    {"stop", {"client"}},
    {"pull", {"client"}},
    {"expect", {"client", "state"}},
};
const std::vector<std::string> kBeginnings = {"started", "loaded", "absent"};
const std::vector<std::string> kNulls = {"guid", "callbacks", "record", "callback", "descriptors", "count"};
const std::vector<std::string> kCallbacks = {"state", "command", "appsState"};
const std::vector<std::string> kInside = {"register", "deregister", "post", "command", "subscribe", "unsubscribe"};
const std::vector<std::string> kCalls = {
    "WdfObjectCreate",     "WdfCollectionAdd",  "WdfWaitLockAcquire",   "WdfWorkItemCreate", "ExAllocatePoolWithTag",
    "WdfCollectionCreate", "WdfIoTargetOpen",   "WdfDeviceCreate",      "EtwRegister",       "WdfIoQueueCreate",
    "ExRegisterCallback",  "WdfWaitLockCreate", "WdfRegistryQueryULong"};

class ScenarioMutation {
public:
    ScenarioMutation(Mutator& mutator, Json scenario) : mutator_(mutator), scenario_(std::move(scenario))
    {
        for (const auto& [key, client] : scenario_["clients"].items()) {
            clients_.push_back(key);
        }
    }

    Json Mutate()
    {
        for (std::size_t left = 1 + mutator_.Below(6); left > 0; --left) {
            if (mutator_.OneIn(4)) {
                MutateClient();
            } else {
                MutateSteps();
            }
        }
        if (mutator_.OneIn(20)) {
            scenario_["notifier"] = mutator_.OneOf(kBeginnings);
        }
        return scenario_;
    }

private:
    Json Value(const std::string& field)
    {
        if (field == "client" || field == "to") {
            return clients_.empty() ? "nobody" : mutator_.OneOf(clients_);
        }
        if (field == "state") {
            return mutator_.OneIn(4) ? Json("any") : Json(mutator_.Below(8));
        }
        return mutator_.Below(5);
    }

    Json NewStep()
    {
        const auto& [action, fields] = mutator_.OneOf(kSteps);
        Json step = {{"do", action}};
        for (const std::string& field : fields) {
            step[field] = Value(field);
        }
        if (mutator_.OneIn(12)) {
            step["level"] = "dispatch";
        }
        if (mutator_.OneIn(12)) {
            step["null"] = mutator_.OneOf(kNulls);
        }
        if (mutator_.OneIn(12)) {
            step["fail"] = {{"call", mutator_.OneOf(kCalls)}};
            if (mutator_.OneIn(2)) {
                step["fail"]["status"] = mutator_.OneIn(2) ? "0xC000009A" : "0x40000000";
            }
        }
        return step;
    }

    void MutateSteps()
    {
        Json::array_t& steps = scenario_["steps"].get_ref<Json::array_t&>();
        const auto place = [&](std::size_t more) {
            return steps.begin() + static_cast<std::ptrdiff_t>(mutator_.Below(steps.size() + more));
        };
        if (steps.empty() || mutator_.OneIn(2)) {
            steps.insert(place(1), NewStep());
            return;
        }
        switch (mutator_.Below(4)) {
        case 0:
            steps.erase(place(0));
            return;
        case 1:
            std::iter_swap(place(0), place(0));
            return;
        case 2: {
            const Json copy = *place(0);
            steps.insert(place(1), copy);
            return;
        }
        default: {
            Json& step = *place(0);
            for (const char* field : {"client", "to", "state", "id", "argument", "runs", "capacity"}) {
                if (step.contains(field)) {
                    step[field] = Value(field);
                }
            }
        }
        }
    }

    void MutateClient()
    {
        if (clients_.empty()) {
            return;
        }
        Json& client = scenario_["clients"][mutator_.OneOf(clients_)];
        switch (mutator_.Below(5)) {
        case 0:
            client["inside"] = {{{"on", mutator_.OneOf(kCallbacks)}, {"do", mutator_.OneOf(kInside)}}};
            return;
        case 1:
            client["answers"] = {{{"from", Value("client")}, {"state", Value("state")}, {"answer", mutator_.Below(8)}}};
            return;
        case 2:
            client["commands"] = {{{"id", Value("id")}, {"answer", mutator_.Below(8)}}};
            return;
        case 3:
            client["appsState"] = mutator_.Below(8);
            return;
        default:
            client["entries"] = mutator_.OneIn(2) ? mutator_.Below(1000) : std::uint64_t{0xFFFFFFFF};
        }
    }

    Mutator& mutator_;
    Json scenario_;
    std::vector<std::string> clients_;
};

std::vector<std::string> Originals()
{
    const std::filesystem::path folder = std::filesystem::path(ZEPN_ROOT) / "scenarios";
    std::vector<std::string> originals = ContentsOf(folder, ".json");
    for (std::string& misuse : ContentsOf(folder / "misuse", ".json")) {
        originals.push_back(std::move(misuse));
    }
    return originals;
}

std::string Mutate(Mutator& mutator, const std::string& original)
{
    return ScenarioMutation(mutator, Json::parse(original, nullptr, true, true)).Mutate().dump(1);
}

std::string Read(const std::string& bytes)
{
    const play::Scenario scenario = play::ParseScenario(bytes, kFileName);
    play::PlayOptions options;
    options.image = ZEPN_NATIVE_DRIVER;
    std::ostringstream out;
    play::Timeline timeline(out, play::Timeline::Form::kText, false);
    (void)play::Play(scenario, options, timeline);
    return {};
}

}  // namespace

FileKind Scenarios()
{
    return {.name = "scenarios",
            .originals = Originals,
            .words = {"\"", "{", "}", "[", "]", ",", ":", "//", "/*", "null", "true", "\\u0000", "\\", "\"any\"",
                      "{\"do\": \"remove\"},", "{\"do\": \"unload\"},", "{\"do\": \"control\"},",
                      "{\"do\": \"close\"},"},
            .mutate = Mutate,
            .read = Read,
            .memoryFault = "memory fault at zepn.so!"};
}

}  // namespace fuzz
