// Runs the disassembler over an image, and reads what it prints.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace image_check {

// The program's output; throws std::runtime_error when it cannot be run or fails.
[[nodiscard]] std::string Disassemble(const std::string& program, const std::filesystem::path& image);

struct Instruction {
    std::uint64_t offset;  // from the image's base
    std::string mnemonic;
    std::string operands;
    std::string comment;  // after '#' (x64) or '//' (ARM64)
};

// The instructions of a disassembly whose addresses begin at a base; all other lines are headings.
[[nodiscard]] std::vector<Instruction> ParseDisassembly(std::string_view disassembly, std::uint64_t base);

}  // namespace image_check
