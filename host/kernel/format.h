// Formatted text as the kernel's C library makes it: the platform's sizes ("l" is 32 bits), narrow and wide strings in
// either kind of text, counted strings (%wZ, %Z).
#pragma once

#include <ntddk.h>

#include <string>

namespace host::kernel {

// By the rules of a narrow or of a wide format string; each unit of a narrow text is one byte.
[[nodiscard]] std::u16string FormatText(std::u16string_view format, bool isWide, __builtin_ms_va_list& arguments);

[[nodiscard]] std::u16string Widen(const char* text);
// Units that have no byte become '?'.
[[nodiscard]] std::string NarrowBytes(std::u16string_view text);

}  // namespace host::kernel
