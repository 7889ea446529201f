#include "bench/instruction_set.h"

#include <regex>

namespace bench {
namespace {

class Arm64 final : public InstructionSet {
public:
    std::optional<Load> LoadOf(const Instruction& instruction) override
    {
        std::smatch match;
        static const std::regex form(R"(^(w\d+), \[(x\d+), #(0x[0-9a-f]+)\]$)");
        if (instruction.mnemonic != "ldr" || !std::regex_match(instruction.operands, match, form)) {
            return std::nullopt;
        }
        const auto page = PageIn(match[2], instruction);
        return page ? std::optional(Load{*page + *HexNumber(match[3]), match[1]}) : std::nullopt;
    }
    std::optional<std::uint64_t> AddressOf(const Instruction& instruction) override
    {
        std::smatch match;
        static const std::regex form(R"(^x\d+, (x\d+), #(0x[0-9a-f]+)$)");
        if (instruction.mnemonic != "add" || !std::regex_match(instruction.operands, match, form)) {
            return std::nullopt;
        }
        const auto page = PageIn(match[1], instruction);
        return page ? std::optional(*page + *HexNumber(match[2])) : std::nullopt;
    }
    bool IsJump(const Instruction& instruction) const override { return instruction.mnemonic == "b"; }
    std::optional<std::uint64_t> ConditionalTarget(const Instruction& instruction) const override
    {
        const bool isConditional = instruction.mnemonic.starts_with("b.") || instruction.mnemonic.starts_with("cb") ||
                                   instruction.mnemonic.starts_with("tb");
        const std::size_t last = instruction.operands.rfind(", ");
        const auto target = HexNumber(instruction.operands, last == std::string::npos ? 0 : last);
        return isConditional && target ? std::optional(*target - kPreferredBase) : std::nullopt;
    }
    std::string FirstArgumentFrom(const Instruction& instruction) const override
    {
        return instruction.mnemonic == "mov" && instruction.operands.starts_with("x0, x")
                   ? instruction.operands.substr(4)
                   : "";
    }
    bool Writes(const Instruction& instruction, const std::string& reg) const override
    {
        const std::string wide = "x" + reg.substr(1);
        return (instruction.operands.starts_with(reg + ",") || instruction.operands.starts_with(wide + ",")) &&
               !instruction.mnemonic.starts_with("tb") && !instruction.mnemonic.starts_with("st") &&
               !instruction.mnemonic.starts_with("cb") && instruction.mnemonic != "cmp";
    }
    bool IsBitTest(const Instruction&, const std::string&) const override { return false; }
    std::optional<Branch> BranchOf(const Instruction& instruction, const std::string& reg, bool) const override
    {
        const bool isSet = instruction.mnemonic == "tbnz";
        if ((!isSet && instruction.mnemonic != "tbz") || !instruction.operands.starts_with(reg + ",")) {
            return std::nullopt;
        }
        return Branch{*HexNumber(instruction.operands, instruction.operands.rfind(", ")) - kPreferredBase, isSet};
    }

private:
    // Pages stay in registers across blocks.
    std::optional<std::uint64_t> PageIn(const std::string& reg, const Instruction& instruction) const
    {
        const Instruction* writer = lastWriter(reg, instruction);
        const auto page = writer != nullptr && writer->mnemonic == "adrp" ? HexNumber(writer->operands) : std::nullopt;
        return page ? std::optional(*page - kPreferredBase) : std::nullopt;
    }
};

}  // namespace

std::unique_ptr<InstructionSet> MakeArm64InstructionSet()
{
    return std::make_unique<Arm64>();
}

}  // namespace bench
