#include "host/checks/child_process.h"

#include "host/checks/watchdog.h"
#include "host/environment.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <optional>
#include <sstream>

namespace host::checks {
namespace {

constexpr char kDone = '+';
constexpr char kThrew = '-';

// Text that one process leaves for another: no pipe, whose reader would have to keep up.
class MemoryFile {
public:
    MemoryFile() : descriptor_(memfd_create("result", MFD_CLOEXEC))
    {
        if (descriptor_ < 0) {
            throw HostError(std::string("no memory for a process of its own: ") + std::strerror(errno));
        }
    }
    ~MemoryFile() { close(descriptor_); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    void Write(const std::string& text) const
    {
        for (std::size_t done = 0; done < text.size();) {
            const ssize_t written = write(descriptor_, text.data() + done, text.size() - done);
            if (written <= 0) {
                return;
            }
            done += static_cast<std::size_t>(written);
        }
    }

    [[nodiscard]] std::string Read() const
    {
        std::string text;
        char part[4096];
        for (;;) {
            const ssize_t count = pread(descriptor_, part, sizeof(part), static_cast<off_t>(text.size()));
            if (count <= 0) {
                return text;
            }
            text.append(part, static_cast<std::size_t>(count));
        }
    }

    // What this process prints on stderr comes here.
    void TakeStandardError() const { dup2(descriptor_, STDERR_FILENO); }

private:
    int descriptor_;
};

[[noreturn]] void Child(const std::function<std::string()>& work, const MemoryFile& result, const MemoryFile& printed)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    printed.TakeStandardError();
    try {
        result.Write(kDone + work());
    } catch (const std::exception& error) {
        result.Write(kThrew + std::string(error.what()));
    }
    SetWatchdog(0);
    std::exit(0);  // sanitizers look for leaks
}

std::string Failure(int status, const std::string& printed)
{
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
        return "";
    }
    std::string text;
    if (WIFEXITED(status)) {
        text = "the process ended with status " + std::to_string(WEXITSTATUS(status)) + "\n";
    } else if (WTERMSIG(status) == SIGALRM) {
        text = "it does not end\n";
    } else {
        text = std::string("the process was ended by a signal: ") + strsignal(WTERMSIG(status)) + "\n";
    }
    std::istringstream lines(printed);
    for (std::string line; std::getline(lines, line);) {
        text += "  " + line + "\n";
    }
    return text;
}

}  // namespace

ChildResult RunInChild(const std::function<std::string()>& work)
{
    const MemoryFile result;
    const MemoryFile printed;
    // Else both would print it.
    std::cout.flush();
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child < 0) {
        throw HostError(std::string("no process of its own: ") + std::strerror(errno));
    }
    if (child == 0) {
        Child(work, result, printed);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    ChildResult ending{.result = result.Read(),
                       .failure = {},
                       .isEndless = WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM,
                       .printed = printed.Read()};
    ending.failure = Failure(status, ending.printed);
    const char how = ending.result.empty() ? kDone : ending.result.front();
    ending.result.erase(0, 1);
    if (how == kThrew && ending.failure.empty()) {
        throw HostError(ending.result);
    }
    return ending;
}

void SetWatchdog(double seconds)
{
    static std::optional<Watchdog> watchdog;
    static double limit = 0;
    Watchdog::Progress();
    if (seconds == limit) {
        return;
    }
    watchdog.reset();
    limit = seconds;
    if (seconds != 0) {
        constexpr double kMillisecondsPerSecond = 1000;
        watchdog.emplace(std::chrono::milliseconds(static_cast<long>(seconds * kMillisecondsPerSecond)));
    }
}

}  // namespace host::checks
