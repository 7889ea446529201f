// Unwind tables of ARM64 images (.pdata and .xdata). A prologue is listed backwards, one code for each instruction; a
// usual one is packed into its entry of the table instead. Epilogues and vector registers are left out: no frame
// address is made of these, and nothing is called from those.
#include "host/image/unwind_tables.h"

#include <algorithm>
#include <optional>

namespace host::image::arm64 {
namespace {

constexpr unsigned kFramePointer = 29;
constexpr unsigned kLink = 30;
constexpr unsigned kStackPointer = 31;
constexpr unsigned kFirstSaved = 19;
constexpr std::uint32_t kInstructionBytes = 4;

// What an instruction of a prologue does.
struct Step {
    std::uint32_t allocates = 0;
    unsigned first = 0;   // register that it saves; 0: none
    unsigned second = 0;  // at the 8 bytes above
    std::uint32_t at = 0;
    bool setsFrame = false;
    std::uint32_t frameAbove = 0;  // the stack pointer
    bool signsReturn = false;
    bool isDone = false;  // before the function: its part of a longer one has no such instruction
    bool savesNext = false;
};

void DescribeOne(const UnwindFunction& function, const std::vector<Step>& steps, CallFrames& frames)
{
    frames.BeginFunction(function.begin, function.end);
    std::uint32_t depth = 0;  // of the stack pointer below the frame address
    std::uint32_t offset = 0;
    bool hasFrameRegister = false;
    for (const Step& step : steps) {
        offset += step.isDone ? 0 : kInstructionBytes;
        frames.At(offset);
        if (step.allocates != 0) {
            depth += step.allocates;
            if (!hasFrameRegister) {
                frames.Frame(kStackPointer, depth);
            }
        }
        if (step.first != 0 && step.at < depth) {
            frames.Saved(step.first, depth - step.at);
        }
        if (step.second != 0 && step.at + 8 < depth) {
            frames.Saved(step.second, depth - step.at - 8);
        }
        if (step.setsFrame) {
            hasFrameRegister = true;
            frames.Frame(kFramePointer, depth - std::min(depth, step.frameAbove));
        }
        if (step.signsReturn) {
            frames.ToggleSignedReturn();
        }
    }
    frames.EndFunction();
}

// One code; `bytes` is what it occupies. Empty: of a kind that no driver has.
std::optional<Step> Decode(std::uint32_t code, unsigned& bytes)
{
    // The first byte is the highest.
    const unsigned first = code >> 24;
    const unsigned two = code >> 16;
    bytes = first < 0xC0 ? 1 : first < 0xE0 ? 2 : 1;
    const std::uint32_t low6 = (two & 63) * 8;
    const unsigned reg4 = kFirstSaved + (two >> 6 & 15);
    if (first < 0x20) {
        return Step{.allocates = (first & 31) * 16};
    }
    if (first < 0x40) {
        return Step{.allocates = (first & 31) * 8, .first = 19, .second = 20};
    }
    if (first < 0x80) {
        return Step{.first = kFramePointer, .second = kLink, .at = (first & 63) * 8};
    }
    if (first < 0xC0) {
        return Step{.allocates = (first & 63) * 8 + 8, .first = kFramePointer, .second = kLink};
    }
    if (first < 0xC8) {
        return Step{.allocates = (two & 0x7FF) * 16};
    }
    if (first < 0xCC) {
        return Step{.first = reg4, .second = reg4 + 1, .at = low6};
    }
    if (first < 0xD0) {
        return Step{.allocates = low6 + 8, .first = reg4, .second = reg4 + 1};
    }
    if (first < 0xD4) {
        return Step{.first = reg4, .at = low6};
    }
    if (first < 0xD6) {
        return Step{.allocates = (two & 31) * 8 + 8, .first = kFirstSaved + (two >> 5 & 15)};
    }
    if (first < 0xD8) {
        return Step{.first = kFirstSaved + 2 * (two >> 6 & 7), .second = kLink, .at = low6};
    }
    if (first < 0xDE) {  // vector registers: in pairs, in pairs with the stack pointer moved, alone
        return Step{.allocates = first >= 0xDA && first < 0xDC ? low6 + 8 : 0};
    }
    if (first == 0xDE) {
        return Step{.allocates = (two & 31) * 8 + 8};
    }
    switch (first) {
    case 0xE0:
        bytes = 4;
        return Step{.allocates = (code & 0xFFFFFF) * 16};
    case 0xE1:
        return Step{.setsFrame = true};
    case 0xE2:
        bytes = 2;
        return Step{.setsFrame = true, .frameAbove = (two & 0xFF) * 8};
    case 0xE3:
        return Step{};
    case 0xE6:
        return Step{.savesNext = true};
    case 0xFC:
        return Step{.signsReturn = true};
    default:
        return std::nullopt;
    }
}

// The steps of a prologue, the first one first; empty when they cannot be read. The header says how long the function
// is.
std::optional<std::vector<Step>> ReadCodes(const UnwindTables& tables, std::uint64_t at)
{
    constexpr unsigned kEnd = 0xE4;
    constexpr unsigned kEndOfPart = 0xE5;
    const std::uint32_t header = tables.Read<std::uint32_t>(at).value_or(0);
    std::uint32_t epilogues = header >> 22 & 31;
    std::uint32_t words = header >> 27;
    const bool hasOneEpilogue = (header >> 21 & 1) != 0;
    at += 4;
    if (epilogues == 0 && words == 0) {
        const std::uint32_t more = tables.Read<std::uint32_t>(at).value_or(0);
        epilogues = more & 0xFFFF;
        words = more >> 16 & 0xFF;
        at += 4;
    }
    at += hasOneEpilogue ? 0 : 4 * std::uint64_t{epilogues};
    std::vector<std::uint32_t> bytes;
    for (std::uint64_t index = 0; index < std::uint64_t{words} * 4; ++index) {
        const auto byte = tables.Read<std::uint8_t>(at + index);
        if (!byte) {
            return std::nullopt;
        }
        bytes.push_back(*byte);
    }
    bytes.resize(bytes.size() + 3);
    std::vector<Step> steps;
    bool isDone = false;
    for (std::size_t index = 0; index + 3 < bytes.size();) {
        if (bytes[index] == kEnd) {
            break;
        }
        if (bytes[index] == kEndOfPart) {
            isDone = true;
            ++index;
            continue;
        }
        unsigned taken = 0;
        auto step =
            Decode(bytes[index] << 24 | bytes[index + 1] << 16 | bytes[index + 2] << 8 | bytes[index + 3], taken);
        if (!step) {
            return std::nullopt;
        }
        step->isDone = isDone;
        steps.push_back(*step);
        index += taken;
    }
    std::ranges::reverse(steps);
    for (std::size_t index = 1; index < steps.size(); ++index) {
        const Step& before = steps[index - 1];
        if (steps[index].savesNext && before.first != 0) {
            steps[index].first = before.first + 2;
            steps[index].second = before.first + 3;
            steps[index].at = before.at + 16;
        }
    }
    return steps;
}

// A prologue of the usual form: registers, link, vector registers and the arguments are saved in one area, locals lie
// below it. Its instructions are not distinguished: a fault inside is none of a callee's.
std::vector<Step> Unpack(std::uint32_t packed)
{
    const unsigned integers = packed >> 16 & 15;
    const unsigned vectors = packed >> 13 & 7;
    const bool savesArguments = (packed >> 20 & 1) != 0;
    const unsigned link = packed >> 21 & 3;  // 1: saved alone; 2: signed, in a chain of frames; 3: in a chain
    const std::uint32_t frame = (packed >> 23) * 16;
    const std::uint32_t saved =
        integers * 8 + (link == 1 ? 8 : 0) + (vectors != 0 ? vectors * 8 + 8 : 0) + (savesArguments ? 64 : 0);
    const std::uint32_t area = (saved + 15) / 16 * 16;
    std::vector<Step> steps;
    if (link == 2) {
        steps.push_back({.signsReturn = true});
    }
    steps.push_back({.allocates = frame});
    const std::uint32_t base = frame - std::min(frame, area);
    for (unsigned index = 0; index < integers; ++index) {
        steps.push_back({.first = kFirstSaved + index, .at = base + index * 8, .isDone = true});
    }
    if (link == 1) {
        steps.push_back({.first = kLink, .at = base + integers * 8, .isDone = true});
    } else if (link >= 2) {
        steps.push_back({.first = kFramePointer, .second = kLink, .isDone = true});
        steps.push_back({.setsFrame = true, .isDone = true});
    }
    return steps;
}

}  // namespace

void Describe(const UnwindTables& tables, CallFrames& frames)
{
    struct Entry {
        std::uint32_t begin;
        std::uint32_t unwind;  // with its two lowest bits 0 where the codes lie, else packed
    };
    constexpr unsigned kKind = 3;
    std::vector<UnwindFunction> functions;
    for (std::uint64_t at = 0; at + sizeof(Entry) <= tables.tableBytes; at += sizeof(Entry)) {
        const auto entry = tables.Read<Entry>(std::uint64_t{tables.table} + at);
        if (!entry) {
            break;
        }
        const std::uint32_t instructions = (entry->unwind & kKind) != 0
                                               ? entry->unwind >> 2 & 0x7FF
                                               : tables.Read<std::uint32_t>(entry->unwind).value_or(0) & 0x3FFFF;
        functions.push_back({entry->begin, entry->begin + instructions * kInstructionBytes, entry->unwind});
    }
    DescribeFunctions(tables, std::move(functions), frames, [&](const UnwindFunction& function) {
        if ((function.unwind & kKind) != 0) {
            DescribeOne(function, Unpack(function.unwind), frames);
        } else if (const auto steps = ReadCodes(tables, function.unwind)) {
            DescribeOne(function, *steps, frames);
        }
    });
}

}  // namespace host::image::arm64
