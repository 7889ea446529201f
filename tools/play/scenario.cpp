// Reads a scenario file. Nothing is guessed: unknown fields, unknown names and wrong kinds of values are all reported,
// each with its place and what was expected there.
#include "tools/play/scenario.h"

#include "host/tracing/decode.h"
#include "tools/play/statuses.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <set>

namespace play {
namespace {

using Kind = JsonValue::Kind;

struct ActionRow {
    const char* name;
    Action action;
    std::vector<std::string> required;
    std::vector<std::string> optional;
};

const std::vector<ActionRow>& Actions()
{
    static const std::vector<ActionRow> kRows = {
        {"note", Action::kNote, {"text"}, {}},
        {"register", Action::kRegister, {"client"}, {"expect", "null"}},
        {"subscribe", Action::kSubscribe, {"client", "to", "state"}, {"expect", "null"}},
        {"unsubscribe", Action::kUnsubscribe, {"client", "to", "state"}, {"expect", "null"}},
        {"post", Action::kPost, {"client", "state"}, {"expect", "null"}},
        {"leave", Action::kLeave, {"client"}, {"expect", "null"}},
        {"deliver", Action::kDeliver, {}, {"runs"}},
        {"command", Action::kCommand, {"client", "to", "id"}, {"argument", "expect", "null"}},
        {"attach", Action::kAttach, {}, {"expect", "null"}},
        {"detach", Action::kDetach, {}, {"expect"}},
        {"count", Action::kCount, {}, {"expect", "null"}},
        {"describe", Action::kDescribe, {}, {"capacity", "expect", "null"}},
        {"startDump", Action::kStartDump, {"client"}, {"expect", "null"}},
        {"addDumpData", Action::kAddDumpData, {"client"}, {"expect", "null"}},
        {"queryDump", Action::kQueryDump, {"client"}, {"expect", "null"}},
        {"addTriageData", Action::kAddTriageData, {"client"}, {"expect", "null"}},
        {"stopDump", Action::kStopDump, {"client"}, {"expect", "null"}},
        {"open", Action::kOpen, {}, {"expect"}},
        {"control", Action::kControl, {}, {"id", "expect"}},
        {"close", Action::kClose, {}, {}},
        {"timeout", Action::kTimeout, {"argument"}, {}},
        {"sleep", Action::kSleep, {}, {}},
        {"wake", Action::kWake, {}, {}},
        {"askToStop", Action::kRefuseStop, {}, {"expect"}},
        {"askToRemove", Action::kRefuseRemove, {}, {"expect"}},
        {"surpriseRemoval", Action::kSurpriseRemoval, {}, {}},
        {"remove", Action::kRemove, {}, {}},
        {"unload", Action::kUnload, {}, {}},
    };
    return kRows;
}

std::size_t Distance(const std::string& first, const std::string& second)
{
    std::vector<std::size_t> row(second.size() + 1);
    for (std::size_t index = 0; index < row.size(); ++index) {
        row[index] = index;
    }
    for (std::size_t line = 1; line <= first.size(); ++line) {
        std::size_t diagonal = row[0];
        row[0] = line;
        for (std::size_t column = 1; column < row.size(); ++column) {
            const std::size_t replaced = diagonal + (first[line - 1] == second[column - 1] ? 0 : 1);
            diagonal = row[column];
            row[column] = std::min({row[column] + 1, row[column - 1] + 1, replaced});
        }
    }
    return row.back();
}

std::string Nearest(const std::string& name, const std::vector<std::string>& known)
{
    std::string nearest;
    std::size_t best = name.size() / 2 + 1;
    for (const std::string& candidate : known) {
        if (Distance(name, candidate) < best) {
            best = Distance(name, candidate);
            nearest = candidate;
        }
    }
    return nearest.empty() ? std::string() : "; did you mean \"" + nearest + "\"?";
}

class Reader {
public:
    explicit Reader(std::string file) : file_(std::move(file)) {}

    Scenario Read(const std::string& text)
    {
        JsonValue root;
        try {
            root = ParseJson(text);
        } catch (const JsonError& error) {
            Mistake(error.place, "syntax", error.message);
            Throw();
        }
        Scenario scenario;
        if (IsA(root, Kind::kObject, "scenario")) {
            CheckFields(root, "scenario", {"title", "states", "clients", "steps"}, {"crashDump"});
            ReadText(root, "title", "title", scenario.title);
            ReadStates(root, scenario);
            ReadClients(root, scenario);
            ReadCrashDump(root, scenario);
            ReadSteps(root, scenario);
        }
        if (!mistakes_.empty()) {
            Throw();
        }
        return scenario;
    }

private:
    void Mistake(Place place, const std::string& field, const std::string& expected)
    {
        mistakes_ += (mistakes_.empty() ? "" : "\n") + file_ + ":" + std::to_string(place.line) + ":" +
                     std::to_string(place.column) + ": " + field + ": " + expected;
    }

    [[noreturn]] void Throw() const { throw ScenarioError(mistakes_); }

    bool IsA(const JsonValue& value, Kind kind, const std::string& field)
    {
        if (value.kind != kind) {
            Mistake(value.place, field, std::string("expected ") + Name(kind) + ", found " + Name(value.kind));
        }
        return value.kind == kind;
    }

    static const JsonValue* Member(const JsonValue& object, const std::string& name)
    {
        for (const JsonValue::Member& member : object.members) {
            if (member.name == name) {
                return &member.value;
            }
        }
        return nullptr;
    }

    void CheckFields(const JsonValue& object, const std::string& field, const std::vector<std::string>& required,
                     const std::vector<std::string>& optional)
    {
        std::vector<std::string> known = required;
        known.insert(known.end(), optional.begin(), optional.end());
        std::set<std::string> seen;
        for (const JsonValue::Member& member : object.members) {
            if (std::find(known.begin(), known.end(), member.name) == known.end()) {
                Mistake(member.place, field + "." + member.name, "unknown field" + Nearest(member.name, known));
            } else if (!seen.insert(member.name).second) {
                Mistake(member.place, field + "." + member.name, "stands twice");
            }
        }
        for (const std::string& name : required) {
            if (!seen.contains(name)) {
                Mistake(object.place, field, "field \"" + name + "\" is missing");
            }
        }
    }

    void ReadText(const JsonValue& object, const std::string& name, const std::string& field, std::string& text)
    {
        const JsonValue* value = Member(object, name);
        if (value != nullptr && IsA(*value, Kind::kText, field)) {
            text = value->text;
        }
    }

    bool ReadNumber(const JsonValue& value, const std::string& field, std::uint32_t& number)
    {
        if (value.kind != Kind::kNumber || !value.isWhole || value.number > 0xFFFFFFFFu) {
            Mistake(value.place, field, "expected a whole number from 0 to 4294967295");
            return false;
        }
        number = static_cast<std::uint32_t>(value.number);
        return true;
    }

    void ReadNumber(const JsonValue& object, const std::string& name, const std::string& field, std::uint32_t& number)
    {
        if (const JsonValue* value = Member(object, name)) {
            (void)ReadNumber(*value, field, number);
        }
    }

    void ReadStates(const JsonValue& root, Scenario& scenario)
    {
        const JsonValue* states = Member(root, "states");
        if (states == nullptr || !IsA(*states, Kind::kObject, "states")) {
            return;
        }
        for (const JsonValue::Member& member : states->members) {
            std::uint32_t number = 0;
            if (member.name == "any") {
                Mistake(member.place, "states.any", "\"any\" is the name for every state and cannot be given a number");
            } else if (ReadNumber(member.value, "states." + member.name, number)) {
                scenario.states[member.name] = number;
            }
        }
    }

    // A state by name or number; "any" where that is allowed.
    void ReadState(const JsonValue& value, const std::string& field, const Scenario& scenario, bool anyAllowed,
                   std::optional<std::uint32_t>& state)
    {
        if (value.kind == Kind::kNumber) {
            std::uint32_t number = 0;
            if (ReadNumber(value, field, number)) {
                state = number;
            }
            return;
        }
        if (!IsA(value, Kind::kText, field) || (anyAllowed && value.text == "any")) {
            return;
        }
        const auto known = scenario.states.find(value.text);
        if (known == scenario.states.end()) {
            std::vector<std::string> names;
            for (const auto& [name, number] : scenario.states) {
                names.push_back(name);
            }
            Mistake(value.place, field, "no state \"" + value.text + "\" in \"states\"" + Nearest(value.text, names));
            return;
        }
        state = known->second;
    }

    void ReadState(const JsonValue& object, const std::string& name, const std::string& field, const Scenario& scenario,
                   std::uint32_t& state)
    {
        if (const JsonValue* value = Member(object, name)) {
            std::optional<std::uint32_t> read;
            ReadState(*value, field, scenario, false, read);
            state = read.value_or(0);
        }
    }

    void ReadClients(const JsonValue& root, Scenario& scenario)
    {
        const JsonValue* clients = Member(root, "clients");
        if (clients == nullptr || !IsA(*clients, Kind::kObject, "clients")) {
            return;
        }
        for (const JsonValue::Member& member : clients->members) {
            clientKeys_.push_back(member.name);
        }
        for (const JsonValue::Member& member : clients->members) {
            const std::string field = "clients." + member.name;
            ClientModel client;
            client.key = member.name;
            if (IsA(member.value, Kind::kObject, field)) {
                ReadClient(member.value, field, scenario, client);
            }
            scenario.clients.push_back(std::move(client));
        }
    }

    void ReadClient(const JsonValue& value, const std::string& field, const Scenario& scenario, ClientModel& client)
    {
        CheckFields(value, field, {"guid", "name"},
                    {"description", "entries", "answers", "commands", "appsState", "inside"});
        if (const JsonValue* guid = Member(value, "guid");
            guid != nullptr && IsA(*guid, Kind::kText, field + ".guid")) {
            if (const auto parsed = host::tracing::ParseGuid(guid->text)) {
                client.guid = *parsed;
            } else {
                Mistake(guid->place, field + ".guid", "expected a GUID like \"6f1b2c3d-0001-4a5b-8c9d-000000000001\"");
            }
        }
        ReadText(value, "name", field + ".name", client.name);
        ReadText(value, "description", field + ".description", client.description);
        ReadNumber(value, "entries", field + ".entries", client.entryCount);
        ReadAnswers(value, field, scenario, client);
        ReadCommands(value, field, scenario, client);
        ReadInside(value, field, {"state", "command", "appsState"},
                   {"register", "leave", "post", "command", "subscribe", "unsubscribe"}, client.inside);
        if (const JsonValue* apps = Member(value, "appsState")) {
            client.hearsAppsState = true;
            if (apps->kind != Kind::kText || apps->text != "heard") {
                ReadState(*apps, field + ".appsState", scenario, false, client.appsState);
            }
        }
    }

    void ReadAnswers(const JsonValue& value, const std::string& field, const Scenario& scenario, ClientModel& client)
    {
        const JsonValue* answers = Member(value, "answers");
        if (answers == nullptr || !IsA(*answers, Kind::kArray, field + ".answers")) {
            return;
        }
        for (std::size_t index = 0; index < answers->items.size(); ++index) {
            const JsonValue& item = answers->items[index];
            const std::string at = field + ".answers[" + std::to_string(index) + "]";
            if (!IsA(item, Kind::kObject, at)) {
                continue;
            }
            CheckFields(item, at, {"from", "state", "answer"}, {"once"});
            AnswerRule rule;
            ReadClientName(item, "from", at, rule.from);
            if (const JsonValue* state = Member(item, "state")) {
                ReadState(*state, at + ".state", scenario, true, rule.state);
            }
            ReadState(item, "answer", at + ".answer", scenario, rule.answer);
            if (const JsonValue* once = Member(item, "once");
                once != nullptr && IsA(*once, Kind::kBoolean, at + ".once")) {
                rule.once = once->boolean;
            }
            client.answers.push_back(rule);
        }
    }

    void ReadCommands(const JsonValue& value, const std::string& field, const Scenario& scenario, ClientModel& client)
    {
        const JsonValue* commands = Member(value, "commands");
        if (commands == nullptr || !IsA(*commands, Kind::kArray, field + ".commands")) {
            return;
        }
        client.takesCommands = true;
        for (std::size_t index = 0; index < commands->items.size(); ++index) {
            const JsonValue& item = commands->items[index];
            const std::string at = field + ".commands[" + std::to_string(index) + "]";
            if (!IsA(item, Kind::kObject, at)) {
                continue;
            }
            CheckFields(item, at, {"id", "answer"}, {});
            CommandRule rule;
            ReadNumber(item, "id", at + ".id", rule.id);
            ReadState(item, "answer", at + ".answer", scenario, rule.answer);
            client.commands.push_back(rule);
        }
    }

    void ReadClientName(const JsonValue& object, const std::string& name, const std::string& field, std::string& key)
    {
        const JsonValue* value = Member(object, name);
        if (value == nullptr || !IsA(*value, Kind::kText, field + "." + name)) {
            return;
        }
        if (std::find(clientKeys_.begin(), clientKeys_.end(), value->text) == clientKeys_.end()) {
            Mistake(value->place, field + "." + name,
                    "no client \"" + value->text + "\" in \"clients\"" + Nearest(value->text, clientKeys_));
        }
        key = value->text;
    }

    bool ReadStatus(const JsonValue& value, const std::string& field, std::optional<NTSTATUS>& status)
    {
        if (!IsA(value, Kind::kText, field)) {
            return false;
        }
        status = ParseStatus(value.text);
        if (!status) {
            Mistake(value.place, field, "expected a status like \"STATUS_NOT_FOUND\" or \"0xC0000225\"");
        }
        return status.has_value();
    }

    void ReadCrashDump(const JsonValue& root, Scenario& scenario)
    {
        const JsonValue* value = Member(root, "crashDump");
        if (value == nullptr || !IsA(*value, Kind::kObject, "crashDump")) {
            return;
        }
        CheckFields(*value, "crashDump", {},
                    {"add", "remove", "start", "addData", "stop", "query", "triage", "inside"});
        ReadInside(*value, "crashDump", {"add", "remove"}, {"detach", "count", "describe"}, scenario.crashDump.inside);
        for (const JsonValue::Member& member : value->members) {
            std::optional<NTSTATUS> status;
            if (member.name != "inside" && ReadStatus(member.value, "crashDump." + member.name, status)) {
                scenario.crashDump.answers[member.name] = *status;
            }
        }
    }

    void ReadSteps(const JsonValue& root, Scenario& scenario)
    {
        const JsonValue* steps = Member(root, "steps");
        if (steps == nullptr || !IsA(*steps, Kind::kArray, "steps")) {
            return;
        }
        for (std::size_t index = 0; index < steps->items.size(); ++index) {
            const std::string field = "steps[" + std::to_string(index) + "]";
            if (IsA(steps->items[index], Kind::kObject, field)) {
                ReadStep(steps->items[index], field, scenario);
            }
        }
    }

    void ReadStep(const JsonValue& value, const std::string& field, Scenario& scenario)
    {
        const JsonValue* action = Member(value, "do");
        if (action == nullptr) {
            Mistake(value.place, field, "field \"do\" is missing");
            return;
        }
        if (!IsA(*action, Kind::kText, field + ".do")) {
            return;
        }
        std::vector<std::string> names;
        for (const ActionRow& row : Actions()) {
            names.emplace_back(row.name);
            if (row.name == action->text) {
                ReadStepOf(row, value, field, scenario);
                return;
            }
        }
        Mistake(action->place, field + ".do", "unknown step \"" + action->text + "\"" + Nearest(action->text, names));
    }

    void ReadStepOf(const ActionRow& row, const JsonValue& value, const std::string& field, Scenario& scenario)
    {
        std::vector<std::string> required = row.required;
        required.emplace_back("do");
        std::vector<std::string> optional = row.optional;
        if (row.action != Action::kNote) {
            optional.insert(optional.end(), {"fail", "level", "trouble"});
        }
        CheckFields(value, field, required, optional);
        Step step;
        step.action = row.action;
        step.place = value.place;
        ReadText(value, "text", field + ".text", step.text);
        ReadClientName(value, "client", field, step.client);
        ReadClientName(value, "to", field, step.to);
        if (const JsonValue* state = Member(value, "state")) {
            const bool anyAllowed = row.action == Action::kSubscribe || row.action == Action::kUnsubscribe;
            ReadState(*state, field + ".state", scenario, anyAllowed, step.state);
        }
        ReadNumber(value, "id", field + ".id", step.id);
        ReadNumber(value, "argument", field + ".argument", step.argument);
        ReadNumber(value, "runs", field + ".runs", step.runs);
        step.hasCapacity = Member(value, "capacity") != nullptr;
        ReadNumber(value, "capacity", field + ".capacity", step.capacity);
        if (const JsonValue* expect = Member(value, "expect")) {
            (void)ReadStatus(*expect, field + ".expect", step.expect);
        }
        ReadMischief(value, field, step);
        scenario.steps.push_back(step);
    }

    // What a step does wrong on purpose, and what shall come of it.
    void ReadMischief(const JsonValue& value, const std::string& field, Step& step)
    {
        ReadOneOf(value, "null", field, NullArguments(step.action), step.null);
        std::string level;
        ReadOneOf(value, "level", field, {"dispatch"}, level);
        step.raised = !level.empty();
        if (Member(value, "trouble") != nullptr) {
            ReadText(value, "trouble", field + ".trouble", step.trouble.emplace());
        }
        const JsonValue* fail = Member(value, "fail");
        if (fail == nullptr || !IsA(*fail, Kind::kObject, field + ".fail")) {
            return;
        }
        CheckFields(*fail, field + ".fail", {"call"}, {"detail", "status"});
        ReadText(*fail, "call", field + ".fail.call", step.fail.emplace().call);
        ReadText(*fail, "detail", field + ".fail.detail", step.fail->detail);
        if (const JsonValue* status = Member(*fail, "status")) {
            (void)ReadStatus(*status, field + ".fail.status", step.fail->status);
        }
    }

    static std::vector<std::string> NullArguments(Action action)
    {
        switch (action) {
        case Action::kRegister:
            return {"guid", "callbacks"};
        case Action::kSubscribe:
            return {"guid", "record", "callback"};
        case Action::kUnsubscribe:
            return {"guid", "record"};
        case Action::kDescribe:
            return {"descriptors", "count"};
        case Action::kCount:
            return {"count"};
        case Action::kLeave:
            return {"guid"};
        default:
            return {"record"};
        }
    }

    // A text out of a list; empty when the field is not there.
    void ReadOneOf(const JsonValue& object, const std::string& name, const std::string& field,
                   const std::vector<std::string>& known, std::string& text)
    {
        const JsonValue* value = Member(object, name);
        if (value == nullptr || !IsA(*value, Kind::kText, field + "." + name)) {
            return;
        }
        text = value->text;
        if (std::find(known.begin(), known.end(), text) == known.end()) {
            std::string list;
            for (const std::string& one : known) {
                list += (list.empty() ? "\"" : ", \"") + one + "\"";
            }
            Mistake(value->place, field + "." + name, "expected one of " + list + Nearest(text, known));
        }
    }

    void ReadInside(const JsonValue& value, const std::string& field, const std::vector<std::string>& callbacks,
                    const std::vector<std::string>& calls, std::vector<InsideCall>& inside)
    {
        const JsonValue* list = Member(value, "inside");
        if (list == nullptr || !IsA(*list, Kind::kArray, field + ".inside")) {
            return;
        }
        for (std::size_t index = 0; index < list->items.size(); ++index) {
            const std::string at = field + ".inside[" + std::to_string(index) + "]";
            if (IsA(list->items[index], Kind::kObject, at)) {
                CheckFields(list->items[index], at, {"on", "do"}, {});
                InsideCall& call = inside.emplace_back();
                ReadOneOf(list->items[index], "on", at, callbacks, call.callback);
                ReadOneOf(list->items[index], "do", at, calls, call.call);
            }
        }
    }

    std::string file_;
    std::string mistakes_;
    std::vector<std::string> clientKeys_;
};

}  // namespace

std::string Scenario::StateName(std::uint32_t state) const
{
    for (const auto& [name, number] : states) {
        if (number == state) {
            return name;
        }
    }
    return state == 0 ? "none" : std::to_string(state);
}

const ClientModel* Scenario::Find(const std::string& key) const
{
    for (const ClientModel& client : clients) {
        if (client.key == key) {
            return &client;
        }
    }
    return nullptr;
}

Scenario ParseScenario(const std::string& text, const std::string& fileName)
{
    return Reader(fileName).Read(text);
}

Scenario ReadScenario(const std::filesystem::path& file)
{
    std::ifstream stream(file, std::ios::binary);
    if (!stream) {
        throw ScenarioError(file.string() + ": cannot be read");
    }
    const std::string text((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
    return ParseScenario(text, file.string());
}

}  // namespace play
