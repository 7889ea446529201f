// An image's code, instruction by instruction, read from its disassembly.
#pragma once

#include "tools/image_check/disassembly.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace bench {

// The disassembly's addresses begin here; offsets are counted from it.
inline constexpr std::uint64_t kPreferredBase = 0x140000000;

using image_check::Instruction;

// All of an image's code, in order. Throws std::runtime_error when there is none.
[[nodiscard]] std::vector<Instruction> ReadInstructions(const std::filesystem::path& image);

// The first hexadecimal number in a text, from a position on.
[[nodiscard]] std::optional<std::uint64_t> HexNumber(const std::string& text, std::size_t from = 0);

}  // namespace bench
