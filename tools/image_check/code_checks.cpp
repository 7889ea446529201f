// Checks of the machine code, by its disassembly.
//
// The kernel can unwind a routine without an entry in the function table only if it is a leaf: it calls nothing and
// leaves the stack pointer alone. So no such instruction may stand outside the table's ranges.
#include "tools/image_check/checks.h"
#include "tools/image_check/disassembly.h"
#include "tools/image_check/text.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <span>

namespace image_check {
namespace {

// A disassembly that broke off must not pass for clean code.
void CheckCompleteness(const PeReader& image, std::span<const Instruction> instructions, std::vector<Finding>& findings)
{
    constexpr std::uint64_t kLongestInstruction = 16;
    for (const Section& section : image.sections()) {
        if (!section.IsExecutable()) {
            continue;
        }
        const std::uint64_t end = std::uint64_t{section.address} + section.sizeBytes;
        const bool isReached = std::ranges::any_of(instructions, [&](const Instruction& instruction) {
            return instruction.offset < end && instruction.offset + kLongestInstruction >= end;
        });
        if (!isReached) {
            findings.push_back({"disassembly", "does not reach the end of " + section.name});
        }
    }
}

bool IsPartOfName(char letter)
{
    return std::isalnum(static_cast<unsigned char>(letter)) != 0 || letter == '_';
}

// Whether a name stands among the operands, and not as a part of a longer one.
bool Names(const Instruction& instruction, std::string_view name)
{
    const std::string_view operands = instruction.operands;
    for (std::size_t at = operands.find(name); at != std::string_view::npos; at = operands.find(name, at + 1)) {
        const std::size_t end = at + name.size();
        if ((at == 0 || !IsPartOfName(operands[at - 1])) && (end == operands.size() || !IsPartOfName(operands[end]))) {
            return true;
        }
    }
    return false;
}

bool NeedsUnwinding(const Instruction& instruction, bool isArm)
{
    constexpr std::string_view kX64Mnemonics[] = {"call", "push", "pop", "enter", "leave"};
    if (isArm) {
        return instruction.mnemonic == "bl" || instruction.mnemonic == "blr" || Names(instruction, "sp");
    }
    return std::ranges::any_of(kX64Mnemonics,
                               [&](std::string_view start) { return instruction.mnemonic.starts_with(start); }) ||
           Names(instruction, "rsp") || Names(instruction, "esp") || Names(instruction, "sp");
}

std::string TextOf(const Instruction& instruction)
{
    return Join(Hex(instruction.offset), ": ", instruction.mnemonic, " ", instruction.operands);
}

void CheckCoverage(const PeReader& image, std::span<const Instruction> instructions, std::vector<Finding>& findings)
{
    const bool isArm = image.headers().machine == kMachineArm64;
    const std::vector<FunctionRange> ranges = image.FunctionRanges();
    for (const Instruction& instruction : instructions) {
        const bool isCovered = std::ranges::any_of(ranges, [&](const FunctionRange& range) {
            return instruction.offset >= range.begin && instruction.offset < range.end;
        });
        if (!isCovered && NeedsUnwinding(instruction, isArm)) {
            findings.push_back({"unwinding", TextOf(instruction) + " stands in no function of the table"});
        }
    }
}

// x18 holds the processor block. Wide vector state is not saved for drivers.
bool UsesForbiddenRegister(const Instruction& instruction, bool isArm)
{
    if (isArm) {
        return Names(instruction, "x18") || Names(instruction, "w18");
    }
    return instruction.operands.find("%ymm") != std::string::npos ||
           instruction.operands.find("%zmm") != std::string::npos;
}

void CheckRegisters(const PeReader& image, std::span<const Instruction> instructions, std::vector<Finding>& findings)
{
    const bool isArm = image.headers().machine == kMachineArm64;
    for (const Instruction& instruction : instructions) {
        if (UsesForbiddenRegister(instruction, isArm)) {
            findings.push_back({"registers", TextOf(instruction) + " uses a register that is not the driver's"});
        }
    }
}

// Where a direct call leads; 0 for all else.
std::uint64_t CallTarget(const Instruction& instruction)
{
    const std::string& mnemonic = instruction.mnemonic;
    std::uint64_t target = 0;
    if ((mnemonic == "call" || mnemonic == "callq" || mnemonic == "bl") && instruction.operands.starts_with("0x")) {
        std::from_chars(instruction.operands.data() + 2, instruction.operands.data() + instruction.operands.size(),
                        target, 16);
    }
    return target;
}

bool IsFastFail(const Instruction& instruction)
{
    return (instruction.mnemonic == "int" && instruction.operands == "$0x29") ||
           (instruction.mnemonic == "brk" && instruction.operands == "#0xf003");
}

// Where the check of a frame's cookie is called, which ends in a fast fail: in functions with a frame worth protecting.
std::vector<std::uint64_t> CallsOfFrameCheck(const PeReader& image, std::span<const Instruction> instructions)
{
    constexpr std::uint64_t kCheckBytesMaximum = 32;
    std::vector<std::uint64_t> fastFails;
    for (const Instruction& instruction : instructions) {
        if (IsFastFail(instruction)) {
            fastFails.push_back(instruction.offset);
        }
    }
    const auto isCheck = [&](std::uint64_t address) {
        return std::ranges::any_of(fastFails, [&](std::uint64_t fastFail) {
            return address < fastFail && fastFail - address < kCheckBytesMaximum;
        });
    };
    std::vector<std::uint64_t> calls;
    for (const Instruction& instruction : instructions) {
        const std::uint64_t target = CallTarget(instruction);
        if (target != 0 && isCheck(target - image.headers().preferredBase)) {
            calls.push_back(instruction.offset);
        }
    }
    return calls;
}

void CheckStackProtector(const PeReader& image, std::span<const Instruction> instructions,
                         std::vector<Finding>& findings)
{
    if (CallsOfFrameCheck(image, instructions).empty()) {
        findings.push_back({"stack protector", "no function checks its frame"});
    }
}

}  // namespace

std::vector<Finding> CheckCode(const PeReader& image, std::string_view disassembly)
{
    std::vector<Finding> findings;
    const std::vector<Instruction> instructions = ParseDisassembly(disassembly, image.headers().preferredBase);
    CheckCompleteness(image, instructions, findings);
    CheckRegisters(image, instructions, findings);
    CheckStackProtector(image, instructions, findings);
    try {
        CheckCoverage(image, instructions, findings);
    } catch (const FormatError& error) {
        findings.push_back({"unwinding", error.what()});
    }
    return findings;
}

std::size_t CountCheckedFrames(const PeReader& image, std::string_view disassembly)
{
    const std::vector<Instruction> instructions = ParseDisassembly(disassembly, image.headers().preferredBase);
    const std::vector<std::uint64_t> calls = CallsOfFrameCheck(image, instructions);
    const std::vector<FunctionRange> ranges = image.FunctionRanges();
    return static_cast<std::size_t>(std::ranges::count_if(ranges, [&](const FunctionRange& range) {
        return std::ranges::any_of(calls, [&](std::uint64_t call) { return call >= range.begin && call < range.end; });
    }));
}

}  // namespace image_check
