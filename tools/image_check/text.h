// Texts of findings.
#pragma once

#include <cstdint>
#include <sstream>
#include <string>

namespace image_check {

// The parts one after the other, as a stream writes them.
template <class... Parts>
[[nodiscard]] std::string Join(const Parts&... parts)
{
    std::ostringstream text;
    (text << ... << parts);
    return text.str();
}

[[nodiscard]] inline std::string Hex(std::uint64_t value)
{
    std::ostringstream text;
    text << "0x" << std::hex << std::uppercase << value;
    return text.str();
}

}  // namespace image_check
