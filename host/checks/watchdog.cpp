// The handler looks ten times within the limit. It runs on whatever thread the signal meets, and does nothing that is
// not safe there until it has decided to end the process.
#include "host/checks/watchdog.h"

#include "host/checks/crash.h"

#include <sys/time.h>
#include <sys/wait.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <ctime>

namespace host::checks {
namespace {

constexpr unsigned kCrashContextSeconds = 30;
constexpr int kLooks = 10;
constexpr int kIdleShare = 50;  // less than a fiftieth of the time between two looks is no work: looking costs some

std::atomic<unsigned> g_progress{0};

// Of the one watchdog, in nanoseconds; the handler alone changes the last four.
std::int64_t g_limit = 0;
std::int64_t g_period = 0;
unsigned g_seen = 0;
std::int64_t g_usedAtProgress = 0;
std::int64_t g_usedAtLook = 0;
int g_idleLooks = 0;

std::int64_t ProcessorTime()
{
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

bool HasChild()
{
    siginfo_t information{};
    return waitid(P_ALL, 0, &information, WEXITED | WNOHANG | WNOWAIT) == 0;
}

[[noreturn]] void EndProcess(const char* how)
{
    constexpr double kNanosecondsPerSecond = 1e9;
    std::fprintf(stderr, "no progress: %s for %g s\n", how, static_cast<double>(g_limit) / kNanosecondsPerSecond);
    std::fflush(stderr);
    signal(SIGALRM, SIG_DFL);
    sigset_t alarms;
    sigemptyset(&alarms);
    sigaddset(&alarms, SIGALRM);
    pthread_sigmask(SIG_UNBLOCK, &alarms, nullptr);
    alarm(kCrashContextSeconds);  // should printing hang too
    PrintCrashContexts();
    std::fflush(stderr);
    raise(SIGALRM);
    _exit(kMemoryFaultExit);
}

void OnAlarm(int)
{
    const int error = errno;
    const std::int64_t used = ProcessorTime();
    const unsigned progress = g_progress.load(std::memory_order_relaxed);
    if (progress != g_seen) {
        g_seen = progress;
        g_usedAtProgress = used;
        g_idleLooks = 0;
    } else if (used - g_usedAtProgress >= g_limit) {
        EndProcess("it uses the processor");
    } else if (used - g_usedAtLook >= g_period / kIdleShare || HasChild()) {
        g_idleLooks = 0;
    } else if (++g_idleLooks >= kLooks) {
        EndProcess("it waits");
    }
    g_usedAtLook = used;
    errno = error;
}

void SetTimer(std::int64_t nanoseconds)
{
    itimerval timer{};
    timer.it_interval.tv_sec = static_cast<time_t>(nanoseconds / 1'000'000'000);
    timer.it_interval.tv_usec = static_cast<suseconds_t>(nanoseconds % 1'000'000'000 / 1000);
    timer.it_value = timer.it_interval;
    setitimer(ITIMER_REAL, &timer, nullptr);
}

}  // namespace

Watchdog::Watchdog(std::chrono::milliseconds limit)
{
    g_limit = std::chrono::nanoseconds(limit).count();
    g_period = std::max<std::int64_t>(g_limit / kLooks, 1'000'000);
    g_seen = g_progress.load(std::memory_order_relaxed);
    g_usedAtProgress = g_usedAtLook = ProcessorTime();
    g_idleLooks = 0;
    struct sigaction action{};
    action.sa_handler = OnAlarm;
    action.sa_flags = SA_RESTART | SA_ONSTACK;
    sigaction(SIGALRM, &action, nullptr);
    SetTimer(g_period);
}

Watchdog::~Watchdog()
{
    SetTimer(0);
    signal(SIGALRM, SIG_DFL);
}

void Watchdog::Progress()
{
    g_progress.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace host::checks
