#include "bench/instruction_set.h"

namespace bench {
namespace {

class X64 final : public InstructionSet {
public:
    std::optional<Load> LoadOf(const Instruction& instruction) override
    {
        const std::size_t split = instruction.operands.rfind(", ");
        if (instruction.mnemonic != "movl" || instruction.operands.find("(%rip), %") == std::string::npos) {
            return std::nullopt;
        }
        const auto address = HexNumber(instruction.comment);
        return address ? std::optional(Load{*address - kPreferredBase, instruction.operands.substr(split + 3)})
                       : std::nullopt;
    }
    std::optional<std::uint64_t> AddressOf(const Instruction& instruction) override
    {
        const auto address = HexNumber(instruction.comment);
        return instruction.mnemonic == "leaq" && address ? std::optional(*address - kPreferredBase) : std::nullopt;
    }
    bool IsJump(const Instruction& instruction) const override { return instruction.mnemonic == "jmp"; }
    std::optional<std::uint64_t> ConditionalTarget(const Instruction& instruction) const override
    {
        const auto target = HexNumber(instruction.operands);
        return instruction.mnemonic[0] == 'j' && !IsJump(instruction) && target
                   ? std::optional(*target - kPreferredBase)
                   : std::nullopt;
    }
    std::string FirstArgumentFrom(const Instruction& instruction) const override
    {
        return instruction.mnemonic == "movq" && instruction.operands.starts_with("%r") &&
                       instruction.operands.ends_with(", %rcx")
                   ? instruction.operands.substr(1, instruction.operands.find(',') - 1)
                   : "";
    }
    bool Writes(const Instruction& instruction, const std::string& reg) const override
    {
        return instruction.operands.ends_with(", %" + reg) && !instruction.mnemonic.starts_with("test") &&
               !instruction.mnemonic.starts_with("cmp");
    }
    bool IsBitTest(const Instruction& instruction, const std::string& reg) const override
    {
        if (instruction.mnemonic != "testb" && instruction.mnemonic != "testl") {
            return false;
        }
        const auto mask = HexNumber(instruction.operands);
        // %al is the low byte of %eax, %r8b of %r8d.
        const std::string low = reg[0] == 'e' ? reg.substr(1, 1) + "l" : reg.substr(0, reg.size() - 1) + "b";
        const bool isRegister = instruction.operands.ends_with("%" + reg) || instruction.operands.ends_with("%" + low);
        return isRegister && mask && (*mask & (*mask - 1)) == 0;
    }
    std::optional<Branch> BranchOf(const Instruction& instruction, const std::string&, bool tested) const override
    {
        const auto target = HexNumber(instruction.operands);
        if (!tested || !target || (instruction.mnemonic != "jne" && instruction.mnemonic != "je")) {
            return std::nullopt;
        }
        return Branch{*target - kPreferredBase, instruction.mnemonic == "jne"};
    }
};

}  // namespace

std::unique_ptr<InstructionSet> MakeX64InstructionSet()
{
    return std::make_unique<X64>();
}

}  // namespace bench
