#include "tools/play/reading/peer_reader.h"

#include "host/tracing/decode.h"
#include "tools/play/timeline.h"

#include <algorithm>
#include <iterator>

namespace play {
namespace {

constexpr std::uint32_t kEntriesMaximum = 100'000;  // they take memory

void ReadAnswers(ValueReader& reader, const JsonValue& value, const std::string& field, ClientModel& client)
{
    const JsonValue* answers = FindMember(value, "answers");
    if (answers == nullptr || !reader.IsA(*answers, JsonValue::Kind::kArray, field + ".answers")) {
        return;
    }
    for (std::size_t index = 0; index < answers->items.size(); ++index) {
        const JsonValue& item = answers->items[index];
        const std::string at = field + ".answers[" + std::to_string(index) + "]";
        if (!reader.IsA(item, JsonValue::Kind::kObject, at)) {
            continue;
        }
        reader.CheckFields(item, at, {"from", "state", "answer"}, {"once"});
        AnswerRule rule;
        reader.ReadClientName(item, "from", at, true, rule.from);
        if (const JsonValue* state = FindMember(item, "state")) {
            reader.ReadState(*state, at + ".state", rule.from, "any", rule.state);
        }
        reader.ReadState(item, "answer", at + ".answer", client.key, rule.answer);
        if (const JsonValue* once = FindMember(item, "once");
            once != nullptr && reader.IsA(*once, JsonValue::Kind::kBoolean, at + ".once")) {
            rule.once = once->boolean;
        }
        client.answers.push_back(rule);
    }
}

void ReadCommands(ValueReader& reader, const JsonValue& value, const std::string& field, ClientModel& client)
{
    const JsonValue* commands = FindMember(value, "commands");
    if (commands == nullptr || !reader.IsA(*commands, JsonValue::Kind::kArray, field + ".commands")) {
        return;
    }
    client.takesCommands = true;
    for (std::size_t index = 0; index < commands->items.size(); ++index) {
        const JsonValue& item = commands->items[index];
        const std::string at = field + ".commands[" + std::to_string(index) + "]";
        if (!reader.IsA(item, JsonValue::Kind::kObject, at)) {
            continue;
        }
        reader.CheckFields(item, at, {"id", "answer"}, {});
        CommandRule rule;
        reader.ReadNumber(item, "id", at + ".id", rule.id);
        reader.ReadState(item, "answer", at + ".answer", client.key, rule.answer);
        client.commands.push_back(rule);
    }
}

// The calls from inside callbacks.
void ReadInside(ValueReader& reader, const JsonValue& value, const std::string& field,
                const std::vector<std::string>& callbacks, const std::vector<Kind>& calls,
                std::vector<InsideCall>& inside)
{
    std::vector<std::string> names;
    std::ranges::transform(calls, std::back_inserter(names), [](Kind call) { return Name(call); });
    const JsonValue* list = FindMember(value, "inside");
    if (list == nullptr || !reader.IsA(*list, JsonValue::Kind::kArray, field + ".inside")) {
        return;
    }
    for (std::size_t index = 0; index < list->items.size(); ++index) {
        const std::string at = field + ".inside[" + std::to_string(index) + "]";
        if (reader.IsA(list->items[index], JsonValue::Kind::kObject, at)) {
            reader.CheckFields(list->items[index], at, {"on", "do"}, {});
            InsideCall& call = inside.emplace_back();
            reader.ReadOneOf(list->items[index], "on", at, callbacks, call.callback);
            std::string name;
            reader.ReadOneOf(list->items[index], "do", at, names, name);
            const auto found = std::ranges::find(names, name);
            call.call = found == names.end() ? Kind::kNote : calls[static_cast<std::size_t>(found - names.begin())];
        }
    }
}

// The name of the image, and the values in the registry.
void ReadDriver(ValueReader& reader, const JsonValue& value, const JsonValue& image, const std::string& field,
                ClientModel& client)
{
    for (const char* reserved : {"zepn", kNotifier, kSystem, kApplication}) {
        if (client.key == reserved) {
            reader.Mistake(value.line, field, "the name is taken: a real driver's service is called so");
        }
    }
    client.driver.emplace().line = image.line;
    if (reader.IsA(image, JsonValue::Kind::kText, field + ".image")) {
        client.driver->image = image.text;
    }
    const JsonValue* parameters = FindMember(value, "parameters");
    if (parameters == nullptr || !reader.IsA(*parameters, JsonValue::Kind::kObject, field + ".parameters")) {
        return;
    }
    reader.CheckNames(*parameters, field + ".parameters");
    for (const JsonValue::Member& member : parameters->members) {
        Parameter& parameter = client.driver->parameters.emplace_back(Parameter{member.name, std::uint32_t{0}});
        if (member.value.kind == JsonValue::Kind::kText) {
            parameter.value = member.value.text;
        } else {
            (void)reader.ReadNumber(member.value, field + ".parameters." + member.name,
                                    std::get<std::uint32_t>(parameter.value));
        }
    }
}

// What others may name: identity and states.
void ReadIdentity(ValueReader& reader, const JsonValue& value, const std::string& field, ClientModel& client)
{
    constexpr const char* kOfScripts[] = {"name",     "description", "entries", "answers",
                                          "commands", "appsState",   "inside"};
    const JsonValue* image = FindMember(value, "image");
    std::vector<std::string> fields = {"guid", "states", "image", "parameters"};
    fields.insert(fields.end(), std::begin(kOfScripts), std::end(kOfScripts));
    reader.CheckFields(
        value, field, image == nullptr ? std::vector<std::string>{"guid", "name"} : std::vector<std::string>(), fields);
    for (const JsonValue::Member& member : value.members) {
        const bool isOfScripts = std::ranges::find(kOfScripts, member.name) != std::end(kOfScripts);
        if (image != nullptr && isOfScripts) {
            reader.Mistake(member.line, field + "." + member.name,
                           "is for a scripted client, and this one has an \"image\"");
        } else if (image == nullptr && member.name == "parameters") {
            reader.Mistake(member.line, field + ".parameters", "is for a client with an \"image\"");
        }
    }
    if (image != nullptr) {
        ReadDriver(reader, value, *image, field, client);
    }
    if (const JsonValue* guid = FindMember(value, "guid");
        guid != nullptr && reader.IsA(*guid, JsonValue::Kind::kText, field + ".guid")) {
        const auto parsed = host::tracing::ParseGuid(guid->text);
        if (!parsed) {
            reader.Mistake(guid->line, field + ".guid",
                           "expected a GUID like \"6f1b2c3d-0001-4a5b-8c9d-000000000001\"");
        }
        client.guid = parsed.value_or(GUID{});
        client.hasGuid = true;
    }
    reader.ReadStateNames(value, field + ".states", client.states);
}

// How a scripted client answers.
void ReadScript(ValueReader& reader, const JsonValue& value, const std::string& field, ClientModel& client)
{
    reader.ReadText(value, "name", field + ".name", client.name);
    reader.ReadText(value, "description", field + ".description", client.description);
    reader.ReadNumber(value, "entries", field + ".entries", client.entryCount, kEntriesMaximum);
    ReadAnswers(reader, value, field, client);
    ReadCommands(reader, value, field, client);
    ReadInside(reader, value, field, {"state", "command", "appsState"},
               {Kind::kRegister, Kind::kDeregister, Kind::kPost, Kind::kCommand, Kind::kSubscribe, Kind::kUnsubscribe},
               client.inside);
    if (const JsonValue* apps = FindMember(value, "appsState")) {
        client.wantsAppsState = true;
        reader.ReadState(*apps, field + ".appsState", client.key, "enabled", client.appsState);
    }
}

}  // namespace

void ReadClients(ValueReader& reader, const JsonValue& root, Scenario& scenario)
{
    const JsonValue* clients = FindMember(root, "clients");
    if (clients == nullptr || !reader.IsA(*clients, JsonValue::Kind::kObject, "clients")) {
        return;
    }
    reader.CheckNames(*clients, "clients");
    for (const JsonValue::Member& member : clients->members) {
        reader.AddClientName(member.name);
        ClientModel& client = scenario.clients.emplace_back();
        client.key = member.name;
        if (reader.IsA(member.value, JsonValue::Kind::kObject, "clients." + member.name)) {
            ReadIdentity(reader, member.value, "clients." + member.name, client);
        }
    }
    std::uint64_t entries = 0;
    for (std::size_t index = 0; index < clients->members.size(); ++index) {
        const JsonValue::Member& member = clients->members[index];
        const std::string field = "clients." + member.name;
        ClientModel& client = scenario.clients[index];
        if (member.value.kind == JsonValue::Kind::kObject && !client.driver) {
            ReadScript(reader, member.value, field, client);
        }
        entries += client.entryCount;
        if (entries > kEntriesMaximum) {
            reader.Mistake(member.line, field,
                           "all clients together have more than " + std::to_string(kEntriesMaximum) + " entries");
            return;
        }
    }
}

void ReadCrashDump(ValueReader& reader, const JsonValue& root, Scenario& scenario)
{
    const JsonValue* value = FindMember(root, "crashDump");
    if (value == nullptr || !reader.IsA(*value, JsonValue::Kind::kObject, "crashDump")) {
        return;
    }
    reader.CheckFields(*value, "crashDump", {},
                       {"add", "remove", "start", "addData", "stop", "query", "triage", "inside"});
    ReadInside(reader, *value, "crashDump", {"add", "remove"}, {Kind::kDetach, Kind::kCount, Kind::kDescribe},
               scenario.crashDump.inside);
    for (const JsonValue::Member& member : value->members) {
        std::optional<NTSTATUS> status;
        if (member.name != "inside" && reader.ReadStatus(member.value, "crashDump." + member.name, status)) {
            scenario.crashDump.answers[member.name] = *status;
        }
    }
}

}  // namespace play
