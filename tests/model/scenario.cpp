#include "host/tracing/decode.h"
#include "tests/model/run.h"

#include <nlohmann/json.hpp>

#include <sstream>

namespace model {
namespace {

using Json = nlohmann::ordered_json;

std::string StatusText(NTSTATUS status)
{
    return tests::Hex(static_cast<std::uint32_t>(status));
}

Json ClientOf(const ClientScript& script, unsigned client)
{
    const std::string guid = host::tracing::GuidText(GuidOf(client));
    Json json = {{"guid", guid.substr(1, guid.size() - 2)}, {"name", script.name}, {"description", script.description}};
    if (script.entryCount != 0) {
        json["entries"] = script.entryCount;
    }
    for (const Answer& answer : script.answers) {
        Json rule = {
            {"from", ClientName(answer.from)}, {"state", "any"}, {"answer", answer.answer}, {"once", answer.once}};
        if (answer.state) {
            rule["state"] = *answer.state;
        }
        json["answers"].push_back(rule);
    }
    if (script.takesCommands) {
        json["commands"] = Json::array();
        for (const auto& [id, answer] : script.commands) {
            json["commands"].push_back({{"id", id}, {"answer", answer}});
        }
    }
    if (script.wantsAppsState) {
        json["appsState"] = script.appsState ? Json(*script.appsState) : Json("enabled");
    }
    return json;
}

bool HasStatus(Kind kind)
{
    return kind <= Kind::kDescribe || kind == Kind::kControl;
}

void AddNotes(Json& steps, const std::string& text)
{
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        steps.push_back({{"do", "note"}, {"text", line}});
    }
}

}  // namespace

std::string Scenario(const Sequence& sequence, const std::string& title, const std::optional<Mismatch>& mismatch)
{
    Json scenario = {{"title", title}, {"states", Json::object()}};
    for (unsigned client = 0; client < kClients; ++client) {
        scenario["clients"][ClientName(client)] = ClientOf(sequence.clients[client], client);
    }
    Json& crashDump = scenario["crashDump"] = Json::object();
    crashDump["add"] = StatusText(sequence.addAnswer);
    crashDump["remove"] = StatusText(sequence.removeAnswer);
    for (const char* dump : {"start", "addData", "stop", "query", "triage"}) {
        crashDump[dump] = StatusText(sequence.dumpAnswer);
    }
    Json steps = Json::array();
    if (mismatch) {
        AddNotes(steps, kLookFor);
    }
    steps.push_back({{"do", "open"}});
    Model model(sequence);
    for (std::size_t index = 0; index < sequence.operations.size(); ++index) {
        const Operation& operation = sequence.operations[index];
        const Outcome expected = model.Do(operation);
        if (mismatch && mismatch->operation == index) {
            AddNotes(steps, mismatch->text);
        }
        Json step = StepOf(operation);
        if (HasStatus(operation.kind)) {
            step["expect"] = StatusText(expected.status);
        }
        if (expected.hangs) {
            step["finding"] = "waits for";
        }
        steps.push_back(step);
    }
    if (mismatch && mismatch->operation == sequence.operations.size()) {
        AddNotes(steps, mismatch->text);
    }
    scenario["steps"] = steps;
    return scenario.dump(2) + "\n";
}

}  // namespace model
