#include "tools/play/reading/field_reader.h"

#include <algorithm>
#include <set>

namespace play {
namespace {

// Of one text to another, in characters put in, taken out or replaced.
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

}  // namespace

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

void FieldReader::Mistake(Place place, const std::string& field, const std::string& expected)
{
    mistakes_ += (mistakes_.empty() ? "" : "\n") + file_ + ":" + std::to_string(place.line) + ":" +
                 std::to_string(place.column) + ": " + field + ": " + expected;
}

bool FieldReader::IsA(const JsonValue& value, Kind kind, const std::string& field)
{
    if (value.kind != kind) {
        Mistake(value.place, field, std::string("expected ") + Name(kind) + ", found " + Name(value.kind));
    }
    return value.kind == kind;
}

void FieldReader::CheckFields(const JsonValue& object, const std::string& field,
                              const std::vector<std::string>& required, const std::vector<std::string>& optional)
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

void FieldReader::ReadText(const JsonValue& object, const std::string& name, const std::string& field,
                           std::string& text)
{
    const JsonValue* value = FindMember(object, name);
    if (value != nullptr && IsA(*value, Kind::kText, field)) {
        text = value->text;
    }
}

bool FieldReader::ReadNumber(const JsonValue& value, const std::string& field, std::uint32_t& number)
{
    if (value.kind != Kind::kNumber || !value.isWhole || value.number > 0xFFFFFFFFu) {
        Mistake(value.place, field, "expected a whole number from 0 to 4294967295");
        return false;
    }
    number = static_cast<std::uint32_t>(value.number);
    return true;
}

void FieldReader::ReadNumber(const JsonValue& object, const std::string& name, const std::string& field,
                             std::uint32_t& number)
{
    if (const JsonValue* value = FindMember(object, name)) {
        (void)ReadNumber(*value, field, number);
    }
}

void FieldReader::ReadOneOf(const JsonValue& object, const std::string& name, const std::string& field,
                            const std::vector<std::string>& known, std::string& text)
{
    const JsonValue* value = FindMember(object, name);
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

}  // namespace play
