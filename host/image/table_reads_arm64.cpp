// On ARM64 the address of the variable is made in a register, often once for a whole function, and every instruction
// has four bytes. So each register's value is followed through the code, along its branches too, and not past the end
// of a path. A value counts when there is one way on which it is certain, for then the code reads what it says. What a
// branch backwards brings is known when the code is gone through again.
#include "host/image/table_reads.h"

#include <array>
#include <cstring>
#include <unordered_map>
#include <utility>

namespace host::image::arm64 {
namespace {

constexpr unsigned kZero = 31;  // no register, or the stack pointer

struct Value {
    enum Kind : std::uint8_t {
        kUnknown,
        kAddress,  // in the image, at this offset
        kTable,    // of the framework's function table
    };
    Kind kind = kUnknown;
    std::int32_t offset = 0;
};

using Registers = std::array<Value, kZero + 1>;

std::int32_t Signed(std::uint32_t bits, unsigned count)
{
    const unsigned unused = 32 - count;
    return static_cast<std::int32_t>(bits << unused) >> unused;
}

class Scan {
public:
    Scan(const FunctionTablePlace& place, std::set<std::uint32_t>& entries) : place_(place), entries_(entries) {}

    // Whether a branch backwards has brought what was not known before.
    [[nodiscard]] bool BeginPass() { return std::exchange(hasLearned_, false); }

    void Step(std::uint32_t code, std::int32_t at)
    {
        if (const auto found = branched_.find(at); found != branched_.end()) {
            (void)Fill(registers_, found->second);
        }
        const bool isLoadOrStore = (code & 0x0A000000) == 0x08000000;
        const bool isBranch = (code & 0x1C000000) == 0x14000000;
        if (isBranch) {
            Branch(code, at);
        } else if (isLoadOrStore) {
            LoadOrStore(code);
        } else {
            Compute(code, at);
        }
        registers_[kZero] = {};
    }

private:
    // What came somewhere by a branch is as good as what came from the instruction before.
    static bool Fill(Registers& known, const Registers& others)
    {
        bool hasLearned = false;
        for (unsigned index = 0; index < known.size(); ++index) {
            if (known[index].kind == Value::kUnknown && others[index].kind != Value::kUnknown) {
                known[index] = others[index];
                hasLearned = true;
            }
        }
        return hasLearned;
    }

    void GoTo(std::int32_t from, std::int32_t distance)
    {
        const bool hasLearned = Fill(branched_[from + distance], registers_);
        hasLearned_ = hasLearned_ || (hasLearned && distance <= 0);
    }

    void Call()
    {
        constexpr unsigned kLastScratch = 18;
        constexpr unsigned kLink = 30;
        for (unsigned index = 0; index <= kLastScratch; ++index) {
            registers_[index] = {};
        }
        registers_[kLink] = {};
    }

    void Branch(std::uint32_t code, std::int32_t at)
    {
        if ((code & 0x7C000000) == 0x14000000) {
            if (code >> 31 != 0) {
                Call();
                return;
            }
            GoTo(at, Signed(code, 26) * 4);
            registers_ = {};
        } else if ((code & 0xFE000000) == 0x54000000 || (code & 0x7E000000) == 0x34000000) {
            GoTo(at, Signed(code >> 5, 19) * 4);
        } else if ((code & 0x7E000000) == 0x36000000) {
            GoTo(at, Signed(code >> 5, 14) * 4);
        } else if ((code & 0xFE000000) == 0xD6000000) {
            if ((code >> 21 & 7) == 1) {
                Call();
            } else {
                registers_ = {};
            }
        } else if ((code & 0xFF000000) == 0xD4000000) {
            registers_ = {};  // a break, or a call of the system
        } else if ((code & 0xFFF00000) == 0xD5300000) {
            registers_[code & 31] = {};  // a system register
        }
    }

    void Compute(std::uint32_t code, std::int32_t at)
    {
        const unsigned to = code & 31;
        const Value from = registers_[code >> 5 & 31];
        Value value;
        if ((code & 0x1F000000) == 0x10000000) {
            constexpr std::int32_t kPageMask = 0xFFF;
            const std::int32_t distance = Signed((code >> 5 & 0x7FFFF) << 2 | (code >> 29 & 3), 21);
            const bool isOfPage = code >> 31 != 0;
            value = {Value::kAddress, isOfPage ? (at & ~kPageMask) + distance * (kPageMask + 1) : at + distance};
        } else if ((code & 0xFF800000) == 0x91000000 && from.kind == Value::kAddress) {
            value = {Value::kAddress,
                     from.offset + static_cast<std::int32_t>((code >> 10 & 0xFFF) << ((code >> 22 & 1) * 12))};
        } else if ((code & 0xFFE0FFE0) == 0xAA0003E0) {
            value = registers_[code >> 16 & 31];
        }
        registers_[to] = value;
    }

    void LoadOrStore(std::uint32_t code)
    {
        const unsigned to = code & 31;
        const unsigned second = code >> 10 & 31;
        const unsigned base = code >> 5 & 31;
        const Value from = registers_[base];
        const bool isVector = (code >> 26 & 1) != 0;
        const bool isPair = (code & 0x3A000000) == 0x28000000;
        const bool isExclusive = (code & 0x3F000000) == 0x08000000;
        if (isExclusive) {
            registers_[code >> 16 & 31] = {};
        }
        if (!isVector) {
            registers_[to] = {};  // one that is stored loses nothing that matters
            if (isPair || isExclusive) {
                registers_[second] = {};
            }
        }
        if ((code & 0xFFC00000) == 0xF9400000) {
            Load(to, from, static_cast<std::int32_t>(code >> 10 & 0xFFF) * 8);
        } else if ((code & 0xFFE00C00) == 0xF8400000) {
            Load(to, from, Signed(code >> 12, 9));
        } else if ((code & 0xFFC00000) == 0xA9400000) {
            const std::int32_t distance = Signed(code >> 15, 7) * 8;
            Load(to, from, distance);
            Load(second, from, distance + 8);
        }
        const bool movesBase = isPair ? (code & 0x00800000) != 0 : (code & 0x3B200400) == 0x38000400;
        if (movesBase) {
            registers_[base] = {};
        }
    }

    void Load(unsigned to, const Value& from, std::int32_t distance)
    {
        const std::int32_t address = from.offset + distance;
        Value value;
        if (from.kind == Value::kTable) {
            Add(distance);
        } else if (from.kind == Value::kAddress && place_.IsTable()) {
            Add(address - static_cast<std::int32_t>(place_.offset));
        } else if (from.kind == Value::kAddress && address == static_cast<std::int32_t>(place_.offset)) {
            value.kind = Value::kTable;
        }
        registers_[to] = value;
    }

    void Add(std::int32_t distance)
    {
        if (const std::optional<std::uint32_t> entry = place_.EntryAt(distance)) {
            entries_.insert(*entry);
        }
    }

    const FunctionTablePlace& place_;
    std::set<std::uint32_t>& entries_;
    Registers registers_{};
    std::unordered_map<std::int32_t, Registers> branched_;  // by where it goes on
    bool hasLearned_ = true;
};

}  // namespace

void AddEntriesRead(std::span<const std::uint8_t> code, std::uint32_t offset, const FunctionTablePlace& place,
                    std::set<std::uint32_t>& entries)
{
    constexpr unsigned kPassesMaximum = 4;
    Scan scan(place, entries);
    for (unsigned pass = 0; pass < kPassesMaximum && scan.BeginPass(); ++pass) {
        for (std::size_t at = 0; at + 4 <= code.size(); at += 4) {
            std::uint32_t instruction;
            std::memcpy(&instruction, code.data() + at, sizeof(instruction));
            scan.Step(instruction, static_cast<std::int32_t>(offset + at));
        }
    }
}

}  // namespace host::image::arm64
