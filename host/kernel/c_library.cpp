// The C library that the kernel exports and that the WDK's linker takes for granted. Images built here bring their own
// memory routines; a native driver has the narrow ones from its own C library, and the wide ones, whose characters are
// smaller here than on Linux, by names of their own.
#include "host/checks/absent.h"
#include "host/image/exports.h"
#include "host/kernel/c_text.h"
#include "host/kernel/format.h"
#include "host/kernel/kernel.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <span>

namespace host::kernel {
namespace {

using namespace c_text;

// ---- Memory ----

void* NTAPI Memcpy(void* to, const void* from, size_t size)
{
    return std::memcpy(to, from, size);
}

void* NTAPI Memmove(void* to, const void* from, size_t size)
{
    return std::memmove(to, from, size);
}

void* NTAPI Memset(void* to, int value, size_t size)
{
    return std::memset(to, value, size);
}

int NTAPI Memcmp(const void* one, const void* other, size_t size)
{
    return std::memcmp(one, other, size);
}

void* NTAPI Memchr(const void* in, int value, size_t size)
{
    return const_cast<void*>(std::memchr(in, value, size));
}

int NTAPI MemmoveS(void* to, size_t capacity, const void* from, size_t size)
{
    if (size == 0) {
        return 0;
    }
    if (to == nullptr) {
        return kInvalid;
    }
    if (from == nullptr || capacity < size) {
        std::memset(to, 0, capacity);
        return from == nullptr ? kInvalid : kRange;
    }
    std::memmove(to, from, size);
    return 0;
}

// ---- Numbers ----

int NTAPI Atoi(const char* text)
{
    return std::atoi(text);
}

// ---- Formatted text ----

template <class T>
std::basic_string<T> Formatted(const T* format, __builtin_ms_va_list& arguments)
{
    if constexpr (sizeof(T) == 1) {
        return NarrowBytes(FormatText(Widen(format), false, arguments));
    } else {
        return FormatText(format, true, arguments);
    }
}

// Up to `count` units, without an end when they fill it; -1 when they did not fit.
template <class T>
int NTAPI FormatUpTo(T* to, size_t count, const T* format, __builtin_ms_va_list arguments)
{
    const std::basic_string<T> text = Formatted(format, arguments);
    std::memcpy(to, text.data(), std::min(text.size(), count) * sizeof(T));
    if (text.size() < count) {
        to[text.size()] = 0;
    }
    return text.size() > count ? -1 : static_cast<int>(text.size());
}

template <class T>
int NTAPI FormatS(T* to, size_t capacity, size_t count, const T* format, __builtin_ms_va_list arguments)
{
    const std::basic_string<T> text = Formatted(format, arguments);
    const size_t kept = std::min(text.size(), count == kTruncate && capacity > 0 ? capacity - 1 : count);
    return Put(to, capacity, 0, text.data(), kept) != 0 || kept < text.size() ? -1 : static_cast<int>(kept);
}

template <class T>
int NTAPI_VARIADIC Print(T* to, const T* format, ...)
{
    __builtin_ms_va_list arguments;
    __builtin_ms_va_start(arguments, format);
    const int length = FormatUpTo(to, kTruncate, format, arguments);
    __builtin_ms_va_end(arguments);
    return length;
}

template <class T>
int NTAPI_VARIADIC PrintUpTo(T* to, size_t count, const T* format, ...)
{
    __builtin_ms_va_list arguments;
    __builtin_ms_va_start(arguments, format);
    const int length = FormatUpTo(to, count, format, arguments);
    __builtin_ms_va_end(arguments);
    return length;
}

template <class T>
int NTAPI_VARIADIC PrintS(T* to, size_t capacity, const T* format, ...)
{
    __builtin_ms_va_list arguments;
    __builtin_ms_va_start(arguments, format);
    const int length = FormatS(to, capacity, capacity, format, arguments);
    __builtin_ms_va_end(arguments);
    return length;
}

template <class T>
int NTAPI_VARIADIC PrintUpToS(T* to, size_t capacity, size_t count, const T* format, ...)
{
    __builtin_ms_va_list arguments;
    __builtin_ms_va_start(arguments, format);
    const int length = FormatS(to, capacity, count, format, arguments);
    __builtin_ms_va_end(arguments);
    return length;
}

// ---- What the compiler calls by itself ----

// Touches the pages of a large frame; sizes come in registers that nothing else may change. Stacks here are mapped
// whole.
__attribute__((naked)) void CheckStack()
{
    asm("ret");
}

// The handler of frames with __try. Nothing calls it, because no exception of the platform's is raised here.
void NTAPI CHandler()
{
    checks::StopAtAbsent("__C_specific_handler", static_cast<const char*>(__builtin_return_address(0)) - 1);
}

}  // namespace

void RegisterCLibraryExports()
{
    using image::Of;
    using W = char16_t;
    static const image::Export kExports[] = {
        Of("memcpy", &Memcpy),
        Of("memmove", &Memmove),
        Of("memset", &Memset),
        Of("memcmp", &Memcmp),
        Of("memchr", &Memchr),
        Of("memcpy_s", &MemmoveS),
        Of("memmove_s", &MemmoveS),
        Of("RtlCopyMemory", &Memcpy),
        Of("RtlMoveMemory", &Memmove),
        Of("strlen", &Length<char>),
        Of("wcslen", &Length<W>),
        Of("strnlen", &LengthUpTo<char>),
        Of("wcsnlen", &LengthUpTo<W>),
        Of("strcmp", &Compare<char, false>),
        Of("wcscmp", &Compare<W, false>),
        Of("strncmp", &CompareUpTo<char, false>),
        Of("wcsncmp", &CompareUpTo<W, false>),
        Of("_stricmp", &Compare<char, true>),
        Of("_wcsicmp", &Compare<W, true>),
        Of("_strnicmp", &CompareUpTo<char, true>),
        Of("_wcsnicmp", &CompareUpTo<W, true>),
        Of("strchr", &Find<char>),
        Of("wcschr", &Find<W>),
        Of("strrchr", &FindLast<char>),
        Of("wcsrchr", &FindLast<W>),
        Of("strstr", &FindText<char>),
        Of("wcsstr", &FindText<W>),
        Of("strcpy", &Copy<char>),
        Of("wcscpy", &Copy<W>),
        Of("strncpy", &CopyUpTo<char>),
        Of("wcsncpy", &CopyUpTo<W>),
        Of("strcat", &Append<char>),
        Of("wcscat", &Append<W>),
        Of("strncat", &AppendUpTo<char>),
        Of("wcsncat", &AppendUpTo<W>),
        Of("strcpy_s", &CopyS<char>),
        Of("wcscpy_s", &CopyS<W>),
        Of("strcat_s", &AppendS<char>),
        Of("wcscat_s", &AppendS<W>),
        Of("strncpy_s", &CopyUpToS<char>),
        Of("wcsncpy_s", &CopyUpToS<W>),
        Of("_strlwr", &MakeLower<char>),
        Of("_wcslwr", &MakeLower<W>),
        Of("tolower", &ToLower<unsigned char>),
        Of("towlower", &ToLower<W>),
        Of("toupper", &ToUpper<unsigned char>),
        Of("towupper", &ToUpper<W>),
        Of("atoi", &Atoi),
        Of("sprintf", &Print<char>),
        Of("swprintf", &Print<W>),
        Of("_snprintf", &PrintUpTo<char>),
        Of("_snwprintf", &PrintUpTo<W>),
        Of("_vsnprintf", &FormatUpTo<char>),
        Of("_vsnwprintf", &FormatUpTo<W>),
        Of("sprintf_s", &PrintS<char>),
        Of("swprintf_s", &PrintS<W>),
        Of("_snprintf_s", &PrintUpToS<char>),
        Of("_snwprintf_s", &PrintUpToS<W>),
        Of("_vsnprintf_s", &FormatS<char>),
        Of("_vsnwprintf_s", &FormatS<W>),
        Of("__chkstk", &CheckStack),
        Of("__C_specific_handler", &CHandler),
    };
    image::AddExports("ntoskrnl.exe", kExports);
}

}  // namespace host::kernel

#define HOST_EXPORT extern "C" __attribute__((visibility("default"), used))

// By these names native drivers have them, too: ntstrsafe.h builds on both.
HOST_EXPORT int NTAPI _vsnprintf(char* to, size_t count, const char* format, __builtin_ms_va_list arguments)
{
    return host::kernel::FormatUpTo(to, count, format, arguments);
}

HOST_EXPORT int NTAPI _vsnwprintf(char16_t* to, size_t count, const char16_t* format, __builtin_ms_va_list arguments)
{
    return host::kernel::FormatUpTo(to, count, format, arguments);
}
