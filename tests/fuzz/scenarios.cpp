#include "tests/fuzz/kinds.h"
#include "tools/play/player.h"
#include "tools/play/reading/scenario_reader.h"

#include <nlohmann/json.hpp>

#include <map>
#include <sstream>

namespace fuzz {
namespace {

using Json = nlohmann::ordered_json;

std::vector<std::string> Originals()
{
    const std::filesystem::path folder = std::filesystem::path(ZEPN_ROOT) / "scenarios";
    std::vector<std::string> originals = ContentsOf(folder, ".json");
    for (std::string& misuse : ContentsOf(folder / "misuse", ".json")) {
        originals.push_back(std::move(misuse));
    }
    return originals;
}

Json Parsed(const std::string& original)
{
    return Json::parse(original, nullptr, true, true);
}

// What the project's scenarios are made of, to be put together anew. By name, so that a rare one comes as often as
// others.
struct Parts {
    using Values = std::map<std::string, std::vector<Json>>;
    Values steps;    // by what they do
    Values fields;   // of steps
    Values scripts;  // the fields of clients

    Parts()
    {
        for (const std::string& original : Originals()) {
            const Json scenario = Parsed(original);
            for (const Json& step : scenario["steps"]) {
                steps[step["do"].get<std::string>()].push_back(step);
                Add(step, fields);
            }
            for (const Json& client : scenario["clients"]) {
                Add(client, scripts);
            }
        }
        for (const char* identity : {"guid", "image", "states", "parameters"}) {
            scripts.erase(identity);
        }
        fields.erase("do");
    }

    static void Add(const Json& object, Values& values)
    {
        for (const auto& [name, value] : object.items()) {
            values[name].push_back(value);
        }
    }
};

const Parts& AllParts()
{
    static const Parts parts;
    return parts;
}

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
            if (!clients_.empty() && mutator_.OneIn(4)) {
                const auto& [name, values] = OneOf(parts_.scripts);
                Json& value = scenario_["clients"][mutator_.OneOf(clients_)][name] = mutator_.OneOf(values);
                Fit(name, value);
            } else {
                MutateSteps();
            }
        }
        if (mutator_.OneIn(20)) {
            scenario_["notifier"] = mutator_.OneOf<std::string>({"started", "loaded", "absent"});
        }
        return scenario_;
    }

private:
    [[nodiscard]] const Parts::Values::value_type& OneOf(const Parts::Values& values)
    {
        return *std::next(values.begin(), static_cast<std::ptrdiff_t>(mutator_.Below(values.size())));
    }

    // Names of clients and states that this scenario does not have become some that it has.
    void Fit(const std::string& name, Json& value)
    {
        if (value.is_structured()) {
            for (const auto& [inner, part] : value.items()) {
                Fit(value.is_object() ? inner : name, part);
            }
        } else if (name == "client" || name == "to" || name == "from") {
            value = clients_.empty() ? "nobody" : mutator_.OneOf(clients_);
        } else if ((name == "state" || name == "answer" || name == "appsState") && value.is_string() &&
                   value != "any") {
            value = mutator_.Below(8);
        }
    }

    void MutateSteps()
    {
        Json::array_t& steps = scenario_["steps"].get_ref<Json::array_t&>();
        if (steps.empty() || mutator_.OneIn(2)) {
            Json step = mutator_.OneOf(OneOf(parts_.steps).second);
            Fit("", step);
            steps.insert(steps.begin() + static_cast<std::ptrdiff_t>(mutator_.Below(steps.size() + 1)), step);
            return;
        }
        // Mostly another value of a field that it has.
        mutator_.MutatePieces<Json>(steps, 1, [&](Json step) {
            const auto& [name, values] = OneOf(parts_.fields);
            if (step.contains(name) || mutator_.OneIn(8)) {
                Fit(name, step[name] = mutator_.OneOf(values));
            }
            return step;
        });
    }

    const Parts& parts_ = AllParts();
    Mutator& mutator_;
    Json scenario_;
    std::vector<std::string> clients_;
};

std::string Mutate(Mutator& mutator, const std::string& original)
{
    return ScenarioMutation(mutator, Parsed(original)).Mutate().dump(1);
}

std::string Read(const std::string& bytes)
{
    const play::Scenario scenario = play::ParseScenario(bytes, kFileName);
    std::ostringstream out;
    play::Timeline timeline(out, play::Timeline::Form::kText, false);
    (void)play::Play(scenario, {.image = ZEPN_NATIVE_DRIVER}, timeline);
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
