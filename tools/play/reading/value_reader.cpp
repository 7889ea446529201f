#include "tools/play/reading/value_reader.h"

#include "tools/play/statuses.h"

namespace play {

void ValueReader::ReadState(const JsonValue& value, const std::string& field, bool anyAllowed,
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
    const auto known = scenario_.states.find(value.text);
    if (known == scenario_.states.end()) {
        std::vector<std::string> names;
        for (const auto& [name, number] : scenario_.states) {
            names.push_back(name);
        }
        Mistake(value.place, field, "no state \"" + value.text + "\" in \"states\"" + Nearest(value.text, names));
        return;
    }
    state = known->second;
}

void ValueReader::ReadState(const JsonValue& object, const std::string& name, const std::string& field,
                            std::uint32_t& state)
{
    if (const JsonValue* value = FindMember(object, name)) {
        std::optional<std::uint32_t> read;
        ReadState(*value, field, false, read);
        state = read.value_or(0);
    }
}

void ValueReader::ReadClientName(const JsonValue& object, const std::string& name, const std::string& field,
                                 std::string& key)
{
    const JsonValue* value = FindMember(object, name);
    if (value == nullptr || !IsA(*value, Kind::kText, field + "." + name)) {
        return;
    }
    if (!clientKeys_.contains(value->text)) {
        Mistake(value->place, field + "." + name,
                "no client \"" + value->text + "\" in \"clients\"" +
                    Nearest(value->text, {clientKeys_.begin(), clientKeys_.end()}));
    }
    key = value->text;
}

bool ValueReader::ReadStatus(const JsonValue& value, const std::string& field, std::optional<NTSTATUS>& status)
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

}  // namespace play
