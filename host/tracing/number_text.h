// Numbers as files write them: decimal digits, no sign, nothing before or after them.
#pragma once

#include <charconv>
#include <optional>
#include <string_view>

namespace host::tracing {

// Empty for any other text, and for a number that the type cannot hold.
template <class Number>
[[nodiscard]] std::optional<Number> ParseNumber(std::string_view text)
{
    Number number{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

}  // namespace host::tracing
