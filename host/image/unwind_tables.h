// An image's own unwind tables, as the system reads them, turned into call frames.
#pragma once

#include "host/image/call_frames.h"

#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <span>
#include <vector>

namespace host::image {

// Where they lie, and which parts of the image are code; all by offsets from its base.
struct UnwindTables {
    std::span<const std::uint8_t> image;  // as it is mapped
    std::uint32_t table = 0;              // one entry for each function
    std::uint32_t tableBytes = 0;
    struct Code {
        std::uint32_t begin;
        std::uint32_t end;
    };
    std::vector<Code> code = {};  // ascending

    // Empty when it would lie outside.
    template <class T>
    [[nodiscard]] std::optional<T> Read(std::uint64_t offset) const
    {
        if (offset > image.size() || sizeof(T) > image.size() - offset) {
            return std::nullopt;
        }
        T value;
        std::memcpy(&value, image.data() + offset, sizeof(T));
        return value;
    }
};

struct UnwindFunction {
    std::uint32_t begin;
    std::uint32_t end;
    std::uint32_t unwind;  // of its prologue
};

// Describes the functions by `describe`, and the code between them, which is of functions without a frame. A damaged
// entry describes nothing: the system looks at none before it unwinds.
void DescribeFunctions(const UnwindTables& tables, std::vector<UnwindFunction> functions, CallFrames& frames,
                       const std::function<void(const UnwindFunction&)>& describe);

namespace x64 {
void Describe(const UnwindTables& tables, CallFrames& frames);
}
namespace arm64 {
void Describe(const UnwindTables& tables, CallFrames& frames);
}

}  // namespace host::image
