#include "host/framework/driver_threads.h"

#include "host/checks/crash.h"
#include "host/framework/framework.h"
#include "host/framework/spin_locks.h"
#include "host/framework/wait_locks.h"
#include "host/schedule/parking.h"
#include "host/schedule/yield.h"

#include <utility>

namespace host::framework {

using checks::Rule;

// While it stands, the thread that handed out this thread's work is known to wait for it. With the mutex.
class DriverThreads::Supervision {
public:
    Supervision(schedule::Waiting& waiting, std::uint64_t supervisor)
        : waiting_(waiting), self_(ThreadState::Current().id)
    {
        waiting_.BeginSupervision(supervisor, self_);
    }
    ~Supervision() { waiting_.EndSupervision(self_); }
    Supervision(const Supervision&) = delete;
    Supervision& operator=(const Supervision&) = delete;

private:
    schedule::Waiting& waiting_;
    const std::uint64_t self_;
};

DriverThreads::Held DriverThreads::HeldNow() const
{
    const ThreadState& thread = ThreadState::Current();
    Held held{thread.criticalRegions, thread.heldLocks, thread.irql, {}};
    if (held.level >= DISPATCH_LEVEL) {
        const std::lock_guard lock(framework_.mutex);
        held.spinLocks = SpinLocksHeld(framework_.handles);
        const std::vector<const void*> own = framework_.kernel.SpinLocksHeld(thread.id);
        held.spinLocks.insert(held.spinLocks.end(), own.begin(), own.end());
    }
    return held;
}

void DriverThreads::CheckHeld(const char* callbackName, const void* routine, const Held& before)
{
    ThreadState& thread = ThreadState::Current();
    if (thread.irql == before.level && before.level < DISPATCH_LEVEL &&
        thread.criticalRegions == before.criticalRegions && thread.heldLocks == before.waitLocks) {
        return;
    }
    std::vector<KeptLock> kept;
    {
        const std::lock_guard lock(framework_.mutex);
        if (thread.irql != before.level || before.level >= DISPATCH_LEVEL) {
            kept = AbandonSpinLocks(framework_.handles, before.spinLocks);
            for (const kernel::HeldSpinLock& own : framework_.kernel.AbandonSpinLocks(thread.id, before.spinLocks)) {
                kept.push_back({own.name, own.takenAt});
            }
            if (kept.empty() && thread.irql != before.level) {
                framework_.environment.ReportCallback(Rule::kIrql, callbackName,
                                                      "it was called at IRQL " + std::to_string(before.level) +
                                                          " and returned at " + std::to_string(thread.irql),
                                                      routine);
            }
        }
        const std::vector<KeptLock> waitLocks = AbandonWaitLocks(framework_.handles, before.waitLocks);
        kept.insert(kept.end(), waitLocks.begin(), waitLocks.end());
        NotifyWaiting();
    }
    if (!kept.empty()) {
        std::string names;
        std::vector<Made> origins;
        for (const KeptLock& each : kept) {
            names += (names.empty() ? "" : ", ") + each.name;
            origins.push_back({"acquired", {each.takenAt}});
        }
        framework_.environment.ReportCallback(Rule::kLockKept, callbackName, "it returned holding " + names, routine,
                                              origins);
    }
    thread.irql = before.level;
    thread.heldLocks = before.waitLocks;
    thread.criticalRegions = before.criticalRegions;
}

bool DriverThreads::WaitFor(std::unique_lock<std::mutex>& lock, const schedule::Wait& wait, const char* function,
                            const void* caller, const void* takenAt)
{
    const schedule::Wake wake = Block(lock, wait);
    if (wake == schedule::Wake::kSelf || wake == schedule::Wake::kNever) {
        ParkFor(lock, wait, wake, function, caller, takenAt);
    }
    return wake == schedule::Wake::kReady;
}

void DriverThreads::ParkFor(std::unique_lock<std::mutex>& lock, const schedule::Wait& wait, schedule::Wake wake,
                            const char* function, const void* caller, const void* takenAt)
{
    const bool self = wake == schedule::Wake::kSelf;
    const std::string subject = wait.subject();
    const std::string reason =
        "waits for " + subject + (self ? ", which it holds itself" : ": nobody can ever end this wait");
    lock.unlock();
    framework_.environment.ReportWait(self ? Rule::kSelfWait : Rule::kDeadlock, function,
                                      "thread " + ThreadState::Current().name + " " + reason, caller,
                                      subject + (self ? ", which this thread holds" : ""), takenAt);
    schedule::ParkThisThread(reason);
}

namespace {

// Gives a lock back for a scope, however that ends.
class Unlocked {
public:
    explicit Unlocked(std::unique_lock<std::mutex>& lock) : lock_(lock) { lock_.unlock(); }
    ~Unlocked() { lock_.lock(); }
    Unlocked(const Unlocked&) = delete;
    Unlocked& operator=(const Unlocked&) = delete;

private:
    std::unique_lock<std::mutex>& lock_;
};

}  // namespace

schedule::Outcome DriverThreads::RunEach(const std::string& name, const std::function<std::optional<Work>()>& next)
{
    checks::CatchMemoryFaults();
    const std::uint64_t supervisor = ThreadState::Current().id;
    const schedule::Outcome outcome = threads_.Run(name, [&, this] {
        std::unique_lock lock(framework_.mutex);
        const Supervision supervision(waiting_, supervisor);
        while (const std::optional<Work> work = next()) {
            {
                const Unlocked unlocked(lock);
                schedule::YieldPoint(schedule::YieldKind::kThreadBegins, work->what);
                Guarded(work->what, work->routine, work->call);
            }
            if (work->end) {
                work->end(lock);
            }
            schedule::YieldPoint(schedule::YieldKind::kThreadEnds, work->what);  // after all that may call the driver
        }
    });
    if (outcome.parked) {
        const std::lock_guard lock(framework_.mutex);
        NotifyWaiting();  // whoever waits for the parked thread looks again
    }
    return outcome;
}

schedule::Outcome DriverThreads::RunOnThread(const std::string& name, const char* what, const void* routine,
                                             const std::function<void()>& work)
{
    bool isTaken = false;
    return RunEach(name, [&]() -> std::optional<Work> {
        if (std::exchange(isTaken, true)) {
            return std::nullopt;
        }
        return Work{what, routine, work, nullptr};
    });
}

}  // namespace host::framework
