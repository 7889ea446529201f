// The watchdog: which processes it ends, and which it does not. Each case runs in a process of its own, whose exit
// status is the result. Where nothing may end the process, several limits pass first; where something must, the
// process ends by itself, with another status, only after a time that no machine is slow enough to need.
#include "host/checks/crash.h"
#include "host/checks/watchdog.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <ctime>
#include <functional>
#include <thread>

namespace tests {
namespace {

using host::checks::CrashContext;
using host::checks::Watchdog;
using std::chrono::milliseconds;

// What looking costs is a fraction of the limit that counts as waiting; under emulation it costs more.
#if defined(ZEPN_EMULATED)
constexpr milliseconds kLimit{800};
#else
constexpr milliseconds kLimit{200};
#endif
constexpr milliseconds kSeveralLimits = 3 * kLimit;
constexpr milliseconds kStep = kLimit / 10;
constexpr std::chrono::minutes kWithoutEnd{10};

std::chrono::nanoseconds ProcessorTime()
{
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

// Uses the processor for so long, and does something now and then.
void Work(milliseconds duration, const std::function<void()>& nowAndThen)
{
    const auto begin = ProcessorTime();
    for (auto next = begin; ProcessorTime() - begin < duration;) {
        if (ProcessorTime() >= next) {
            nowAndThen();
            next += kStep;
        }
    }
}

void Wait(milliseconds duration, const std::function<void()>& nowAndThen)
{
    for (milliseconds waited{0}; waited < duration; waited += kStep) {
        nowAndThen();
        std::this_thread::sleep_for(kStep);
    }
}

void DoNothing()
{
}

void WaitForAChildThatWorks()
{
    const pid_t child = fork();
    if (child == 0) {
        Wait(kSeveralLimits, DoNothing);
        _exit(0);
    }
    int status = 0;
    if (waitpid(child, &status, 0) != child || status != 0) {
        _exit(1);
    }
}

// Work that ends, under a watchdog; then the process does.
[[noreturn]] void EndAfter(const std::function<void()>& work)
{
    {
        const Watchdog watchdog(kLimit);
        const CrashContext context([] { return "the seventh sequence"; });
        work();
    }
    _exit(0);
}

TEST(Watchdogs, EndAProcessWithoutProgressAndSayWhatItWasDoing)
{
    const std::pair<std::function<void()>, const char*> kRows[] = {
        {[] { Work(kWithoutEnd, DoNothing); },
         "no progress: it uses the processor for 0[.][28] s\nthe seventh sequence\n"},
        {[] { Wait(kWithoutEnd, DoNothing); }, "no progress: it waits for 0[.][28] s\nthe seventh sequence\n"},
        {[] { Work(kSeveralLimits, &Watchdog::Progress), Work(kWithoutEnd, DoNothing); }, "it uses the processor"},
        // A child that has exited is none to wait for.
        {[] { WaitForAChildThatWorks(), Wait(kWithoutEnd, DoNothing); }, "it waits"},
    };
    for (const auto& [work, words] : kRows) {
        EXPECT_EXIT(EndAfter(work), testing::KilledBySignal(SIGALRM), words);
    }
}

TEST(Watchdogs, LeaveAProcessThatMakesProgressOrWaitsForItsChild)
{
    const std::function<void()> kRows[] = {
        [] { Work(kSeveralLimits, &Watchdog::Progress); }, [] { Wait(kSeveralLimits, &Watchdog::Progress); },
        [] { Work(kSeveralLimits, [] { const CrashContext more([] { return ""; }); }); },
        WaitForAChildThatWorks,  // it has a watchdog of its own, or ends by itself
    };
    for (const auto& work : kRows) {
        EXPECT_EXIT(EndAfter(work), testing::ExitedWithCode(0), "^$");
    }
}

TEST(Watchdogs, LeaveAProcessAfterTheirDestruction)
{
    EXPECT_EXIT(
        {
            {
                const Watchdog watchdog(kLimit);
            }
            Work(kSeveralLimits, DoNothing);
            _exit(0);
        },
        testing::ExitedWithCode(0), "^$");
}

}  // namespace
}  // namespace tests
