// Little-endian bytes for the binary resources.
#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

namespace trace_gen {

using Bytes = std::vector<std::uint8_t>;

// Appends to a byte vector; a place that is known only later is put in by Set32().
class Writer {
public:
    [[nodiscard]] std::uint32_t Size() const { return static_cast<std::uint32_t>(bytes_.size()); }
    [[nodiscard]] const Bytes& bytes() const { return bytes_; }

    void Put8(std::uint8_t value) { bytes_.push_back(value); }
    void Put16(std::uint32_t value)
    {
        Put8(static_cast<std::uint8_t>(value));
        Put8(static_cast<std::uint8_t>(value >> 8));
    }
    void Put32(std::uint32_t value)
    {
        Put16(value);
        Put16(value >> 16);
    }
    void PutText8(std::string_view text) { bytes_.insert(bytes_.end(), text.begin(), text.end()); }
    // ASCII as UTF-16, without a terminator.
    void PutText16(std::string_view text)
    {
        for (const char letter : text) {
            Put16(static_cast<unsigned char>(letter));
        }
    }
    void PutBytes(const Bytes& more) { bytes_.insert(bytes_.end(), more.begin(), more.end()); }
    void Align(std::uint32_t alignment)
    {
        while (Size() % alignment != 0) {
            Put8(0);
        }
    }
    void Set16(std::uint32_t at, std::uint32_t value)
    {
        bytes_[at] = static_cast<std::uint8_t>(value);
        bytes_[at + 1] = static_cast<std::uint8_t>(value >> 8);
    }
    void Set32(std::uint32_t at, std::uint32_t value)
    {
        Set16(at, value);
        Set16(at + 2, value >> 16);
    }

private:
    Bytes bytes_;
};

}  // namespace trace_gen
