// On x64 code reads the variable by its distance from the instruction, which no other bytes have by chance, and the
// entry soon after. From there instructions are decoded one by one, as far as they are of the kinds that compilers put
// between the two; any other ends the search.
#include "host/image/table_reads.h"

#include <cstring>

namespace host::image::x64 {
namespace {

constexpr unsigned kBetweenMaximum = 24;  // instructions between the two reads
constexpr unsigned kRexW = 8;
constexpr int kSign = 0x80;  // of a byte

constexpr std::uint8_t kMove = 0x8B;  // to a register
constexpr std::uint8_t kLoadAddress = 0x8D;
constexpr std::uint8_t kGroup = 0xFF;  // calls, jumps and others, by the middle bits of the byte after
constexpr unsigned kCall = 2;
constexpr unsigned kJump = 4;

// How an instruction of an opcode goes on.
struct Form {
    bool isKnown = false;
    bool hasOperands = false;  // a byte for a register and a register or memory
    bool isGroup = false;      // in which the register is part of the opcode
    bool isVector = false;     // whose register is none of the general ones
    unsigned immediateBytes = 0;
};

Form FormOf(std::uint8_t opcode, unsigned rex, bool isShort)
{
    const unsigned wide = isShort ? 2 : 4;
    const Form operands{.isKnown = true, .hasOperands = true};
    const Form plain{.isKnown = true};
    if ((opcode & 0xC4) == 0 || opcode == 0x63 || (opcode & 0xFC) == 0x88 || opcode == kLoadAddress ||
        (opcode & 0xFE) == 0x84) {  // arithmetic, sign extension, moves, tests
        return operands;
    }
    switch (opcode) {
    case 0x80:
    case 0x83:
    case 0xC0:
    case 0xC1:
    case 0xC6:
        return {.isKnown = true, .hasOperands = true, .isGroup = true, .immediateBytes = 1};
    case 0x81:
    case 0xC7:
        return {.isKnown = true, .hasOperands = true, .isGroup = true, .immediateBytes = wide};
    case 0x6B:
        return {.isKnown = true, .hasOperands = true, .immediateBytes = 1};
    case 0x69:
        return {.isKnown = true, .hasOperands = true, .immediateBytes = wide};
    case 0xD1:
    case 0xD3:
    case kGroup:
        return {.isKnown = true, .hasOperands = true, .isGroup = true};
    case 0x90:
        return plain;
    default:
        break;
    }
    if ((opcode & 0xF0) == 0x50) {  // to and from the stack
        return plain;
    }
    if ((opcode & 0xF0) == 0x70) {  // conditional jumps, which may not be taken
        return {.isKnown = true, .immediateBytes = 1};
    }
    if ((opcode & 0xF8) == 0xB8) {
        return {.isKnown = true, .immediateBytes = (rex & kRexW) != 0 ? 8 : wide};
    }
    return {};
}

// Of the opcodes after a byte 0x0F.
Form LongFormOf(std::uint8_t opcode)
{
    switch (opcode & 0xF0) {
    case 0x10:
        return opcode == 0x1F ? Form{.isKnown = true, .hasOperands = true, .isGroup = true}
                              : Form{.isKnown = true, .hasOperands = true, .isVector = true};
    case 0x40:  // conditional moves
        return {.isKnown = true, .hasOperands = true};
    case 0x80:  // conditional jumps
        return {.isKnown = true, .immediateBytes = 4};
    case 0x90:  // conditions as bytes
        return {.isKnown = true, .hasOperands = true, .isGroup = true};
    default:
        break;
    }
    switch (opcode) {
    case 0x28:
    case 0x29:
    case 0x54:
    case 0x57:
    case 0x6F:
    case 0x7F:
    case 0xD6:
    case 0xEF:
        return {.isKnown = true, .hasOperands = true, .isVector = true};
    case 0xAF:
    case 0xB6:
    case 0xB7:
    case 0xBE:
    case 0xBF:
        return {.isKnown = true, .hasOperands = true};
    default:
        return {};
    }
}

class Code {
public:
    Code(std::span<const std::uint8_t> bytes, std::uint32_t offset) : bytes_(bytes), offset_(offset) {}

    [[nodiscard]] std::size_t size() const { return bytes_.size(); }
    // 0 after the end: the byte of an instruction that no search needs.
    [[nodiscard]] std::uint8_t operator[](std::size_t at) const { return at < bytes_.size() ? bytes_[at] : 0; }
    [[nodiscard]] std::int32_t Number(std::size_t at) const
    {
        std::int32_t number = 0;
        if (at + sizeof(number) <= bytes_.size()) {
            std::memcpy(&number, bytes_.data() + at, sizeof(number));
        }
        return number;
    }
    // What an operand means whose 32 bits of distance lie here, the last of its instruction.
    [[nodiscard]] std::int64_t Target(std::size_t at) const
    {
        return std::int64_t{offset_} + static_cast<std::int64_t>(at) + 4 + Number(at);
    }

private:
    std::span<const std::uint8_t> bytes_;
    std::uint32_t offset_;
};

class Walk {
public:
    Walk(const Code& code, std::size_t at, unsigned table) : code_(code), at_(at), table_(table) {}

    // The displacement of the next entry that is read; empty when the register is needed for something else first, or
    // the way ends.
    std::optional<std::int32_t> NextRead()
    {
        for (; count_ < kBetweenMaximum; ++count_) {
            std::optional<std::int32_t> read;
            if (!Step(read)) {
                count_ = kBetweenMaximum;
            }
            if (read) {
                return read;
            }
        }
        return std::nullopt;
    }

private:
    // One instruction; false when nothing is certain after it.
    bool Step(std::optional<std::int32_t>& read)
    {
        bool isShort = false;
        bool isPrefix = true;
        while (isPrefix) {
            isPrefix = code_[at_] == 0x66 || code_[at_] == 0xF2 || code_[at_] == 0xF3;
            isShort = isShort || code_[at_] == 0x66;
            at_ += isPrefix ? 1 : 0;
        }
        const unsigned rex = (code_[at_] & 0xF0) == 0x40 ? code_[at_++] : 0u;
        const bool isLong = code_[at_] == 0x0F;
        at_ += isLong ? 1 : 0;
        const std::uint8_t opcode = code_[at_++];
        const Form form = isLong ? LongFormOf(opcode) : FormOf(opcode, rex, isShort);
        if (!form.isKnown) {
            return false;
        }
        const bool goesOn = form.hasOperands ? Operands(form, isLong ? 0 : opcode, rex, read) : Names(opcode, rex);
        at_ += form.immediateBytes;
        return goesOn;
    }

    // A register in the opcode itself, which is written; false when it is the table's.
    [[nodiscard]] bool Names(std::uint8_t opcode, unsigned rex) const
    {
        const bool hasRegister = (opcode & 0xF8) == 0x58 || (opcode & 0xF8) == 0xB8;
        return !hasRegister || ((opcode & 7u) | (rex & 1) << 3) != table_;
    }

    bool Operands(const Form& form, std::uint8_t opcode, unsigned rex, std::optional<std::int32_t>& read)
    {
        const std::uint8_t operands = code_[at_++];
        const unsigned mode = operands >> 6;
        const unsigned middle = operands >> 3 & 7u;
        const unsigned low = operands & 7u;
        const bool namesTable = !form.isGroup && !form.isVector && (middle | (rex & 4) << 1) == table_;
        const bool isCall = opcode == kGroup && (middle == kCall || middle == kJump);
        if (mode == 3) {
            const bool isOther = (low | (rex & 1) << 3) != table_ || form.isVector;
            return isOther && !namesTable && !isCall;
        }
        unsigned base = low | (rex & 1) << 3;
        bool isPlain = true;  // a register and a distance
        bool hasNumber = mode == 2;
        if (low == 4) {
            const std::uint8_t index = code_[at_++];
            base = (index & 7u) | (rex & 1) << 3;
            isPlain = (index >> 3 & 7) == 4 && (rex & 2) == 0;
        }
        if (mode == 0 && (base & 7) == 5) {
            isPlain = false;
            hasNumber = true;
        }
        const std::int32_t distance = hasNumber   ? code_.Number(at_)
                                      : mode == 1 ? std::int32_t{code_[at_] ^ kSign} - kSign
                                                  : 0;
        at_ += hasNumber ? 4 : mode;
        const bool reads = isCall || (opcode == kMove && (rex & kRexW) != 0);
        if (isPlain && base == table_ && reads) {
            read = distance;
        }
        return !namesTable && !isCall;
    }

    const Code& code_;
    std::size_t at_;
    const unsigned table_;  // the register that holds its address
    unsigned count_ = 0;
};

}  // namespace

void AddEntriesRead(std::span<const std::uint8_t> code, std::uint32_t offset, const FunctionTablePlace& place,
                    std::set<std::uint32_t>& entries)
{
    const Code bytes(code, offset);
    const auto add = [&](std::int64_t distance) {
        if (const std::optional<std::uint32_t> entry = place.EntryAt(distance)) {
            entries.insert(*entry);
        }
    };
    const auto follow = [&](std::size_t at, std::uint8_t rex, std::uint8_t operands) {
        Walk walk(bytes, at, (operands >> 3 & 7u) | (rex & 4u) << 1);
        while (const std::optional<std::int32_t> distance = walk.NextRead()) {
            add(*distance);
        }
    };
    constexpr std::size_t kMoveBytes = 7;  // of a move from, or the address of, what lies at a distance
    for (std::size_t at = 0; at + kMoveBytes <= bytes.size(); ++at) {
        const std::uint8_t first = bytes[at];
        const std::uint8_t opcode = bytes[at + 1];
        const std::uint8_t operands = bytes[at + 2];
        if ((first & 0xF8) == 0x48 && (opcode == kMove || opcode == kLoadAddress) && (operands & 0xC7) == 0x05) {
            const std::int64_t distance = bytes.Target(at + 3) - place.offset;
            if (distance == 0 && place.IsTable() == (opcode == kLoadAddress)) {
                follow(at + kMoveBytes, first, operands);
            } else if (place.IsTable() && opcode == kMove) {
                add(distance);
            }
        } else if (place.IsTable() && first == kGroup && (opcode == 0x15 || opcode == 0x25)) {
            add(bytes.Target(at + 2) - place.offset);  // a call, or a jump, of the entry itself
        }
    }
}

}  // namespace host::image::x64
