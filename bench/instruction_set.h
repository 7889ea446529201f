// What instructions do, by machine.
#pragma once

#include "bench/instructions.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace bench {

// How the code of one machine does what the measurements look for.
class InstructionSet {
public:
    virtual ~InstructionSet() = default;

    // The instruction that gave a register its value, on one of the ways that lead to an instruction; null when none is
    // found. Set by the reader, who knows the ways.
    std::function<const Instruction*(const std::string& reg, const Instruction& at)> lastWriter;

    // The address that an instruction loads a 32-bit word from, and the register it goes to.
    struct Load {
        std::uint64_t address;
        std::string reg;
    };
    [[nodiscard]] virtual std::optional<Load> LoadOf(const Instruction& instruction) = 0;
    // The address that an instruction forms or completes.
    [[nodiscard]] virtual std::optional<std::uint64_t> AddressOf(const Instruction& instruction) = 0;
    [[nodiscard]] virtual bool IsJump(const Instruction& instruction) const = 0;
    // Where a conditional branch leads.
    [[nodiscard]] virtual std::optional<std::uint64_t> ConditionalTarget(const Instruction& instruction) const = 0;
    // The register that is copied into the first argument's; empty when the instruction does something else.
    [[nodiscard]] virtual std::string FirstArgumentFrom(const Instruction& instruction) const = 0;
    [[nodiscard]] virtual bool Writes(const Instruction& instruction, const std::string& reg) const = 0;
    struct Branch {
        std::uint64_t target;
        bool isTakenWhenEnabled;
    };
    // A branch on one bit of a register; `tested` says that the test stands before it.
    [[nodiscard]] virtual bool IsBitTest(const Instruction& instruction, const std::string& reg) const = 0;
    [[nodiscard]] virtual std::optional<Branch> BranchOf(const Instruction& instruction, const std::string& reg,
                                                         bool tested) const = 0;
};

[[nodiscard]] std::unique_ptr<InstructionSet> MakeX64InstructionSet();
[[nodiscard]] std::unique_ptr<InstructionSet> MakeArm64InstructionSet();

}  // namespace bench
