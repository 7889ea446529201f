// Strings that the system lends to a driver for one call.
#pragma once

#include "host/kernel/memory.h"

#include <ntddk.h>

#include <cstring>
#include <string>

namespace host::kernel {

// A counted string in memory that becomes inaccessible with it, as the system's own do when the call that got them
// returns.
class GuardedString {
public:
    GuardedString(GuardedMemory& memory, const std::string& text) : memory_(memory)
    {
        const std::u16string wide(text.begin(), text.end());
        const std::size_t bytes = (wide.size() + 1) * sizeof(WCHAR);
        auto* buffer = static_cast<WCHAR*>(memory.Allocate(bytes, sizeof(WCHAR)));
        std::memcpy(buffer, wide.c_str(), bytes);
        string_ = static_cast<UNICODE_STRING*>(memory.Allocate(sizeof(UNICODE_STRING), alignof(UNICODE_STRING)));
        *string_ = {static_cast<USHORT>(wide.size() * sizeof(WCHAR)), static_cast<USHORT>(bytes), buffer};
        buffer_ = buffer;
    }
    ~GuardedString()
    {
        (void)memory_.Free(buffer_);
        (void)memory_.Free(string_);
    }
    GuardedString(const GuardedString&) = delete;
    GuardedString& operator=(const GuardedString&) = delete;

    [[nodiscard]] UNICODE_STRING* get() const { return string_; }

private:
    GuardedMemory& memory_;
    WCHAR* buffer_;
    UNICODE_STRING* string_;
};

}  // namespace host::kernel
