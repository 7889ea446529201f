#include "tools/play/reading/field_reader.h"

#include "tools/play/scenario.h"

#include <algorithm>
#include <ranges>
#include <set>
#include <string_view>

namespace play {
namespace {

constexpr unsigned kMistakesMaximum = 20;
// How long the parts are in which two texts differ, between a common beginning and a common end.
std::size_t Difference(std::string_view first, std::string_view second)
{
    const auto begin = std::ranges::mismatch(first, second);
    first = {begin.in1, first.end()};
    second = {begin.in2, second.end()};
    const auto end = std::ranges::mismatch(first | std::views::reverse, second | std::views::reverse);
    return static_cast<std::size_t>(std::max(first.rend() - end.in1, second.rend() - end.in2));
}

}  // namespace

std::string Nearest(const std::string& name, const std::vector<std::string>& known, const std::string& prefix)
{
    const auto distinct = [&prefix](const std::string& text) {
        return text.starts_with(prefix) ? text.substr(prefix.size()) : text;
    };
    const std::string wrong = distinct(name);
    std::string nearest;
    std::size_t least = wrong.size() / 2 + 1;
    for (const std::string& candidate : known) {
        if (const std::size_t difference = Difference(wrong, distinct(candidate)); difference < least) {
            least = difference;
            nearest = candidate;
        }
    }
    return nearest.empty() ? std::string() : "; did you mean \"" + nearest + "\"?";
}

void FieldReader::Mistake(unsigned line, const std::string& field, const std::string& expected)
{
    mistakes_ += (mistakes_.empty() ? "" : "\n") + file_ + ":" + std::to_string(line) + ": " + field + ": " + expected;
    if (++mistakeCount_ == kMistakesMaximum) {
        throw ScenarioError(mistakes_ + "\n" + file_ + ": there may be more mistakes");
    }
}

void FieldReader::CheckNames(const JsonValue& object, const std::string& field)
{
    std::set<std::string> seen;
    for (const JsonValue::Member& member : object.members) {
        if (!seen.insert(member.name).second) {
            Mistake(member.line, field + "." + member.name, "is given twice");
        }
    }
}

bool FieldReader::IsA(const JsonValue& value, Kind kind, const std::string& field)
{
    if (value.kind != kind) {
        Mistake(value.line, field, std::string("expected ") + Name(kind) + ", found " + Name(value.kind));
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
            Mistake(member.line, field + "." + member.name, "unknown field" + Nearest(member.name, known));
        }
    }
    for (const std::string& name : required) {
        if (FindMember(object, name) == nullptr) {
            Mistake(object.line, field, "field \"" + name + "\" is missing");
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
        Mistake(value.line, field, "expected a whole number from 0 to " + std::to_string(maximum));
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
        Mistake(value->line, field + "." + name, "expected one of " + list + Nearest(text, known));
    }
}

}  // namespace play
