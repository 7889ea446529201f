#include "tools/play/reading/field_reader.h"

#include "tools/play/scenario.h"

#include <algorithm>
#include <set>
#include <utility>

namespace play {
namespace {

constexpr unsigned kMistakesMaximum = 20;
constexpr std::size_t kNameMaximum = 64;  // a longer one is no misspelt name

// Words of earlier files, and those of today.
constexpr std::pair<const char*, const char*> kRenamed[] = {
    {"leave", "deregister"}, {"heard", "enabled"}, {"device", "notifier"}};

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

std::string Nearest(const std::string& name, const std::vector<std::string>& known, const std::string& prefix)
{
    for (const auto& [before, now] : kRenamed) {
        if (name == before && std::ranges::find(known, now) != known.end()) {
            return std::string("; it is called \"") + now + "\" now";
        }
    }
    const auto distinct = [&prefix](const std::string& text) {
        return text.starts_with(prefix) ? text.substr(prefix.size()) : text;
    };
    const std::string wrong = distinct(name);
    if (wrong.size() > kNameMaximum) {
        return {};
    }
    std::string nearest;
    std::size_t best = wrong.size() / 2 + 1;
    for (const std::string& one : known) {
        const std::string candidate = distinct(one);
        if (candidate.size() >= wrong.size() + best || wrong.size() >= candidate.size() + best) {
            continue;
        }
        if (const std::size_t distance = Distance(wrong, candidate); distance < best) {
            best = distance;
            nearest = one;
        }
    }
    return nearest.empty() ? std::string() : "; did you mean \"" + nearest + "\"?";
}

void FieldReader::Mistake(Place place, const std::string& field, const std::string& expected)
{
    mistakes_ += (mistakes_.empty() ? "" : "\n") + file_ + ":" + std::to_string(place.line) + ":" +
                 std::to_string(place.column) + ": " + field + ": " + expected;
    if (++mistakeCount_ == kMistakesMaximum) {
        throw ScenarioError(mistakes_ + "\n" + file_ + ": there may be more mistakes");
    }
}

void FieldReader::CheckNames(const JsonValue& object, const std::string& field)
{
    std::set<std::string> seen;
    for (const JsonValue::Member& member : object.members) {
        if (!seen.insert(member.name).second) {
            Mistake(member.place, field + "." + member.name, "stands twice");
        }
    }
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
    CheckNames(object, field);
    for (const JsonValue::Member& member : object.members) {
        if (std::find(known.begin(), known.end(), member.name) == known.end()) {
            Mistake(member.place, field + "." + member.name, "unknown field" + Nearest(member.name, known));
        }
    }
    for (const std::string& name : required) {
        if (FindMember(object, name) == nullptr) {
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

bool FieldReader::ReadNumber(const JsonValue& value, const std::string& field, std::uint32_t& number,
                             std::uint32_t maximum)
{
    if (value.kind != Kind::kNumber || !value.isWhole || value.number > maximum) {
        Mistake(value.place, field, "expected a whole number from 0 to " + std::to_string(maximum));
        return false;
    }
    number = static_cast<std::uint32_t>(value.number);
    return true;
}

void FieldReader::ReadNumber(const JsonValue& object, const std::string& name, const std::string& field,
                             std::uint32_t& number, std::uint32_t maximum)
{
    if (const JsonValue* value = FindMember(object, name)) {
        (void)ReadNumber(*value, field, number, maximum);
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
