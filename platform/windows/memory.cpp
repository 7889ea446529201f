// The memory routines that the compiler calls by itself, and memcpy_s.
//
// Images bring their own: whether the ARM64 kernel exports each of them could not be verified. Built without built-ins,
// or the compiler would turn the loops into calls of themselves. A native build has all but memcpy_s from its C
// library.
#include <string.h>

constexpr int kInvalidArgument = 22;
constexpr int kOutOfRange = 34;

#if defined(_WIN32)

void* memcpy(void* destination, const void* source, size_t size)
{
    auto* to = static_cast<unsigned char*>(destination);
    const auto* from = static_cast<const unsigned char*>(source);
    for (size_t index = 0; index < size; ++index) {
        to[index] = from[index];
    }
    return destination;
}

void* memmove(void* destination, const void* source, size_t size)
{
    auto* to = static_cast<unsigned char*>(destination);
    const auto* from = static_cast<const unsigned char*>(source);
    if (to <= from) {
        return memcpy(destination, source, size);
    }
    for (size_t index = size; index > 0; --index) {
        to[index - 1] = from[index - 1];
    }
    return destination;
}

void* memset(void* destination, int value, size_t size)
{
    auto* to = static_cast<unsigned char*>(destination);
    for (size_t index = 0; index < size; ++index) {
        to[index] = static_cast<unsigned char>(value);
    }
    return destination;
}

int memcmp(const void* first, const void* second, size_t size)
{
    const auto* one = static_cast<const unsigned char*>(first);
    const auto* other = static_cast<const unsigned char*>(second);
    for (size_t index = 0; index < size; ++index) {
        if (one[index] != other[index]) {
            return one[index] < other[index] ? -1 : 1;
        }
    }
    return 0;
}

#endif

int memcpy_s(void* destination, size_t destinationSize, const void* source, size_t size)
{
    if (size == 0) {
        return 0;
    }
    if (destination == nullptr) {
        return kInvalidArgument;
    }
    if (source == nullptr || destinationSize < size) {
        memset(destination, 0, destinationSize);
        return source == nullptr ? kInvalidArgument : kOutOfRange;
    }
    memcpy(destination, source, size);
    return 0;
}
