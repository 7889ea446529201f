#include "bench/instructions.h"

#include <charconv>
#include <stdexcept>

namespace bench {

std::vector<Instruction> ReadInstructions(const std::filesystem::path& image)
{
    std::vector<Instruction> instructions =
        image_check::ParseDisassembly(image_check::Disassemble("llvm-objdump-19", image), kPreferredBase);
    if (instructions.empty()) {
        throw std::runtime_error(image.string() + ": has no code that could be disassembled");
    }
    return instructions;
}

std::optional<std::uint64_t> HexNumber(const std::string& text, std::size_t from)
{
    const std::size_t at = text.find("0x", from);
    if (at == std::string::npos) {
        return std::nullopt;
    }
    std::uint64_t value = 0;
    std::from_chars(text.data() + at + 2, text.data() + text.size(), value, 16);
    return value;
}

}  // namespace bench
