// Runs the disassembler over an image.
#pragma once

#include <filesystem>
#include <string>

namespace image_check {

// The program's output; throws std::runtime_error when it cannot be run or fails.
[[nodiscard]] std::string Disassemble(const std::string& program, const std::filesystem::path& image);

}  // namespace image_check
