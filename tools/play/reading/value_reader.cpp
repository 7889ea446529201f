#include "tools/play/reading/value_reader.h"

#include "driver/include/zepn_notifier.h"
#include "tools/play/statuses.h"
#include "tools/play/timeline.h"

#include <algorithm>

namespace play {
namespace {

// They mean no number of the client's, or always the same.
constexpr const char* kReservedStates[] = {"any", "none", "unregistered", "enabled"};

}  // namespace

const ClientModel* ValueReader::FindClient(const std::string& key) const
{
    const auto found = clients_.find(key);
    return found == clients_.end() || found->second >= scenario_.clients.size() ? nullptr
                                                                                : &scenario_.clients[found->second];
}

std::vector<std::string> ValueReader::DriverNames() const
{
    std::vector<std::string> names = {kNotifier};
    for (const ClientModel& client : scenario_.clients) {
        if (client.driver) {
            names.push_back(client.key);
        }
    }
    return names;
}

void ValueReader::ReadStateNames(const JsonValue& object, const std::string& field, StateNames& states)
{
    const JsonValue* value = FindMember(object, "states");
    if (value == nullptr || !IsA(*value, Kind::kObject, field)) {
        return;
    }
    CheckNames(*value, field);
    for (const JsonValue::Member& member : value->members) {
        const std::string at = field + "." + member.name;
        std::uint32_t number = 0;
        if (std::ranges::find(kReservedStates, member.name) != std::end(kReservedStates)) {
            Mistake(member.line, at, "\"" + member.name + "\" has a meaning of its own and cannot be given a number");
        } else if (!ReadNumber(member.value, at, number)) {
            continue;
        } else if (number == 0) {
            Mistake(member.value.line, at, "0 is called \"none\": the client has posted no state");
        } else if (number == ZEP_STATE_ANY) {
            Mistake(member.value.line, at,
                    std::to_string(number) + " is ZEP_STATE_ANY: a subscription to it gets every state");
        } else {
            states.numbers[member.name] = number;
            states.names.emplace(number, member.name);
        }
    }
}

void ValueReader::ReadState(const JsonValue& value, const std::string& field, const std::string& client,
                            const std::string& special, std::optional<std::uint32_t>& state)
{
    if (value.kind == Kind::kNumber) {
        std::uint32_t number = 0;
        if (ReadNumber(value, field, number)) {
            state = number;
        }
        return;
    }
    if (!IsA(value, Kind::kText, field) || (!special.empty() && value.text == special)) {
        return;
    }
    if (value.text == "none") {
        state = 0;
        return;
    }
    const ClientModel* model = FindClient(client);
    std::vector<std::string> names = {special};
    for (const StateNames* states : {model == nullptr ? nullptr : &model->states, &scenario_.states}) {
        if (states == nullptr) {
            continue;
        }
        if (const auto known = states->numbers.find(value.text); known != states->numbers.end()) {
            state = known->second;
            return;
        }
        for (const auto& [name, number] : states->numbers) {
            names.push_back(name);
        }
    }
    if (model != nullptr || client.empty()) {  // else the name of the client is wrong, which has been said
        Mistake(value.line, field, "no state \"" + value.text + "\" in \"states\"" + Nearest(value.text, names));
    }
}

void ValueReader::ReadState(const JsonValue& object, const std::string& name, const std::string& field,
                            const std::string& client, std::uint32_t& state)
{
    if (const JsonValue* value = FindMember(object, name)) {
        std::optional<std::uint32_t> read;
        ReadState(*value, field, client, "", read);
        state = read.value_or(0);
    }
}

void ValueReader::ReadClientName(const JsonValue& object, const std::string& name, const std::string& field,
                                 bool needsGuid, std::string& key)
{
    const JsonValue* value = FindMember(object, name);
    if (value == nullptr || !IsA(*value, Kind::kText, field + "." + name)) {
        return;
    }
    key = value->text;
    const ClientModel* client = FindClient(key);
    if (client == nullptr) {
        std::vector<std::string> keys;
        for (const auto& [known, index] : clients_) {
            keys.push_back(known);
        }
        Mistake(value->line, field + "." + name, "no client \"" + key + "\" in \"clients\"" + Nearest(key, keys));
    } else if (needsGuid && !client->hasGuid) {
        Mistake(value->line, field + "." + name, "the client \"" + key + "\" needs a field \"guid\" for this");
    }
}

bool ValueReader::ReadStatus(const JsonValue& value, const std::string& field, std::optional<NTSTATUS>& status)
{
    if (!IsA(value, Kind::kText, field)) {
        return false;
    }
    status = ParseStatus(value.text);
    if (!status) {
        Mistake(value.line, field,
                "expected a status like \"STATUS_NOT_FOUND\" or \"0xC0000225\"" +
                    Nearest(value.text, StatusNames(), "STATUS_"));
    }
    return status.has_value();
}

}  // namespace play
