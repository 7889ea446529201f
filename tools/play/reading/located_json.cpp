// The library's parser does the work; an iterator that notes what was read gives the line in which each value ends.
#include "tools/play/reading/located_json.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstring>
#include <iterator>

namespace play {
namespace {

using nlohmann::json;

constexpr std::size_t kDepthMaximum = 32;  // values are destroyed by recursion

class CountingIterator {
public:
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char*;
    using reference = const char&;

    CountingIterator(const char* at, const char** last) : at_(at), last_(last) {}
    reference operator*() const { return *at_; }
    CountingIterator& operator++()
    {
        *last_ = at_++;
        return *this;
    }
    CountingIterator operator++(int)
    {
        CountingIterator before = *this;
        ++*this;
        return before;
    }
    bool operator==(const CountingIterator& other) const { return at_ == other.at_; }
    bool operator!=(const CountingIterator& other) const { return at_ != other.at_; }

private:
    const char* at_;
    const char** last_;  // the last character that was read
};

class Builder : public nlohmann::json_sax<json> {
public:
    // `last`: the last character that the parser has read.
    Builder(const char* begin, const char* const& last) : counted_(begin), last_(last) {}

    JsonValue root;

    bool null() override { return Add(JsonValue::Kind::kNull) != nullptr; }
    bool boolean(bool value) override
    {
        Add(JsonValue::Kind::kBoolean)->boolean = value;
        return true;
    }
    bool number_integer(number_integer_t) override { return Add(JsonValue::Kind::kNumber) != nullptr; }
    bool number_unsigned(number_unsigned_t value) override
    {
        JsonValue* added = Add(JsonValue::Kind::kNumber);
        added->number = value;
        added->isWhole = true;
        return true;
    }
    bool number_float(number_float_t, const string_t&) override { return Add(JsonValue::Kind::kNumber) != nullptr; }
    bool string(string_t& value) override
    {
        Add(JsonValue::Kind::kText)->text = value;
        return true;
    }
    bool binary(binary_t&) override { return false; }
    bool start_object(std::size_t) override { return Open(JsonValue::Kind::kObject); }
    bool key(string_t& name) override
    {
        open_.back()->members.push_back({name, Line(), {}});
        return true;
    }
    bool end_object() override { return Close(); }
    bool start_array(std::size_t) override { return Open(JsonValue::Kind::kArray); }
    bool end_array() override { return Close(); }
    bool parse_error(std::size_t, const std::string&, const json::exception& error) override
    {
        std::string message = error.what();
        if (IsCommaMissing(message)) {
            throw JsonError{valueLine_, "a comma is missing after this value"};
        }
        // After the library's own name for the error, and the place where it knows one.
        for (const char* before : {"] ", "column", ": "}) {
            const std::size_t at = message.find(before);
            message.erase(0, at == std::string::npos ? 0 : at + std::strlen(before));
        }
        throw JsonError{Line(), message};
    }

private:
    // Of the token that was just read. After a number the parser has read one character more, which may be a line's
    // end.
    unsigned Line()
    {
        line_ += static_cast<unsigned>(std::count(counted_, last_, '\n'));
        counted_ = last_;
        return line_;
    }

    // After a value of a list or an object the library expects its end or a comma, and has found another value.
    [[nodiscard]] bool IsCommaMissing(const std::string& message) const
    {
        if (open_.empty() || valueLine_ == 0 ||
            (!message.ends_with("; expected ']'") && !message.ends_with("; expected '}'"))) {
            return false;
        }
        return std::ranges::any_of(kValueBegins, [&message](const char* begin) {
            return message.find(std::string("unexpected ") + begin) != std::string::npos;
        });
    }
    static constexpr const char* kValueBegins[] = {"'{'",   "'['", "string literal", "number literal", "true",
                                                   "false", "null"};

    bool Open(JsonValue::Kind kind)
    {
        if (open_.size() == kDepthMaximum) {
            throw JsonError{Line(), "nested more than " + std::to_string(kDepthMaximum) + " deep"};
        }
        open_.push_back(Add(kind));
        return true;
    }

    bool Close()
    {
        open_.pop_back();
        valueLine_ = Line();
        return true;
    }

    JsonValue* Add(JsonValue::Kind kind)
    {
        JsonValue* added = &root;
        if (!open_.empty() && open_.back()->kind == JsonValue::Kind::kArray) {
            added = &open_.back()->items.emplace_back();
        } else if (!open_.empty()) {
            added = &open_.back()->members.back().value;
        }
        added->kind = kind;
        added->line = valueLine_ = Line();
        return added;
    }

    const char* counted_;  // lines are counted up to here
    unsigned line_ = 1;
    const char* const& last_;
    unsigned valueLine_ = 0;        // of the end of the value that was read last
    std::vector<JsonValue*> open_;  // stable: a container grows only while it is the innermost open one
};

}  // namespace

const char* Name(JsonValue::Kind kind)
{
    constexpr const char* kNames[] = {"null", "true or false", "a number", "a text", "a list", "an object"};
    return kNames[static_cast<int>(kind)];
}

const JsonValue* FindMember(const JsonValue& object, const std::string& name)
{
    for (const JsonValue::Member& member : object.members) {
        if (member.name == name) {
            return &member.value;
        }
    }
    return nullptr;
}

JsonValue ParseJson(const std::string& text)
{
    const char* const begin = text.data();
    const char* last = begin;
    Builder builder(begin, last);
    json::sax_parse(CountingIterator(begin, &last), CountingIterator(begin + text.size(), &last), &builder,
                    json::input_format_t::json, true, true);
    return std::move(builder.root);
}

}  // namespace play
