// Unwind tables of x64 images (.pdata and UNWIND_INFO). A function's prologue is listed backwards, each step with the
// offset at which it is done; a chained entry continues the prologue of another, whose steps are all done.
#include "host/image/unwind_tables.h"

#include <algorithm>

namespace host::image::x64 {
namespace {

constexpr unsigned kStackPointer = 7;
constexpr std::uint32_t kReturnAddressBytes = 8;
constexpr unsigned kChainsMaximum = 32;

// The image's register numbers, as DWARF counts them.
constexpr unsigned kRegisters[16] = {0, 2, 1, 3, 7, 6, 4, 5, 8, 9, 10, 11, 12, 13, 14, 15};

struct Step {
    enum class Kind { kPush, kAllocate, kSetFrame, kSave };
    Kind kind;
    std::uint32_t doneAt;  // offset in the function
    unsigned reg;          // in DWARF's count
    std::uint32_t bytes;   // allocated, above the stack pointer, or between frame register and stack pointer
};

void DescribeOne(const UnwindFunction& function, const std::vector<Step>& steps, CallFrames& frames)
{
    frames.BeginFunction(function.begin, function.end);
    std::uint32_t depth = kReturnAddressBytes;  // of the stack pointer below the frame address
    bool hasFrameRegister = false;
    for (const Step& step : steps) {
        frames.At(step.doneAt);
        switch (step.kind) {
        case Step::Kind::kPush:
        case Step::Kind::kAllocate:
            depth += step.bytes;
            if (!hasFrameRegister) {
                frames.Frame(kStackPointer, depth);
            }
            if (step.kind == Step::Kind::kPush) {
                frames.Saved(step.reg, depth);
            }
            break;
        case Step::Kind::kSetFrame:
            hasFrameRegister = true;
            frames.Frame(step.reg, depth - std::min(depth, step.bytes));
            break;
        case Step::Kind::kSave:
            if (step.bytes < depth) {
                frames.Saved(step.reg, depth - step.bytes);
            }
            break;
        }
    }
    frames.EndFunction();
}

// Appends the steps of a prologue, the first one first; false when they cannot be read.
bool Collect(const UnwindTables& tables, std::uint32_t unwind, unsigned chained, std::vector<Step>& steps)
{
    struct Header {
        std::uint8_t versionAndFlags;
        std::uint8_t prologueBytes;
        std::uint8_t codeCount;
        std::uint8_t frame;
    };
    constexpr unsigned kChained = 4;
    const auto header = tables.Read<Header>(unwind);
    if (!header || chained == kChainsMaximum) {
        return false;
    }
    const std::uint64_t codes = std::uint64_t{unwind} + sizeof(Header);
    if ((header->versionAndFlags >> 3 & kChained) != 0) {
        const auto parent = tables.Read<UnwindFunction>(codes + (header->codeCount + 1u) / 2 * 4);
        if (!parent || !Collect(tables, parent->unwind, chained + 1, steps)) {
            return false;
        }
    }
    std::vector<Step> own;
    for (unsigned index = 0; index < header->codeCount;) {
        const auto slot = [&](unsigned number) {
            return tables.Read<std::uint16_t>(codes + 2 * std::uint64_t{index + number}).value_or(0);
        };
        const unsigned code = slot(0);
        const unsigned info = code >> 12;
        Step step{Step::Kind::kAllocate, chained != 0 ? 0 : code & 0xFF, kRegisters[info], 0};
        const std::uint32_t wide = slot(1) | std::uint32_t{slot(2)} << 16;
        bool counts = true;
        switch (code >> 8 & 15) {
        case 0:
            step.kind = Step::Kind::kPush;
            step.bytes = 8;
            index += 1;
            break;
        case 1:
            step.bytes = info == 0 ? slot(1) * 8u : wide;
            index += info == 0 ? 2 : 3;
            break;
        case 2:
            step.bytes = info * 8 + 8;
            index += 1;
            break;
        case 3:
            step.kind = Step::Kind::kSetFrame;
            step.reg = kRegisters[header->frame & 15];
            step.bytes = (header->frame >> 4) * 16u;
            index += 1;
            break;
        case 4:
        case 5:
            step.kind = Step::Kind::kSave;
            step.bytes = (code >> 8 & 15) == 4 ? slot(1) * 8u : wide;
            index += (code >> 8 & 15) == 4 ? 2 : 3;
            break;
        case 6:  // of an epilogue
            counts = false;
            index += 1;
            break;
        case 8:  // vector registers, of which no frame address is made
        case 9:
            counts = false;
            index += (code >> 8 & 15) == 8 ? 2 : 3;
            break;
        default:  // a frame that the processor pushed: no driver has one
            return false;
        }
        if (counts && step.bytes % 8 == 0) {
            own.push_back(step);
        }
    }
    steps.insert(steps.end(), own.rbegin(), own.rend());
    return true;
}

}  // namespace

void Describe(const UnwindTables& tables, CallFrames& frames)
{
    std::vector<UnwindFunction> functions;
    for (std::uint64_t at = 0; at + sizeof(UnwindFunction) <= tables.tableBytes; at += sizeof(UnwindFunction)) {
        if (const auto function = tables.Read<UnwindFunction>(std::uint64_t{tables.table} + at)) {
            functions.push_back(*function);
        }
    }
    DescribeFunctions(tables, std::move(functions), frames, [&](const UnwindFunction& function) {
        if (std::vector<Step> steps; Collect(tables, function.unwind, 0, steps)) {
            DescribeOne(function, steps, frames);
        }
    });
}

}  // namespace host::image::x64
