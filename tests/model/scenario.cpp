#include "tests/model/run.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <sstream>

namespace model {
namespace {

using Json = nlohmann::ordered_json;

std::string GuidText(const GUID& guid)
{
    char text[40];
    const unsigned char* last = guid.Data4;
    std::snprintf(text, sizeof(text), "%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x",
                  static_cast<unsigned>(guid.Data1), guid.Data2, guid.Data3, last[0], last[1], last[2], last[3],
                  last[4], last[5], last[6], last[7]);
    return text;
}

std::string StatusNumber(NTSTATUS status)
{
    char text[16];
    std::snprintf(text, sizeof(text), "0x%08X", static_cast<unsigned>(status));
    return text;
}

Json ClientOf(const ClientScript& habits, unsigned client)
{
    Json json = {{"guid", GuidText(GuidOf(client))}, {"name", habits.name}, {"description", habits.description}};
    if (habits.entryCount != 0) {
        json["entries"] = habits.entryCount;
    }
    for (const Answer& answer : habits.answers) {
        Json rule = {
            {"from", ClientName(answer.from)}, {"state", "any"}, {"answer", answer.answer}, {"once", answer.once}};
        if (answer.state) {
            rule["state"] = *answer.state;
        }
        json["answers"].push_back(rule);
    }
    if (habits.takesCommands) {
        json["commands"] = Json::array();
        for (const auto& [id, answer] : habits.commands) {
            json["commands"].push_back({{"id", id}, {"answer", answer}});
        }
    }
    if (habits.wantsAppsState) {
        json["appsState"] = habits.appsState ? Json(*habits.appsState) : Json("heard");
    }
    return json;
}

Json StateOf(const Operation& operation)
{
    return operation.state == ZEP_STATE_ANY ? Json("any") : Json(operation.state);
}

// The step's name and fields; what it ends in is added by the caller.
Json StepOf(const Operation& operation)
{
    const std::string client = ClientName(operation.client);
    const std::string other = ClientName(operation.other);
    switch (operation.kind) {
    case Kind::kRegister:
        return {{"do", "register"}, {"client", client}};
    case Kind::kLeave:
        return {{"do", "leave"}, {"client", client}};
    case Kind::kSubscribe:
        return {{"do", "subscribe"}, {"client", client}, {"to", other}, {"state", StateOf(operation)}};
    case Kind::kUnsubscribe:
        return {{"do", "unsubscribe"}, {"client", client}, {"to", other}, {"state", StateOf(operation)}};
    case Kind::kPost:
        return {{"do", "post"}, {"client", client}, {"state", operation.state}};
    case Kind::kCommand:
        return {{"do", "command"},
                {"client", client},
                {"to", other},
                {"id", operation.value},
                {"argument", CommandArgument(operation)}};
    case Kind::kRunOne:
        return {{"do", "deliver"}, {"runs", 1}};
    case Kind::kDeliver:
        return {{"do", "deliver"}};
    case Kind::kAttach:
        return {{"do", "attach"}};
    case Kind::kDetach:
        return {{"do", "detach"}};
    case Kind::kCount:
        return {{"do", "count"}};
    case Kind::kDescribe:
        return {{"do", "describe"}, {"capacity", operation.value}};
    case Kind::kStartDump:
        return {{"do", "startDump"}, {"client", client}};
    case Kind::kAddDumpData:
        return {{"do", "addDumpData"}, {"client", client}};
    case Kind::kQueryDump:
        return {{"do", "queryDump"}, {"client", client}};
    case Kind::kAddTriageData:
        return {{"do", "addTriageData"}, {"client", client}};
    case Kind::kStopDump:
        return {{"do", "stopDump"}, {"client", client}};
    case Kind::kControl:
        return {{"do", "control"}, {"id", ControlCode(operation)}};
    case Kind::kTimeout:
        return {{"do", "timeout"}, {"argument", TimeoutMs(operation)}};
    case Kind::kSleep:
        return {{"do", "sleep"}};
    case Kind::kWake:
        return {{"do", "wake"}};
    }
    return {};
}

bool HasStatus(Kind kind)
{
    return kind != Kind::kRunOne && kind != Kind::kDeliver && kind != Kind::kTimeout && kind != Kind::kSleep &&
           kind != Kind::kWake;
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
    crashDump["add"] = StatusNumber(sequence.addAnswer);
    crashDump["remove"] = StatusNumber(sequence.removeAnswer);
    for (const char* dump : {"start", "addData", "stop", "query", "triage"}) {
        crashDump[dump] = StatusNumber(sequence.dumpAnswer);
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
            step["expect"] = StatusNumber(expected.status);
        }
        if (!operation.null.empty()) {
            step["null"] = operation.null;
        }
        if (expected.standsStill) {
            step["trouble"] = "waits for";
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
