#include "tools/image_check/disassembly.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <stdexcept>
#include <system_error>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace image_check {
namespace {

std::string ReadAll(int descriptor)
{
    std::string text;
    std::array<char, 65536> piece;
    for (;;) {
        const ssize_t count = read(descriptor, piece.data(), piece.size());
        if (count > 0) {
            text.append(piece.data(), static_cast<std::size_t>(count));
        } else if (count == 0 || errno != EINTR) {
            return text;
        }
    }
}

constexpr std::string_view kBlanks = " \t";

std::string_view Trimmed(std::string_view text)
{
    text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
    return text.substr(0, text.find_last_not_of(kBlanks) + 1);
}

}  // namespace

// Spawned directly: an image's name never passes through a shell.
std::string Disassemble(const std::string& program, const std::filesystem::path& image)
{
    int ends[2];
    if (pipe(ends) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe");
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, ends[0]);
    posix_spawn_file_actions_addclose(&actions, ends[1]);
    const std::string absolute = std::filesystem::absolute(image).string();
    std::array<const char*, 5> arguments{program.c_str(), "--disassemble", "--no-show-raw-insn", absolute.c_str(),
                                         nullptr};
    pid_t process = 0;
    const int error =
        posix_spawnp(&process, program.c_str(), &actions, nullptr, const_cast<char* const*>(arguments.data()), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    std::string text;
    if (error == 0) {
        text = ReadAll(ends[0]);
    }
    close(ends[0]);
    if (error != 0) {
        throw std::system_error(error, std::generic_category(), program);
    }
    int status = 0;
    while (waitpid(process, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        throw std::runtime_error(program + " failed");
    }
    return text;
}

// Lines of the form "140001000:     \tmovl\t0x1(%rip), %eax      # 0x1400101a8".
std::vector<Instruction> ParseDisassembly(std::string_view disassembly, std::uint64_t base)
{
    std::vector<Instruction> instructions;
    while (!disassembly.empty()) {
        const std::size_t lineEnd = std::min(disassembly.find('\n'), disassembly.size());
        std::string_view line = Trimmed(disassembly.substr(0, lineEnd));
        disassembly.remove_prefix(std::min(lineEnd + 1, disassembly.size()));
        std::uint64_t address = 0;
        const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), address, 16);
        if (error != std::errc() || end == line.data() + line.size() || *end != ':') {
            continue;
        }
        line.remove_prefix(static_cast<std::size_t>(end - line.data()) + 1);
        // ARM64 immediates are written with '#' too: only one after two blanks begins a comment.
        const std::size_t comment = std::min({line.find("  # "), line.find("  // "), line.size()});
        const std::string_view code = Trimmed(line.substr(0, comment));
        const std::size_t mnemonicEnd = std::min(code.find_first_of(kBlanks), code.size());
        instructions.push_back({.offset = address - base,
                                .mnemonic = std::string(code.substr(0, mnemonicEnd)),
                                .operands = std::string(Trimmed(code.substr(mnemonicEnd))),
                                .comment = std::string(line.substr(comment))});
    }
    return instructions;
}

}  // namespace image_check
