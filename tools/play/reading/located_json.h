// JSON with comments allowed, in which every value knows its line in the file.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace play {

struct JsonValue {
    enum class Kind { kNull, kBoolean, kNumber, kText, kArray, kObject };

    struct Member;

    Kind kind = Kind::kNull;
    unsigned line = 0;  // from 1
    bool boolean = false;
    std::uint64_t number = 0;
    bool isWhole = false;  // a number without sign, fraction and exponent
    std::string text;
    std::vector<JsonValue> items;
    std::vector<Member> members;  // in the file's order
};

struct JsonValue::Member {
    std::string name;
    unsigned line = 0;
    JsonValue value;
};

[[nodiscard]] const char* Name(JsonValue::Kind kind);

// Null when the object has no such member.
[[nodiscard]] const JsonValue* FindMember(const JsonValue& object, const std::string& name);

struct JsonError {
    unsigned line = 0;
    std::string message;
};

// Parses; throws JsonError for the first mistake in the syntax.
[[nodiscard]] JsonValue ParseJson(const std::string& text);

}  // namespace play
