// Counts the instructions that a driver executes, by address: every thread that is switched on runs one instruction at
// a time, and a step counts when it lies in the driver's module. The host's own instructions are stepped and not
// counted. The counts repeat exactly. x86-64 only; a repeated string instruction counts once for each element.
#pragma once

#include "host/machine.h"
#include "host/schedule/yield.h"

#include <cstdint>
#include <functional>
#include <map>

namespace bench {

class InstructionCounter {
public:
    // Of the module of one loaded driver. One counter at a time.
    explicit InstructionCounter(const host::Driver& driver);
    ~InstructionCounter();
    InstructionCounter(const InstructionCounter&) = delete;
    InstructionCounter& operator=(const InstructionCounter&) = delete;

    // Runs work on this thread and counts what the driver executes on it and on the threads that the host makes
    // meanwhile. Returns the number of instructions.
    std::uint64_t Count(const std::function<void()>& work);

    // The last count by offset from the module's base.
    [[nodiscard]] std::map<std::uint64_t, std::uint64_t> ByOffset() const;

    [[nodiscard]] static bool IsSupported();
};

}  // namespace bench
