#include "host/tracing/decode.h"

#include <cctype>

namespace host::tracing {

// Without printf: fault injection asks for each trace message of each run.
std::string GuidText(const GUID& guid)
{
    std::string text = "{";
    const auto put = [&](unsigned value, unsigned digits) {
        while (digits != 0) {
            text += "0123456789abcdef"[value >> (4 * --digits) & 0xF];
        }
    };
    put(guid.Data1, 8);
    text += '-';
    put(guid.Data2, 4);
    text += '-';
    put(guid.Data3, 4);
    text += '-';
    for (unsigned index = 0; index < 8; ++index) {
        text += index == 2 ? "-" : "";
        put(guid.Data4[index], 2);
    }
    return text + '}';
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
