// Memory that the system lends to a driver: the buffers of a request, the characters of a string. It becomes
// inaccessible when that is over, and what was written around it is reported then.
#pragma once

#include "host/kernel/kernel.h"

#include <cstddef>
#include <string>
#include <utility>

namespace host::framework {

class LentBuffer {
public:
    // Contents undefined. `what` names it in the report.
    LentBuffer(kernel::Kernel& kernel, std::size_t bytes, std::string what)
        : kernel_(kernel), what_(std::move(what)), memory_(kernel.contextMemory().Allocate(bytes, kAlignment, false))
    {
    }
    ~LentBuffer()
    {
        const std::string damage = kernel_.contextMemory().Free(memory_);
        if (!damage.empty()) {
            kernel_.environment.Report(checks::Rule::kPoolCorrupted, "buffer end", what_ + ": " + damage, nullptr);
        }
    }
    LentBuffer(const LentBuffer&) = delete;
    LentBuffer& operator=(const LentBuffer&) = delete;

    [[nodiscard]] std::byte* get() const { return static_cast<std::byte*>(memory_); }

private:
    static constexpr std::size_t kAlignment = 16;

    kernel::Kernel& kernel_;
    const std::string what_;
    void* const memory_;
};

}  // namespace host::framework
