// Decoding of captured records by the files that ship: the event manifest and the message-format files.
#pragma once

#include "host/tracing/tracing.h"

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace host::tracing {

enum class FieldType { kAnsiString, kUInt32, kUInt64, kGuid };

struct DecodedField {
    std::string name;
    FieldType type;
    std::string text;          // as a viewer shows it: "0xC0000185", "{84cd...}", "DriverEntry"
    std::uint64_t number = 0;  // numeric fields
};

struct DecodedEvent {
    std::uint16_t id;
    std::uint8_t level;
    std::string symbol;
    std::string message;  // message string of the manifest with its inserts filled
    std::vector<DecodedField> fields;

    // Field by name; empty text when absent.
    [[nodiscard]] std::string Text(const std::string& field) const;
    [[nodiscard]] std::uint64_t Number(const std::string& field) const;
};

// Reads an event manifest. Throws std::runtime_error naming file, line and what was expected.
class Manifest {
public:
    explicit Manifest(const std::filesystem::path& file);

    // Empty when the manifest has no such event, or the payload does not end exactly with the last field.
    [[nodiscard]] std::optional<DecodedEvent> Decode(const CapturedEvent& event) const;

    struct Field {
        std::string name;
        FieldType type;
        std::string outType;
    };
    struct Event {
        std::uint16_t id;
        std::uint8_t level;
        std::string symbol;
        std::string message;
        std::vector<Field> fields;
    };
    [[nodiscard]] const GUID& provider() const { return provider_; }
    [[nodiscard]] const std::map<std::uint16_t, Event>& events() const { return events_; }

private:
    GUID provider_{};
    std::map<std::uint16_t, Event> events_;
};

struct DecodedMessage {
    std::uint16_t number;
    std::string site;   // the tag: what %2 stands for in a reader's prefix
    std::string level;  // "TRACE_LEVEL_ERROR"
    std::string flags;  // "TRACE_FLAG_GENERAL"
    std::string function;
    std::string text;  // format with its arguments filled
    std::vector<std::string> arguments;
};

// Reads message-format files (.tmf): one file or every .tmf of a folder. Throws std::runtime_error as Manifest does,
// also when they hold no format at all.
class MessageFormats {
public:
    explicit MessageFormats(const std::filesystem::path& fileOrFolder);

    // Empty when the message is unknown or its payload does not end exactly with the last item.
    [[nodiscard]] std::optional<DecodedMessage> Decode(const CapturedMessage& message) const;

    struct Item {
        std::string expression;
        std::string type;  // "ItemNTSTATUS"
        unsigned index;    // 10, 11, ...
    };
    struct Format {
        std::string tag;
        std::string text;
        std::string level;
        std::string flags;
        std::string function;
        std::vector<Item> items;
    };
    // By message GUID text (lower case, no braces) and number.
    [[nodiscard]] const std::map<std::pair<std::string, std::uint16_t>, Format>& formats() const { return formats_; }

private:
    std::map<std::pair<std::string, std::uint16_t>, Format> formats_;
};

// "{00112233-4455-6677-8899-aabbccddeeff}" and back; Parse accepts it with or without braces, in any case.
[[nodiscard]] std::string GuidText(const GUID& guid);
[[nodiscard]] std::optional<GUID> ParseGuid(std::string_view text);

}  // namespace host::tracing
