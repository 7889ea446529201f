#include "tools/image_check/disassembly.h"

#include <array>
#include <cerrno>
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

}  // namespace image_check
