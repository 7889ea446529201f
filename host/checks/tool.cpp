#include "host/checks/tool.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>

extern char** environ;

namespace host::checks {
namespace {

constexpr std::chrono::seconds kLimit{20};

// Both ends close with the object, or before.
class Pipe {
public:
    Pipe() : isOpen_(pipe2(ends_.data(), O_CLOEXEC) == 0) {}
    ~Pipe()
    {
        Close(0);
        Close(1);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    [[nodiscard]] bool IsOpen() const { return isOpen_; }
    [[nodiscard]] int reading() const { return ends_[0]; }
    [[nodiscard]] int writing() const { return ends_[1]; }
    void Close(unsigned end)
    {
        if (ends_[end] >= 0) {
            close(ends_[end]);
            ends_[end] = -1;
        }
    }

private:
    std::array<int, 2> ends_{-1, -1};
    bool isOpen_;
};

// All that comes until the end; false when the time is over first.
bool ReadAll(int descriptor, std::string& text)
{
    const auto deadline = std::chrono::steady_clock::now() + kLimit;
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
        pollfd ready{descriptor, POLLIN, 0};
        if (left <= 0 || poll(&ready, 1, static_cast<int>(left)) == 0) {
            return false;
        }
        std::array<char, 4096> buffer;
        const ssize_t count = read(descriptor, buffer.data(), buffer.size());
        if (count == 0) {
            return true;
        }
        if (count < 0 && errno != EINTR) {
            return false;
        }
        text.append(buffer.data(), count > 0 ? static_cast<std::size_t>(count) : 0);
    }
}

}  // namespace

std::optional<std::string> AskTool(const std::vector<std::string>& arguments, const std::string& input)
{
    Pipe in;
    Pipe out;
    if (!in.IsOpen() || !out.IsOpen() || write(in.writing(), input.data(), input.size()) < 0) {
        return std::nullopt;
    }
    in.Close(1);
    std::vector<char*> words;
    words.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments) {
        words.push_back(const_cast<char*>(argument.c_str()));
    }
    words.push_back(nullptr);
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_adddup2(&files, in.reading(), STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&files, out.writing(), STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&files, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t child = 0;
    const bool started = posix_spawnp(&child, words[0], &files, nullptr, words.data(), environ) == 0;
    posix_spawn_file_actions_destroy(&files);
    if (!started) {
        return std::nullopt;
    }
    out.Close(1);
    std::string text;
    const bool ended = ReadAll(out.reading(), text);
    if (!ended) {
        kill(child, SIGKILL);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    constexpr int kNotFound = 127;  // where the child itself finds out
    return ended && !(WIFEXITED(status) && WEXITSTATUS(status) == kNotFound) ? std::optional(text) : std::nullopt;
}

}  // namespace host::checks
