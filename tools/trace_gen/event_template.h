// The binary form of an event manifest that Windows reads from an image, and its message table.
#pragma once

#include "tools/trace_gen/bytes.h"

#include <array>
#include <string>

namespace trace_gen {

// Codes of the binary form: inType says how the payload is read, outType how it is shown.
struct TemplateField {
    std::string name;
    std::uint8_t inType;
    std::uint8_t outType;
};

struct ProviderTemplate {
    std::vector<TemplateField> fields;
};

struct ProviderEvent {
    std::uint16_t id;
    std::uint8_t level;         // 1 to 5; all else in the descriptor is 0
    std::size_t templateIndex;  // in ProviderDescription::templates
    std::string message;        // ASCII, inserts as %1
};

struct ProviderDescription {
    std::string name;
    std::array<std::uint8_t, 16> guid;  // memory form
    std::vector<ProviderTemplate> templates;
    std::vector<ProviderEvent> events;  // by rising id
};

// Contents of the resource WEVT_TEMPLATE, of the version that Windows 10 1709 introduced.
[[nodiscard]] Bytes EventTemplate(const ProviderDescription& provider);

// Contents of the message table: the texts of levels and events.
[[nodiscard]] Bytes MessageTable(const ProviderDescription& provider);

}  // namespace trace_gen
