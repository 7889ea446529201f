// The C library that the kernel exports and that the WDK's linker takes for granted. Images built here bring their own
// memory routines; a native driver has the narrow ones from its own C library, and the wide ones, whose characters are
// smaller here than on Linux, by names of their own.
#include "host/checks/absent.h"
#include "host/image/exports.h"
#include "host/kernel/format.h"
#include "host/kernel/kernel.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <span>

namespace host::kernel {
namespace {

constexpr int kInvalid = 22;
constexpr int kRange = 34;
constexpr std::size_t kTruncate = ~std::size_t{0};

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

// ---- Text of either width ----

template <class T>
T Lower(T unit)
{
    return unit >= 'A' && unit <= 'Z' ? static_cast<T>(unit + ('a' - 'A')) : unit;
}

template <class T>
size_t NTAPI LengthUpTo(const T* text, size_t limit)
{
    size_t length = 0;
    while (length < limit && text[length] != 0) {
        ++length;
    }
    return length;
}

template <class T>
size_t NTAPI Length(const T* text)
{
    return LengthUpTo(text, ~size_t{0});
}

template <class T, bool kIgnoresCase>
int NTAPI CompareUpTo(const T* one, const T* other, size_t limit)
{
    for (size_t index = 0; index < limit; ++index) {
        const auto left = static_cast<std::make_unsigned_t<T>>(kIgnoresCase ? Lower(one[index]) : one[index]);
        const auto right = static_cast<std::make_unsigned_t<T>>(kIgnoresCase ? Lower(other[index]) : other[index]);
        if (left != right || left == 0) {
            return left < right ? -1 : left > right ? 1 : 0;
        }
    }
    return 0;
}

template <class T, bool kIgnoresCase>
int NTAPI Compare(const T* one, const T* other)
{
    return CompareUpTo<T, kIgnoresCase>(one, other, ~size_t{0});
}

template <class T>
T* NTAPI Find(const T* text, int unit)
{
    for (;; ++text) {
        if (*text == static_cast<T>(unit)) {
            return const_cast<T*>(text);
        }
        if (*text == 0) {
            return nullptr;
        }
    }
}

template <class T>
T* NTAPI FindLast(const T* text, int unit)
{
    const T* end = text + Length(text) + 1;
    while (end-- != text) {
        if (*end == static_cast<T>(unit)) {
            return const_cast<T*>(end);
        }
    }
    return nullptr;
}

template <class T>
T* NTAPI FindText(const T* text, const T* wanted)
{
    for (const size_t length = Length(wanted);; ++text) {
        if (CompareUpTo<T, false>(text, wanted, length) == 0) {
            return const_cast<T*>(text);
        }
        if (*text == 0) {
            return nullptr;
        }
    }
}

template <class T>
T* NTAPI Copy(T* to, const T* from)
{
    std::memmove(to, from, (Length(from) + 1) * sizeof(T));
    return to;
}

// Fills up with zeros, and ends nothing that has no room for its end.
template <class T>
T* NTAPI CopyUpTo(T* to, const T* from, size_t count)
{
    const size_t length = LengthUpTo(from, count);
    std::memmove(to, from, length * sizeof(T));
    std::memset(to + length, 0, (count - length) * sizeof(T));
    return to;
}

template <class T>
T* NTAPI Append(T* to, const T* from)
{
    Copy(to + Length(to), from);
    return to;
}

template <class T>
T* NTAPI AppendUpTo(T* to, const T* from, size_t count)
{
    T* end = to + Length(to);
    const size_t length = LengthUpTo(from, count);
    std::memmove(end, from, length * sizeof(T));
    end[length] = 0;
    return to;
}

// Puts text after the first `used` units; a text that does not fit leaves an empty one.
template <class T>
int Put(T* to, size_t capacity, size_t used, const T* from, size_t length)
{
    if (to == nullptr || capacity == 0) {
        return kInvalid;
    }
    if (from == nullptr || used >= capacity) {
        to[0] = 0;
        return kInvalid;
    }
    if (length >= capacity - used) {
        to[0] = 0;
        return kRange;
    }
    std::memmove(to + used, from, length * sizeof(T));
    to[used + length] = 0;
    return 0;
}

template <class T>
int NTAPI CopyS(T* to, size_t capacity, const T* from)
{
    return Put(to, capacity, 0, from, from == nullptr ? 0 : Length(from));
}

template <class T>
int NTAPI AppendS(T* to, size_t capacity, const T* from)
{
    return Put(to, capacity, to == nullptr ? 0 : LengthUpTo(to, capacity), from, from == nullptr ? 0 : Length(from));
}

template <class T>
int NTAPI CopyUpToS(T* to, size_t capacity, const T* from, size_t count)
{
    if (from == nullptr || count != kTruncate) {
        return Put(to, capacity, 0, from, from == nullptr ? 0 : LengthUpTo(from, count));
    }
    constexpr int kTruncated = 80;
    const size_t length = LengthUpTo(from, capacity);
    const int result = Put(to, capacity, 0, from, std::min(length, capacity == 0 ? 0 : capacity - 1));
    return result == 0 && length == capacity ? kTruncated : result;
}

template <class T>
T* NTAPI MakeLower(T* text)
{
    std::transform(text, text + Length(text), text, Lower<T>);
    return text;
}

template <class T>
int NTAPI ToLower(int unit)
{
    return Lower(static_cast<T>(unit));
}

template <class T>
int NTAPI ToUpper(int unit)
{
    return unit >= 'a' && unit <= 'z' ? unit - ('a' - 'A') : unit;
}

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

// Touches the pages of a large frame; sizes come in registers that nothing else may change. Stacks here are mapped whole.
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
