#include "host/tracing/decode.h"

#include <cctype>
#include <cstdio>

namespace host::tracing {

std::string GuidText(const GUID& guid)
{
    char text[48];
    std::snprintf(text, sizeof(text), "{%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x}", guid.Data1, guid.Data2,
                  guid.Data3, guid.Data4[0], guid.Data4[1], guid.Data4[2], guid.Data4[3], guid.Data4[4], guid.Data4[5],
                  guid.Data4[6], guid.Data4[7]);
    return text;
}

std::optional<GUID> ParseGuid(std::string_view text)
{
    if (text.size() == 38 && text.front() == '{' && text.back() == '}') {
        text = text.substr(1, 36);
    }
    if (text.size() != 36) {
        return std::nullopt;
    }
    std::uint64_t parts[5] = {};
    unsigned part = 0;
    constexpr std::size_t kDashes[] = {8, 13, 18, 23};
    for (std::size_t index = 0; index < text.size(); ++index) {
        if (part < 4 && index == kDashes[part]) {
            if (text[index] != '-') {
                return std::nullopt;
            }
            ++part;
            continue;
        }
        const int digit = std::tolower(static_cast<unsigned char>(text[index]));
        if (std::isxdigit(digit) == 0) {
            return std::nullopt;
        }
        parts[part] = parts[part] << 4 | static_cast<std::uint64_t>(digit <= '9' ? digit - '0' : digit - 'a' + 10);
    }
    GUID guid{.Data1 = static_cast<ULONG>(parts[0]),
              .Data2 = static_cast<USHORT>(parts[1]),
              .Data3 = static_cast<USHORT>(parts[2]),
              .Data4 = {static_cast<UCHAR>(parts[3] >> 8), static_cast<UCHAR>(parts[3])}};
    for (unsigned index = 0; index < 6; ++index) {
        guid.Data4[2 + index] = static_cast<UCHAR>(parts[4] >> (8 * (5 - index)));
    }
    return guid;
}

}  // namespace host::tracing
