// Wait locks: an auto-reset event each, not recursive, owned by nobody as far as the real framework knows. The host
// knows the holder, so that a wait that can never end is found instead of hung on, and the order in which locks are
// taken, so that two threads need not meet for a wrong order to show.
#include "host/framework/functions.h"
#include "host/schedule/parking.h"
#include "host/schedule/yield.h"

#include <algorithm>
#include <set>

namespace host::framework {

using checks::Rule;

namespace {

std::vector<WDFOBJECT>& HeldLocks()
{
    return ThreadState::Current().heldLocks;
}

// While it stands, the thread that handed out this thread's work is known to wait for it.
class Supervision {
public:
    Supervision(Framework& framework, std::uint64_t supervisor)
        : framework_(framework), self_(ThreadState::Current().id)
    {
        const std::lock_guard lock(framework_.mutex);
        framework_.waiting.BeginSupervision(supervisor, self_);
    }
    ~Supervision()
    {
        const std::lock_guard lock(framework_.mutex);
        framework_.waiting.EndSupervision(self_);
    }
    Supervision(const Supervision&) = delete;
    Supervision& operator=(const Supervision&) = delete;

private:
    Framework& framework_;
    const std::uint64_t self_;
};

void Forget(WDFOBJECT lock)
{
    std::vector<WDFOBJECT>& locks = HeldLocks();
    const auto newest = std::find(locks.rbegin(), locks.rend(), lock);
    if (newest != locks.rend()) {
        locks.erase(std::next(newest).base());
    }
}

}  // namespace

Framework::Regions Framework::RegionsNow()
{
    return {ThreadState::Current().criticalRegions, HeldLocks()};
}

void Framework::CheckRegions(const char* callbackName, const void* routine, const Regions& before)
{
    ThreadState& thread = ThreadState::Current();
    std::vector<WDFOBJECT>& locks = HeldLocks();
    if (thread.criticalRegions == before.count && locks == before.locks) {
        return;
    }
    std::string kept;
    {
        const std::lock_guard lock(mutex);
        for (const WDFOBJECT handle : locks) {
            if (std::find(before.locks.begin(), before.locks.end(), handle) != before.locks.end()) {
                continue;
            }
            auto* waitLock = static_cast<WaitLockObject*>(handles.Peek(handle));
            if (waitLock != nullptr && waitLock->held && waitLock->holderId == thread.id) {
                waitLock->abandoned = true;
                kept += (kept.empty() ? "" : ", ") + Describe(*waitLock);
            }
        }
        waiting.NotifyAll();
    }
    if (!kept.empty()) {
        environment.Report(Rule::kLockKept, callbackName, "it returned holding " + kept, routine);
    }
    locks = before.locks;
    thread.criticalRegions = before.count;
}

void Framework::CheckLockOrder(const PlatformCall& call, const WaitLockObject& wanted)
{
    for (const WDFOBJECT held : HeldLocks()) {
        if (held == wanted.handle) {
            continue;
        }
        const auto* ranked = static_cast<const WaitLockObject*>(handles.Peek(held));
        if (ranked != nullptr && ranked->rank != 0 && wanted.rank != 0) {
            if (ranked->rank >= wanted.rank) {
                call.Violation(Rule::kLockOrder, Describe(wanted) + " of rank " + std::to_string(wanted.rank) +
                                                     " is taken while " + Describe(*ranked) + " of rank " +
                                                     std::to_string(ranked->rank) + " is held");
            }
            continue;
        }
        if (lockOrders[held].contains(wanted.handle)) {
            continue;
        }
        // Does a chain of earlier orders lead from the wanted lock to the held one?
        std::set<WDFOBJECT> reached;
        std::vector<WDFOBJECT> open{wanted.handle};
        while (!open.empty() && !reached.contains(held)) {
            const WDFOBJECT from = open.back();
            open.pop_back();
            if (reached.insert(from).second) {
                for (const auto& [to, where] : lockOrders[from]) {
                    open.push_back(to);
                }
            }
        }
        lockOrders[held][wanted.handle] = call.caller();
        const Object* heldLock = handles.Peek(held);
        if (reached.contains(held) && heldLock != nullptr) {
            call.Violation(Rule::kLockOrder, Describe(wanted) + " is taken while " + Describe(*heldLock) +
                                                 " is held; elsewhere they are taken the other way round");
        }
    }
}

bool Framework::WaitFor(std::unique_lock<std::mutex>& lock, const schedule::Wait& wait, const char* function,
                        const void* caller)
{
    const schedule::Wake wake = waiting.Block(lock, wait);
    if (wake == schedule::Wake::kSelf || wake == schedule::Wake::kNever) {
        ParkFor(lock, wait, wake, function, caller);
    }
    return wake == schedule::Wake::kReady;
}

void Framework::ParkFor(std::unique_lock<std::mutex>& lock, const schedule::Wait& wait, schedule::Wake wake,
                        const char* function, const void* caller)
{
    const bool self = wake == schedule::Wake::kSelf;
    const std::string reason =
        "waits for " + wait.subject + (self ? ", which it holds itself" : ": nobody can ever end this wait");
    lock.unlock();
    environment.Report(self ? Rule::kSelfWait : Rule::kDeadlock, function,
                       "thread " + ThreadState::Current().name + " " + reason, caller);
    schedule::ParkThisThread(reason);
}

schedule::Outcome Framework::RunOnThread(const std::string& name, const char* what, const void* routine,
                                         const std::function<void()>& work)
{
    const std::uint64_t supervisor = ThreadState::Current().id;
    const schedule::Outcome outcome = threads.Run(name, [&, this] {
        const Supervision supervision(*this, supervisor);
        schedule::YieldPoint(schedule::YieldKind::kThreadBegins, what);
        Guarded(what, routine, work);
        schedule::YieldPoint(schedule::YieldKind::kThreadEnds, what);
    });
    if (outcome.parked) {
        const std::lock_guard lock(mutex);
        waiting.NotifyAll();  // whoever waits for the parked thread looks again
    }
    return outcome;
}

namespace functions {

NTSTATUS NTAPI WaitLockCreate(PWDF_DRIVER_GLOBALS globals, PWDF_OBJECT_ATTRIBUTES attributes, WDFWAITLOCK* waitLock)
{
    const PlatformCall call("WdfWaitLockCreate", HOST_CALLER, DISPATCH_LEVEL);
    ClearOnEntry(waitLock);
    return Create<WaitLockObject>(call, globals, attributes, waitLock, "Lock");
}

namespace {

std::string Subject(const WaitLockObject& waitLock)
{
    std::string text = Framework::Describe(waitLock);
    if (waitLock.abandoned) {
        text += ", which " + waitLock.holderName + " kept when its callback returned";
    } else if (waitLock.holderId != ThreadState::Current().id) {
        text += ", held by " + waitLock.holderName;
    }
    return text;
}

// False when the time is over, or when the lock itself went away.
bool WaitUntilFree(Framework& framework, std::unique_lock<std::mutex>& lock, const PlatformCall& call,
                   WaitLockObject& waitLock, const LONGLONG* timeout)
{
    constexpr std::int64_t kNanosecondsPerUnit = 100;
    schedule::Wait wait{
        .subject = Subject(waitLock),
        .isReady = [&] { return !waitLock.held; },
        .heldBy = [&] { return std::vector{waitLock.abandoned ? schedule::kNobody : waitLock.holderId}; },
    };
    if (timeout != nullptr) {
        // Absolute times lie in the past of a machine that has just begun.
        const std::int64_t units = *timeout < 0 ? -*timeout : 0;
        wait.deadline = std::chrono::steady_clock::now() + std::chrono::nanoseconds(units * kNanosecondsPerUnit);
    }
    framework.Reference(waitLock);  // whoever deletes it meanwhile shall not pull it from under us
    const schedule::Wake wake = framework.waiting.Block(lock, wait);
    const bool isLast = waitLock.references == 1;
    if (isLast) {
        call.Violation(Rule::kDeadHandle, Framework::Describe(waitLock) + " went while a thread waited for it");
    }
    framework.Dereference(lock, waitLock);
    if (wake == schedule::Wake::kSelf || wake == schedule::Wake::kNever) {
        framework.ParkFor(lock, wait, wake, call.function(), call.caller());
    }
    return wake == schedule::Wake::kReady && !isLast;
}

}  // namespace

NTSTATUS NTAPI WaitLockAcquire(PWDF_DRIVER_GLOBALS, WDFWAITLOCK handle, PLONGLONG timeout)
{
    const bool onlyTries = timeout != nullptr && *timeout == 0;
    const PlatformCall call("WdfWaitLockAcquire", HOST_CALLER, onlyTries ? DISPATCH_LEVEL : PASSIVE_LEVEL);
    if (call.fault()) {
        return call.fault()->status;
    }
    Framework& framework = Framework::Current();
    ThreadState& thread = ThreadState::Current();
    std::unique_lock lock(framework.mutex);
    auto* waitLock = framework.Resolve<WaitLockObject>(call, handle, "Lock");
    if (waitLock == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (!onlyTries && thread.irql > PASSIVE_LEVEL) {
        return STATUS_INVALID_DEVICE_REQUEST;  // reported above; waiting here would hang a processor
    }
    if (timeout == nullptr) {
        framework.CheckLockOrder(call, *waitLock);
    }
    if (waitLock->held && (onlyTries || !WaitUntilFree(framework, lock, call, *waitLock, timeout))) {
        return STATUS_TIMEOUT;
    }
    waitLock->held = true;
    waitLock->abandoned = false;
    waitLock->holderId = thread.id;
    waitLock->holderName = thread.name;
    ++thread.criticalRegions;
    HeldLocks().push_back(waitLock->handle);
    schedule::Acquire(waitLock);
    return STATUS_SUCCESS;
}

void NTAPI WaitLockRelease(PWDF_DRIVER_GLOBALS, WDFWAITLOCK handle)
{
    const PlatformCall call("WdfWaitLockRelease", HOST_CALLER, DISPATCH_LEVEL);
    Framework& framework = Framework::Current();
    ThreadState& thread = ThreadState::Current();
    const std::lock_guard lock(framework.mutex);
    auto* waitLock = framework.Resolve<WaitLockObject>(call, handle, "Lock");
    if (waitLock == nullptr) {
        return;
    }
    const bool robbed = waitLock->robbedId == thread.id;  // a stranger gave it back for this thread: reported then
    const bool owned = waitLock->held && waitLock->holderId == thread.id;
    if (!waitLock->held && !robbed) {
        call.Violation(Rule::kLockNotOwned, Framework::Describe(*waitLock) + " is released, but nobody holds it");
        return;
    }
    if (waitLock->held && !owned) {
        call.Violation(Rule::kLockNotOwned, Framework::Describe(*waitLock) + " is held by " + waitLock->holderName +
                                                " and released by " + thread.name);
        waitLock->robbedId = waitLock->holderId;
    }
    if (owned || robbed) {
        --thread.criticalRegions;
        Forget(waitLock->handle);
    }
    if (robbed) {
        waitLock->robbedId = 0;
    }
    schedule::Release(waitLock);
    waitLock->held = false;
    waitLock->abandoned = false;
    waitLock->holderId = 0;
    framework.waiting.NotifyAll();
}

}  // namespace functions
}  // namespace host::framework
