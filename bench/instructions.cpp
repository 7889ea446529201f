#include "bench/instructions.h"

#include "tools/image_check/disassembly.h"

#include <algorithm>
#include <charconv>
#include <regex>
#include <sstream>
#include <stdexcept>

namespace bench {

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
