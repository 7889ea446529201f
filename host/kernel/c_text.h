// The C library's functions on text, for characters of either width.
#pragma once

#include <ntddk.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <type_traits>

namespace host::kernel::c_text {

inline constexpr int kInvalid = 22;
inline constexpr int kRange = 34;
inline constexpr std::size_t kTruncate = ~std::size_t{0};

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

}  // namespace host::kernel::c_text
