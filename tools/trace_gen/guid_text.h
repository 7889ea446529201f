// GUIDs as text: "00112233-4455-6677-8899-aabbccddeeff".
#pragma once

#include "driver/trace/identifiers.h"
#include "driver/trace/report_definitions.h"

#include <cstdio>
#include <string>

namespace trace_gen {

enum class Case { kLower, kUpper };

inline std::string GuidText(const GUID& guid, Case letters)
{
    char text[37];
    std::snprintf(text, sizeof(text),
                  letters == Case::kUpper ? "%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X"
                                          : "%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x",
                  guid.Data1, guid.Data2, guid.Data3, guid.Data4[0], guid.Data4[1], guid.Data4[2], guid.Data4[3],
                  guid.Data4[4], guid.Data4[5], guid.Data4[6], guid.Data4[7]);
    return text;
}

// The message GUID of a set, as its file is named.
inline std::string GuidText(MessageSet set)
{
    return GuidText(kMessageSetGuids[static_cast<std::size_t>(set)], Case::kLower);
}

}  // namespace trace_gen
