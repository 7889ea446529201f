// Checks of the machine code, by its disassembly.
//
// The kernel can unwind a routine without an entry in the function table only if it is a leaf: it calls nothing and
// leaves the stack pointer alone. So no such instruction may stand outside the table's ranges.
#include "tools/image_check/checks.h"
#include "tools/image_check/text.h"

#include <algorithm>
#include <charconv>
#include <regex>
#include <span>

namespace image_check {
namespace {

struct Instruction {
    std::uint64_t address;
    std::string_view text;
};

// Lines of the form "140001000: <tab>instruction"; all others are headings.
std::vector<Instruction> Parse(const PeReader& image, std::string_view disassembly)
{
    std::vector<Instruction> instructions;
    while (!disassembly.empty()) {
        const std::size_t lineEnd = std::min(disassembly.find('\n'), disassembly.size());
        std::string_view line = disassembly.substr(0, lineEnd);
        disassembly.remove_prefix(std::min(lineEnd + 1, disassembly.size()));
        line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
        std::uint64_t address = 0;
        const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), address, 16);
        if (error == std::errc() && end != line.data() + line.size() && *end == ':') {
            const auto consumed = static_cast<std::size_t>(end - line.data()) + 1;
            instructions.push_back({address - image.headers().preferredBase, line.substr(consumed)});
        }
    }
    return instructions;
}

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
            return instruction.address < end && instruction.address + kLongestInstruction >= end;
        });
        if (!isReached) {
            findings.push_back({"disassembly", "does not reach the end of " + section.name});
        }
    }
}

void CheckCoverage(const PeReader& image, std::span<const Instruction> instructions, std::vector<Finding>& findings)
{
    static const std::regex kArmNeedsUnwinding(R"(^\s*(bl|blr)\s|\bsp\b)");
    static const std::regex kX64NeedsUnwinding(R"(^\s*(call|push|pop|enter|leave)|%[er]?sp\b)");
    const std::regex& needsUnwinding =
        image.headers().machine == kMachineArm64 ? kArmNeedsUnwinding : kX64NeedsUnwinding;
    const std::vector<FunctionRange> ranges = image.FunctionRanges();
    for (const Instruction& instruction : instructions) {
        const bool isCovered = std::ranges::any_of(ranges, [&](const FunctionRange& range) {
            return instruction.address >= range.begin && instruction.address < range.end;
        });
        if (!isCovered && std::regex_search(instruction.text.begin(), instruction.text.end(), needsUnwinding)) {
            findings.push_back({"unwinding", Join(Hex(instruction.address), ":", instruction.text,
                                                  " stands in no function of the table")});
        }
    }
}

void CheckRegisters(const PeReader& image, std::span<const Instruction> instructions, std::vector<Finding>& findings)
{
    // x18 holds the processor block. Wide vector state is not saved for drivers.
    static const std::regex kArmForbidden(R"(\b[xw]18\b)");
    static const std::regex kX64Forbidden(R"(%[yz]mm[0-9])");
    const std::regex& forbidden = image.headers().machine == kMachineArm64 ? kArmForbidden : kX64Forbidden;
    for (const Instruction& instruction : instructions) {
        if (std::regex_search(instruction.text.begin(), instruction.text.end(), forbidden)) {
            findings.push_back({"registers", Join(Hex(instruction.address), ":", instruction.text,
                                                  " uses a register that is not the driver's")});
        }
    }
}

std::uint64_t BranchTarget(std::string_view instruction, const std::regex& call)
{
    std::cmatch match;
    if (!std::regex_search(instruction.data(), instruction.data() + instruction.size(), match, call)) {
        return 0;
    }
    std::uint64_t target = 0;
    std::from_chars(match[1].first, match[1].second, target, 16);
    return target;
}

// Where the check of a frame's cookie is called, which ends in a fast fail: in functions with a frame worth protecting.
std::vector<std::uint64_t> CallsOfFrameCheck(const PeReader& image, std::span<const Instruction> instructions)
{
    constexpr std::uint64_t kCheckBytesMaximum = 32;
    static const std::regex kFastFail(R"(^\s*(int\s+\$0x29|brk\s+#0xf003)\b)");
    static const std::regex kCall(R"(^\s*(?:callq?|bl)\s+0x([0-9a-f]+))");
    std::vector<std::uint64_t> fastFails;
    for (const Instruction& instruction : instructions) {
        if (std::regex_search(instruction.text.begin(), instruction.text.end(), kFastFail)) {
            fastFails.push_back(instruction.address);
        }
    }
    const auto isCheck = [&](std::uint64_t address) {
        return std::ranges::any_of(fastFails, [&](std::uint64_t fastFail) {
            return address < fastFail && fastFail - address < kCheckBytesMaximum;
        });
    };
    std::vector<std::uint64_t> calls;
    for (const Instruction& instruction : instructions) {
        const std::uint64_t target = BranchTarget(instruction.text, kCall);
        if (target != 0 && isCheck(target - image.headers().preferredBase)) {
            calls.push_back(instruction.address);
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
    const std::vector<Instruction> instructions = Parse(image, disassembly);
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
    const std::vector<Instruction> instructions = Parse(image, disassembly);
    const std::vector<std::uint64_t> calls = CallsOfFrameCheck(image, instructions);
    const std::vector<FunctionRange> ranges = image.FunctionRanges();
    return static_cast<std::size_t>(std::ranges::count_if(ranges, [&](const FunctionRange& range) {
        return std::ranges::any_of(calls, [&](std::uint64_t call) { return call >= range.begin && call < range.end; });
    }));
}

}  // namespace image_check
