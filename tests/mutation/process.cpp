#include "tests/mutation/process.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <stdexcept>

namespace mutation {
namespace {

std::string In(const std::string& folder, const std::string& line)
{
    return "cd " + ShellWord(folder) + " && " + line;
}

}  // namespace

std::string ShellWord(const std::string& word)
{
    std::string text = "'";
    for (const char c : word) {
        text += c == '\'' ? "'\\''" : std::string(1, c);
    }
    return text + "'";
}

bool Run(const std::string& folder, const std::string& line)
{
    std::string shell = "/bin/sh";
    std::string option = "-c";
    std::string whole = In(folder, line);
    const std::array<char*, 4> arguments = {shell.data(), option.data(), whole.data(), nullptr};
    pid_t child = 0;
    if (posix_spawn(&child, shell.c_str(), nullptr, nullptr, arguments.data(), environ) != 0) {
        throw std::runtime_error("no shell can be started");
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

std::string OutputOf(const std::string& folder, const std::string& line)
{
    std::FILE* pipe = popen(In(folder, line).c_str(), "r");
    if (pipe == nullptr) {
        throw std::runtime_error("no shell can be started");
    }
    std::string output;
    std::array<char, 1 << 16> part{};
    while (const std::size_t count = std::fread(part.data(), 1, part.size(), pipe)) {
        output.append(part.data(), count);
    }
    if (pclose(pipe) != 0) {
        throw std::runtime_error("failed: " + line);
    }
    return output;
}

}  // namespace mutation
