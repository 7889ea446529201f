// The library's parser does the work; an iterator that counts what it reads tells where each value ends, and a look
// back into the text where it begins.
#include "tools/play/reading/located_json.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
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

    CountingIterator(const char* at, const char* begin, std::size_t* count) : at_(at), begin_(begin), count_(count) {}
    reference operator*() const { return *at_; }
    CountingIterator& operator++()
    {
        ++at_;
        if (count_ != nullptr) {
            *count_ = static_cast<std::size_t>(at_ - begin_);
        }
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
    const char* begin_;
    std::size_t* count_;
};

class Builder : public nlohmann::json_sax<json> {
public:
    Builder(const std::string& text, const std::size_t& count) : text_(text), count_(count)
    {
        for (std::size_t at = 0; at < text.size(); ++at) {
            if (text[at] == '\n') {
                lineBegins_.push_back(at + 1);
            }
        }
    }

    JsonValue root;

    bool null() override { return Add(JsonValue::Kind::kNull, WordBegin()) != nullptr; }
    bool boolean(bool value) override
    {
        Add(JsonValue::Kind::kBoolean, WordBegin())->boolean = value;
        return true;
    }
    bool number_integer(number_integer_t) override
    {
        Add(JsonValue::Kind::kNumber, WordBegin());
        return true;
    }
    bool number_unsigned(number_unsigned_t value) override
    {
        JsonValue* added = Add(JsonValue::Kind::kNumber, WordBegin());
        added->number = value;
        added->isWhole = true;
        return true;
    }
    bool number_float(number_float_t, const string_t&) override
    {
        Add(JsonValue::Kind::kNumber, WordBegin());
        return true;
    }
    bool string(string_t& value) override
    {
        Add(JsonValue::Kind::kText, TextBegin())->text = value;
        return true;
    }
    bool binary(binary_t&) override { return false; }
    bool start_object(std::size_t) override
    {
        Open(JsonValue::Kind::kObject);
        return true;
    }
    bool key(string_t& name) override
    {
        open_.back()->members.push_back({name, PlaceOf(TextBegin()), {}});
        return true;
    }
    bool end_object() override { return Close(); }
    bool start_array(std::size_t) override
    {
        Open(JsonValue::Kind::kArray);
        return true;
    }
    bool end_array() override { return Close(); }
    bool parse_error(std::size_t position, const std::string&, const json::exception& error) override
    {
        std::string message = error.what();
        if (IsCommaMissing(message)) {
            throw JsonError{PlaceOf(valueEnd_), "a comma is missing after this value"};
        }
        // After the library's own name for the error, and the place where it knows one.
        for (const char* before : {"] ", "column", ": "}) {
            const std::size_t at = message.find(before);
            message.erase(0, at == std::string::npos ? 0 : at + std::strlen(before));
        }
        throw JsonError{PlaceOf(position == 0 ? 0 : position - 1), message};
    }

private:
    [[nodiscard]] Place PlaceOf(std::size_t offset) const
    {
        const auto next = std::upper_bound(lineBegins_.begin(), lineBegins_.end(), std::min(offset, text_.size()));
        return {static_cast<unsigned>(next - lineBegins_.begin()),
                static_cast<unsigned>(std::min(offset, text_.size()) - *std::prev(next) + 1)};
    }

    bool Close()
    {
        open_.pop_back();
        valueEnd_ = count_;
        return true;
    }

    // After a value of a list or an object the library expects its end or a comma, and has found another value.
    [[nodiscard]] bool IsCommaMissing(const std::string& message) const
    {
        if (open_.empty() || valueEnd_ == 0 ||
            (!message.ends_with("; expected ']'") && !message.ends_with("; expected '}'"))) {
            return false;
        }
        return std::ranges::any_of(kValueBegins, [&message](const char* begin) {
            return message.find(std::string("unexpected ") + begin) != std::string::npos;
        });
    }
    static constexpr const char* kValueBegins[] = {"'{'",   "'['", "string literal", "number literal", "true",
                                                   "false", "null"};

    void Open(JsonValue::Kind kind)
    {
        if (open_.size() == kDepthMaximum) {
            throw JsonError{PlaceOf(count_ - 1), "nested more than " + std::to_string(kDepthMaximum) + " deep"};
        }
        open_.push_back(Add(kind, count_ - 1));
    }

    [[nodiscard]] bool IsPartOfWord(std::size_t at) const
    {
        const char letter = text_[at];
        return std::isalnum(static_cast<unsigned char>(letter)) != 0 || letter == '-' || letter == '+' || letter == '.';
    }

    // Where the number or word begins that was just read. The parser may have looked at one character after it.
    [[nodiscard]] std::size_t WordBegin() const
    {
        std::size_t at = count_;
        while (at > 0 && !IsPartOfWord(at - 1)) {
            --at;
        }
        while (at > 0 && IsPartOfWord(at - 1)) {
            --at;
        }
        return at;
    }

    // Where the quoted text begins whose closing quote was just read.
    [[nodiscard]] std::size_t TextBegin() const
    {
        std::size_t at = text_.rfind('"', count_ == 0 ? 0 : count_ - 1);
        do {
            at = at == 0 ? 0 : text_.rfind('"', at - 1);
        } while (at != 0 && at != std::string::npos && text_[at - 1] == '\\');
        return at == std::string::npos ? 0 : at;
    }

    JsonValue* Add(JsonValue::Kind kind, std::size_t begin)
    {
        JsonValue* added = &root;
        if (!open_.empty() && open_.back()->kind == JsonValue::Kind::kArray) {
            added = &open_.back()->items.emplace_back();
        } else if (!open_.empty()) {
            added = &open_.back()->members.back().value;
        }
        added->kind = kind;
        added->place = PlaceOf(begin);
        valueEnd_ = count_;
        while (valueEnd_ > begin + 1 && kind == JsonValue::Kind::kNumber && !IsPartOfWord(valueEnd_ - 1)) {
            --valueEnd_;
        }
        return added;
    }

    const std::string& text_;
    const std::size_t& count_;
    std::size_t valueEnd_ = 0;  // of the last value that was read whole
    std::vector<std::size_t> lineBegins_ = {0};
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
    std::size_t count = 0;
    Builder builder(text, count);
    const char* begin = text.data();
    const char* end = begin + text.size();
    json::sax_parse(CountingIterator(begin, begin, &count), CountingIterator(end, begin, nullptr), &builder,
                    json::input_format_t::json, true, true);
    return std::move(builder.root);
}

}  // namespace play
