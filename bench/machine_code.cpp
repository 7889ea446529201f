#include "bench/machine_code.h"

#include "tools/image_check/disassembly.h"

#include <algorithm>
#include <charconv>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <regex>
#include <sstream>
#include <stdexcept>

namespace bench {
namespace {

constexpr std::uint64_t kPreferredBase = 0x140000000;

struct Instruction {
    std::uint64_t offset;
    std::string mnemonic;
    std::string operands;
    std::string comment;  // behind '#' (x64) or '//' (ARM64)
};

struct Range {
    std::uint64_t begin;
    std::uint64_t end;
};

struct LinkMap {
    std::uint64_t words = 0;                       // offset of g_TraceEnable
    std::map<std::uint64_t, int> records;          // offset of a site's record to its number
    std::vector<Range> reporting;                  // code of the reporting itself
};

LinkMap ReadMap(const std::filesystem::path& file)
{
    std::ifstream stream(file);
    if (!stream) {
        throw std::runtime_error(file.string() + ": cannot be read");
    }
    LinkMap map;
    const std::regex record(R"(struct SiteRecord const kSiteRecord<(\d+)>)");
    std::string line;
    while (std::getline(stream, line)) {
        std::uint64_t address = 0;
        std::uint64_t size = 0;
        std::istringstream fields(line);
        if (!(fields >> std::hex >> address >> size)) {
            continue;
        }
        std::smatch match;
        if (line.ends_with("struct TraceEnableWords g_TraceEnable")) {
            map.words = address;
        } else if (std::regex_search(line, match, record)) {
            map.records[address] = std::stoi(match[1]);
        } else if (line.find("/trace/") != std::string::npos && line.ends_with("(.text)")) {
            map.reporting.push_back({address, address + size});
        }
    }
    if (map.words == 0 || map.records.empty() || map.reporting.empty()) {
        throw std::runtime_error(file.string() + ": names no enable words, site records or reporting code");
    }
    return map;
}

// Lines of the form "140001000:     	movl	0x1(%rip), %eax      # 0x1400101a8".
std::vector<Instruction> ReadInstructions(const std::filesystem::path& image)
{
    std::vector<Instruction> instructions;
    std::istringstream lines(image_check::Disassemble("llvm-objdump-19", image));
    std::string line;
    while (std::getline(lines, line)) {
        std::smatch match;
        // ARM64 immediates are written with '#' too: only one behind white space begins a comment.
        const std::size_t cut = std::min(line.find("  # "), line.find("  // "));
        const std::string code = line.substr(0, cut);
        static const std::regex form(R"(^\s*([0-9a-f]+):\s+(\S+)\s*(.*?)\s*$)");
        if (std::regex_match(code, match, form)) {
            instructions.push_back({std::stoull(match[1], nullptr, 16) - kPreferredBase, match[2], match[3],
                                    cut == std::string::npos ? "" : line.substr(cut)});
        }
    }
    if (instructions.empty()) {
        throw std::runtime_error(image.string() + ": has no code that could be disassembled");
    }
    return instructions;
}

std::optional<std::uint64_t> Number(const std::string& text, std::size_t from = 0)
{
    const std::size_t at = text.find("0x", from);
    if (at == std::string::npos) {
        return std::nullopt;
    }
    std::uint64_t value = 0;
    std::from_chars(text.data() + at + 2, text.data() + text.size(), value, 16);
    return value;
}

// What differs between the machines.
class Machine {
public:
    virtual ~Machine() = default;

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
        bool isTakenWhenHeard;
    };
    // A branch on one bit of a register; `tested` says that the test stands before it.
    [[nodiscard]] virtual bool IsBitTest(const Instruction& instruction, const std::string& reg) const = 0;
    [[nodiscard]] virtual std::optional<Branch> BranchOf(const Instruction& instruction, const std::string& reg,
                                                         bool tested) const = 0;
};

class X64 final : public Machine {
public:
    std::optional<Load> LoadOf(const Instruction& instruction) override
    {
        const std::size_t split = instruction.operands.rfind(", ");
        if (instruction.mnemonic != "movl" || instruction.operands.find("(%rip), %") == std::string::npos) {
            return std::nullopt;
        }
        const auto address = Number(instruction.comment);
        return address ? std::optional(Load{*address - kPreferredBase, instruction.operands.substr(split + 3)})
                       : std::nullopt;
    }
    std::optional<std::uint64_t> AddressOf(const Instruction& instruction) override
    {
        const auto address = Number(instruction.comment);
        return instruction.mnemonic == "leaq" && address ? std::optional(*address - kPreferredBase) : std::nullopt;
    }
    bool IsJump(const Instruction& instruction) const override { return instruction.mnemonic == "jmp"; }
    std::optional<std::uint64_t> ConditionalTarget(const Instruction& instruction) const override
    {
        const auto target = Number(instruction.operands);
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
        const auto mask = Number(instruction.operands);
        // %al is the low byte of %eax, %r8b of %r8d.
        const std::string low = reg[0] == 'e' ? reg.substr(1, 1) + "l" : reg.substr(0, reg.size() - 1) + "b";
        const bool isRegister =
            instruction.operands.ends_with("%" + reg) || instruction.operands.ends_with("%" + low);
        return isRegister && mask && (*mask & (*mask - 1)) == 0;
    }
    std::optional<Branch> BranchOf(const Instruction& instruction, const std::string&, bool tested) const override
    {
        const auto target = Number(instruction.operands);
        if (!tested || !target || (instruction.mnemonic != "jne" && instruction.mnemonic != "je")) {
            return std::nullopt;
        }
        return Branch{*target - kPreferredBase, instruction.mnemonic == "jne"};
    }
};

class Arm64 final : public Machine {
public:
    std::optional<Load> LoadOf(const Instruction& instruction) override
    {
        std::smatch match;
        static const std::regex form(R"(^(w\d+), \[(x\d+), #(0x[0-9a-f]+)\]$)");
        if (instruction.mnemonic != "ldr" || !std::regex_match(instruction.operands, match, form)) {
            return std::nullopt;
        }
        const auto page = PageIn(match[2], instruction);
        return page ? std::optional(Load{*page + *Number(match[3]), match[1]}) : std::nullopt;
    }
    std::optional<std::uint64_t> AddressOf(const Instruction& instruction) override
    {
        std::smatch match;
        static const std::regex form(R"(^x\d+, (x\d+), #(0x[0-9a-f]+)$)");
        if (instruction.mnemonic != "add" || !std::regex_match(instruction.operands, match, form)) {
            return std::nullopt;
        }
        const auto page = PageIn(match[1], instruction);
        return page ? std::optional(*page + *Number(match[2])) : std::nullopt;
    }
    bool IsJump(const Instruction& instruction) const override { return instruction.mnemonic == "b"; }
    std::optional<std::uint64_t> ConditionalTarget(const Instruction& instruction) const override
    {
        const bool isConditional = instruction.mnemonic.starts_with("b.") || instruction.mnemonic.starts_with("cb") ||
                                   instruction.mnemonic.starts_with("tb");
        const std::size_t last = instruction.operands.rfind(", ");
        const auto target = Number(instruction.operands, last == std::string::npos ? 0 : last);
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
        return Branch{*Number(instruction.operands, instruction.operands.rfind(", ")) - kPreferredBase, isSet};
    }

private:
    // Pages stay in registers across blocks.
    std::optional<std::uint64_t> PageIn(const std::string& reg, const Instruction& instruction) const
    {
        const Instruction* writer = lastWriter(reg, instruction);
        const auto page = writer != nullptr && writer->mnemonic == "adrp" ? Number(writer->operands) : std::nullopt;
        return page ? std::optional(*page - kPreferredBase) : std::nullopt;
    }
};

class Reader {
public:
    Reader(std::vector<Instruction> instructions, LinkMap map, Machine& machine)
        : instructions_(std::move(instructions)), map_(std::move(map)), machine_(machine)
    {
        for (std::size_t index = 0; index < instructions_.size(); ++index) {
            at_[instructions_[index].offset] = index;
        }
        for (std::size_t index = 0; index < instructions_.size(); ++index) {
            const Instruction& instruction = instructions_[index];
            auto target = machine_.ConditionalTarget(instruction);
            if (machine_.IsJump(instruction)) {
                target = Number(instruction.operands);
                target = target ? std::optional(*target - kPreferredBase) : std::nullopt;
            }
            if (target && at_.contains(*target)) {
                sources_[at_.at(*target)].push_back(index);
            }
        }
        machine_.lastWriter = [this](const std::string& reg, const Instruction& at) {
            std::set<std::size_t> seen;
            return LastWriter(reg, at_.at(at.offset), seen);
        };
    }

    SiteCode Read()
    {
        SiteCode code;
        for (std::size_t index = 0; index < instructions_.size(); ++index) {
            const Instruction& instruction = instructions_[index];
            const std::optional<Machine::Load> load = machine_.LoadOf(instruction);
            if (const auto address = machine_.AddressOf(instruction); address && map_.records.contains(*address)) {
                code.recordedSites.insert(map_.records.at(*address));
            }
            const bool isWord = load && (load->address == map_.words || load->address == map_.words + 4);
            if (isWord && std::ranges::none_of(map_.reporting, [&](const Range& range) {
                    return instruction.offset >= range.begin && instruction.offset < range.end;
                })) {
                Follow(index, *load, code.tests);
            }
        }
        return code;
    }

private:
    // The tests that one load serves: mostly one; two when it was hoisted above the branch that parts two sites.
    void Follow(std::size_t index, const Machine::Load& load, std::vector<SiteTest>& tests)
    {
        const std::size_t before = tests.size();
        const SiteTest begun{.load = instructions_[index].offset,
                             .path = {instructions_[index].offset},
                             .channel = load.address == map_.words ? Channel::kEvents : Channel::kMessages};
        Walk(index + 1, load.reg, begun, false, 0, tests);
        if (tests.size() == before) {
            tests.push_back(begun);
        }
    }

    void Walk(std::size_t index, const std::string& reg, SiteTest test, bool tested, unsigned step,
              std::vector<SiteTest>& tests)
    {
        constexpr unsigned kReach = 10;
        for (; step < kReach && index < instructions_.size(); ++step, ++index) {
            const Instruction& instruction = instructions_[index];
            if (const auto branch = machine_.BranchOf(instruction, reg, tested)) {
                test.path.push_back(instruction.offset);
                test.isTested = true;
                test.isColdOutOfLine = branch->isTakenWhenHeard;
                const std::size_t cold =
                    branch->isTakenWhenHeard && at_.contains(branch->target) ? at_.at(branch->target) : index + 1;
                test.site = RecordBehind(cold);
                tests.push_back(test);
                return;
            }
            if (machine_.IsBitTest(instruction, reg)) {
                tested = true;
                test.path.push_back(instruction.offset);
            } else if (machine_.Writes(instruction, reg)) {
                return;
            } else if (const auto target = machine_.ConditionalTarget(instruction);
                       !tested && target && at_.contains(*target)) {
                Walk(at_.at(*target), reg, test, false, step + 1, tests);
            }
        }
    }

    // The first site record that the code from here on names, or takes from a register that held it before.
    int RecordBehind(std::size_t index)
    {
        constexpr unsigned kReach = 60;
        for (unsigned step = 0; step < kReach && index < instructions_.size(); ++step) {
            const Instruction& instruction = instructions_[index];
            if (const auto address = machine_.AddressOf(instruction); address && map_.records.contains(*address)) {
                return map_.records.at(*address);
            }
            if (const std::string held = machine_.FirstArgumentFrom(instruction); !held.empty()) {
                return RecordIn(held, index);
            }
            const auto target = Number(instruction.operands);
            index = machine_.IsJump(instruction) && target && at_.contains(*target - kPreferredBase)
                        ? at_.at(*target - kPreferredBase)
                        : index + 1;
        }
        return -1;
    }

    // The record whose address stands in a register: compilers keep it there across a loop.
    int RecordIn(const std::string& reg, std::size_t index)
    {
        const Instruction* writer = machine_.lastWriter(reg, instructions_[index]);
        const auto address = writer == nullptr ? std::nullopt : machine_.AddressOf(*writer);
        return address && map_.records.contains(*address) ? map_.records.at(*address) : -1;
    }

    // Backwards along the code, and along the branches that lead to it, to the nearest writer of a register.
    const Instruction* LastWriter(const std::string& reg, std::size_t index, std::set<std::size_t>& seen) const
    {
        while (seen.insert(index).second) {
            if (const auto sources = sources_.find(index); sources != sources_.end()) {
                for (const std::size_t source : sources->second) {
                    if (source < index || IsEnd(instructions_[index - 1])) {
                        if (const Instruction* writer = LastWriter(reg, source, seen)) {
                            return writer;
                        }
                    }
                }
            }
            if (index == 0 || IsEnd(instructions_[index - 1])) {
                return nullptr;
            }
            --index;
            if (machine_.Writes(instructions_[index], reg)) {
                return &instructions_[index];
            }
        }
        return nullptr;
    }

    // Whether control never passes on to the next instruction.
    bool IsEnd(const Instruction& instruction) const
    {
        return machine_.IsJump(instruction) || instruction.mnemonic.starts_with("ret") || instruction.mnemonic == "br";
    }

    std::vector<Instruction> instructions_;
    LinkMap map_;
    Machine& machine_;
    std::map<std::uint64_t, std::size_t> at_;
    std::map<std::size_t, std::vector<std::size_t>> sources_;  // branches by the instruction that they lead to
};

}  // namespace

SiteCode ReadSiteCode(const std::filesystem::path& image, const std::string& machine)
{
    std::filesystem::path mapFile = image;
    mapFile.replace_extension(".map");
    X64 x64;
    Arm64 arm64;
    Machine& chosen = machine == "arm64" ? static_cast<Machine&>(arm64) : x64;
    return Reader(ReadInstructions(image), ReadMap(mapFile), chosen).Read();
}

}  // namespace bench
