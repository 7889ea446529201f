#include "bench/machine_code.h"

#include "bench/instruction_set.h"
#include "bench/link_map.h"

#include <algorithm>
#include <map>
#include <memory>
#include <optional>

namespace bench {
namespace {

// Finds the sites' tests by following the code from every load of an enable word.
class SiteReader {
public:
    SiteReader(std::vector<Instruction> instructions, LinkMap map, std::unique_ptr<InstructionSet> set)
        : instructions_(std::move(instructions)), map_(std::move(map)), set_(std::move(set))
    {
        for (std::size_t index = 0; index < instructions_.size(); ++index) {
            at_[instructions_[index].offset] = index;
        }
        for (std::size_t index = 0; index < instructions_.size(); ++index) {
            const Instruction& instruction = instructions_[index];
            auto target = set_->ConditionalTarget(instruction);
            if (set_->IsJump(instruction)) {
                target = HexNumber(instruction.operands);
                target = target ? std::optional(*target - kPreferredBase) : std::nullopt;
            }
            if (target && at_.contains(*target)) {
                sources_[at_.at(*target)].push_back(index);
            }
        }
        set_->lastWriter = [this](const std::string& reg, const Instruction& at) {
            std::set<std::size_t> seen;
            return LastWriter(reg, at_.at(at.offset), seen);
        };
    }

    SiteCode Read()
    {
        SiteCode code;
        for (std::size_t index = 0; index < instructions_.size(); ++index) {
            const Instruction& instruction = instructions_[index];
            const std::optional<InstructionSet::Load> load = set_->LoadOf(instruction);
            if (const auto address = set_->AddressOf(instruction); address && map_.records.contains(*address)) {
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
    void Follow(std::size_t index, const InstructionSet::Load& load, std::vector<SiteTest>& tests)
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
            if (const auto branch = set_->BranchOf(instruction, reg, tested)) {
                test.path.push_back(instruction.offset);
                test.isTested = true;
                test.isColdOutOfLine = branch->isTakenWhenEnabled;
                const std::size_t cold =
                    branch->isTakenWhenEnabled && at_.contains(branch->target) ? at_.at(branch->target) : index + 1;
                test.site = RecordAfter(cold);
                tests.push_back(test);
                return;
            }
            if (set_->IsBitTest(instruction, reg)) {
                tested = true;
                test.path.push_back(instruction.offset);
            } else if (set_->Writes(instruction, reg)) {
                return;
            } else if (const auto target = set_->ConditionalTarget(instruction);
                       !tested && target && at_.contains(*target)) {
                Walk(at_.at(*target), reg, test, false, step + 1, tests);
            }
        }
    }

    // The first site record that the code from here on names, or takes from a register that held it before.
    int RecordAfter(std::size_t index)
    {
        constexpr unsigned kReach = 60;
        for (unsigned step = 0; step < kReach && index < instructions_.size(); ++step) {
            const Instruction& instruction = instructions_[index];
            if (const auto address = set_->AddressOf(instruction); address && map_.records.contains(*address)) {
                return map_.records.at(*address);
            }
            if (const std::string held = set_->FirstArgumentFrom(instruction); !held.empty()) {
                return RecordIn(held, index);
            }
            const auto target = HexNumber(instruction.operands);
            index = set_->IsJump(instruction) && target && at_.contains(*target - kPreferredBase)
                        ? at_.at(*target - kPreferredBase)
                        : index + 1;
        }
        return -1;
    }

    // The record whose address stands in a register: compilers keep it there across a loop.
    int RecordIn(const std::string& reg, std::size_t index)
    {
        const Instruction* writer = set_->lastWriter(reg, instructions_[index]);
        const auto address = writer == nullptr ? std::nullopt : set_->AddressOf(*writer);
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
            if (set_->Writes(instructions_[index], reg)) {
                return &instructions_[index];
            }
        }
        return nullptr;
    }

    // Whether control never passes on to the next instruction.
    bool IsEnd(const Instruction& instruction) const
    {
        return set_->IsJump(instruction) || instruction.mnemonic.starts_with("ret") || instruction.mnemonic == "br";
    }

    std::vector<Instruction> instructions_;
    LinkMap map_;
    const std::unique_ptr<InstructionSet> set_;
    std::map<std::uint64_t, std::size_t> at_;
    std::map<std::size_t, std::vector<std::size_t>> sources_;  // branches by the instruction that they lead to
};

}  // namespace

SiteCode ReadSiteCode(const std::filesystem::path& image, const std::string& machine)
{
    std::filesystem::path mapFile = image;
    mapFile.replace_extension(".map");
    auto set = machine == "arm64" ? MakeArm64InstructionSet() : MakeX64InstructionSet();
    return SiteReader(ReadInstructions(image), ReadLinkMap(mapFile), std::move(set)).Read();
}

}  // namespace bench
