#include "host/framework/wait_locks.h"

#include "host/armed.h"
#include "host/framework/functions.h"

#include <algorithm>

namespace host::framework {

using checks::Rule;

namespace {

// Tells the processor that a loop waits for another one.
void SpinHint()
{
#if defined(__x86_64__)
    __builtin_ia32_pause();
#else
    __asm__ volatile("yield");
#endif
}

std::vector<WDFOBJECT>& HeldLocks()
{
    return ThreadState::Current().heldLocks;
}

void Forget(WDFOBJECT lock)
{
    std::vector<WDFOBJECT>& locks = HeldLocks();
    const auto newest = std::find(locks.rbegin(), locks.rend(), lock);
    if (newest != locks.rend()) {
        locks.erase(std::next(newest).base());
    }
}

}  // namespace

std::vector<KeptLock> AbandonWaitLocks(const HandleTable& handles, const std::vector<WDFOBJECT>& before)
{
    const ThreadState& thread = ThreadState::Current();
    std::vector<KeptLock> kept;
    for (const WDFOBJECT handle : thread.heldLocks) {
        if (std::find(before.begin(), before.end(), handle) != before.end()) {
            continue;
        }
        auto* waitLock = static_cast<WaitLockObject*>(handles.Peek(handle));
        if (waitLock != nullptr && waitLock->Holder() == thread.id) {
            waitLock->abandoned = true;
            waitLock->abandonedBy = thread.name;
            kept.push_back({Describe(*waitLock), waitLock->slot->takenAt.load(std::memory_order_relaxed)});
        }
    }
    return kept;
}

void WaitLockObject::OnFree(Framework& framework)
{
    framework.lockOrder.Forget(handle);
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
    std::string text = Describe(waitLock);
    const std::uint64_t holder = waitLock.Holder();
    if (waitLock.abandoned) {
        text += ", which " + waitLock.abandonedBy + " kept when its callback returned";
    } else if (holder != 0 && holder != ThreadState::Current().id) {
        text += ", held by " + ThreadState::NameOf(holder);
    }
    return text;
}

// False when the time is over, or when the lock itself went away.
bool WaitUntilFree(Framework& framework, std::unique_lock<std::mutex>& lock, const PlatformCall& call,
                   WaitLockObject& waitLock, std::optional<std::chrono::steady_clock::time_point> deadline)
{
    std::string subject;
    const schedule::Wait wait{
        .subject = [&] { return subject; },
        .isReady = [&] { return waitLock.Holder() == 0; },
        // It may be given back between two looks, without the mutex.
        .heldBy =
            [&] {
                const std::uint64_t holder = waitLock.Holder();
                return waitLock.abandoned ? std::vector{schedule::kNobody}
                       : holder == 0      ? std::vector<schedule::ThreadId>()
                                          : std::vector{holder};
            },
        .deadline = deadline,
    };
    ObjectTree::Reference(waitLock);  // whoever deletes it meanwhile shall not pull it from under us
    Slot& slot = *waitLock.slot;
    ++slot.waiting;  // before the holder is looked at: who gives it back looks here afterwards
    const schedule::Wake wake = framework.threads.Block(lock, wait);
    --slot.waiting;
    const bool isForEver = wake == schedule::Wake::kSelf || wake == schedule::Wake::kNever;
    if (isForEver) {
        subject = Subject(waitLock);
    }
    const void* const takenAt = slot.takenAt.load(std::memory_order_relaxed);
    const bool isLast = waitLock.References() == 1;
    if (isLast) {
        call.Violation(Rule::kDeadHandle, Describe(waitLock) + " went while a thread waited for it");
    }
    framework.objects.Dereference(lock, waitLock);
    if (isForEver) {
        framework.threads.ParkFor(lock, wait, wake, call.function(), call.caller(), takenAt);
    }
    return wake == schedule::Wake::kReady && !isLast;
}

std::optional<std::chrono::steady_clock::time_point> DeadlineOf(const LONGLONG* timeout)
{
    if (timeout == nullptr) {
        return std::nullopt;
    }
    constexpr std::int64_t kNanosecondsPerUnit = 100;
    // Absolute times lie in the past of a machine that has just begun.
    const std::int64_t units = *timeout < 0 ? -*timeout : 0;
    return std::chrono::steady_clock::now() + std::chrono::nanoseconds(units * kNanosecondsPerUnit);
}

[[gnu::noinline]] NTSTATUS NTAPI AcquireChecked(PWDF_DRIVER_GLOBALS, WDFWAITLOCK handle, PLONGLONG timeout)
{
    const bool onlyTries = timeout != nullptr && *timeout == 0;
    const PlatformCall call("WdfWaitLockAcquire", HOST_CALLER, onlyTries ? DISPATCH_LEVEL : PASSIVE_LEVEL,
                            timeout != nullptr ? "timeout" : "");
    if (call.fault()) {
        return call.fault()->status;
    }
    Framework& framework = Framework::Current();
    ThreadState& thread = ThreadState::Current();
    std::unique_lock lock(framework.mutex);
    auto* waitLock = framework.objects.Resolve<WaitLockObject>(call, handle, "Lock");
    if (waitLock == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (!onlyTries && thread.irql > PASSIVE_LEVEL) {
        return STATUS_INVALID_DEVICE_REQUEST;  // reported above; waiting here would hang a processor
    }
    if (timeout == nullptr) {
        framework.lockOrder.Check(call, *waitLock, HeldLocks());
    }
    const auto deadline = DeadlineOf(timeout);
    for (std::uint64_t nobody = 0; !waitLock->slot->owner.compare_exchange_strong(nobody, thread.id); nobody = 0) {
        if (onlyTries || !WaitUntilFree(framework, lock, call, *waitLock, deadline)) {
            return STATUS_TIMEOUT;
        }
    }
    waitLock->abandoned = false;
    waitLock->slot->takenAt.store(call.caller(), std::memory_order_relaxed);
    ++thread.criticalRegions;
    HeldLocks().push_back(waitLock->handle);
    schedule::Acquire(waitLock);
    return STATUS_SUCCESS;
}

[[gnu::noinline]] void NTAPI ReleaseChecked(PWDF_DRIVER_GLOBALS, WDFWAITLOCK handle)
{
    const PlatformCall call("WdfWaitLockRelease", HOST_CALLER, DISPATCH_LEVEL);
    Framework& framework = Framework::Current();
    ThreadState& thread = ThreadState::Current();
    const std::lock_guard lock(framework.mutex);
    auto* waitLock = framework.objects.Resolve<WaitLockObject>(call, handle, "Lock");
    if (waitLock == nullptr) {
        return;
    }
    const std::uint64_t holder = waitLock->Holder();
    const bool robbed = waitLock->robbedId == thread.id;  // a stranger gave it back for this thread: reported then
    const bool owned = holder == thread.id;
    if (holder == 0 && !robbed) {
        call.Violation(Rule::kLockNotOwned, Describe(*waitLock) + " is released, but nobody holds it");
        return;
    }
    if (holder != 0 && !owned) {
        call.Violation(Rule::kLockNotOwned,
                       Describe(*waitLock) + " is held by " +
                           (waitLock->abandoned ? waitLock->abandonedBy : ThreadState::NameOf(holder)) +
                           " and released by " + thread.name,
                       {{"acquired", {waitLock->slot->takenAt.load(std::memory_order_relaxed)}}});
        waitLock->robbedId = holder;
        Arm(kArmedStrangers, true);
    }
    if (owned || robbed) {
        --thread.criticalRegions;
        Forget(waitLock->handle);
    }
    if (robbed) {
        waitLock->robbedId = 0;
    }
    schedule::Release(waitLock);
    waitLock->abandoned = false;
    waitLock->slot->owner.store(0);
    framework.threads.NotifyWaiting();
}

// The wait lock of a handle, for calls that nothing needs to look at; null for any other.
WaitLockObject* WaitLockAtOnce(const Slot* slot)
{
    return slot == nullptr || slot->type != ObjectType::kWaitLock
               ? nullptr
               : static_cast<WaitLockObject*>(slot->object.load(std::memory_order_acquire));
}

// With the signature of the call at whose end it stands.
[[gnu::noinline]] void NTAPI WakeWaiting(PWDF_DRIVER_GLOBALS, WDFWAITLOCK)
{
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    framework.threads.NotifyWaiting();
}

// A free lock is taken at once when its order to the locks held is known to be right. Inlined, so that who calls it
// calls nothing and saves no vector registers.
[[gnu::always_inline]] inline bool AcquireAtOnce(ThreadState& thread, WDFWAITLOCK handle, Slot* slot,
                                                 const LONGLONG* timeout, const char* caller)
{
    WaitLockObject* waitLock = WaitLockAtOnce(slot);
    std::uint64_t nobody = 0;
    if (waitLock == nullptr ||
        (timeout == nullptr &&
         !std::ranges::all_of(thread.heldLocks,
                              [&](WDFOBJECT held) { return LockOrder::IsLookedAt(*waitLock, held); })) ||
        !slot->owner.compare_exchange_strong(nobody, thread.id)) {
        return false;
    }
    std::vector<WDFOBJECT>& locks = thread.heldLocks;
    const bool hasRoom = locks.data() + locks.size() != locks.data() + locks.capacity();  // else memory is taken
    if (slot->object.load(std::memory_order_relaxed) != waitLock || !hasRoom) {
        slot->owner.store(0);
        return false;
    }
    locks.push_back(handle);
    slot->takenAt.store(caller, std::memory_order_relaxed);
    ++thread.criticalRegions;
    return true;
}

// Most locks are given back in less time than it takes to sleep and be woken, so a lock that another thread holds is
// looked at for a while first, and less and less often: who takes it several times in a row is not held up by looks.
[[gnu::noinline]] NTSTATUS NTAPI AcquireSoon(PWDF_DRIVER_GLOBALS globals, WDFWAITLOCK handle, PLONGLONG timeout)
{
    constexpr unsigned kPauses = 2000;
    constexpr unsigned kPausesAtOnce = 128;
    Slot* slot = HandleTable::Current().Find(handle);
    if (!IsAnythingArmed() && ThreadState::IsAtMost(PASSIVE_LEVEL) && WaitLockAtOnce(slot) != nullptr) {
        ThreadState& thread = *ThreadState::Known();
        unsigned atOnce = 1;
        for (unsigned pauses = 0; pauses < kPauses; pauses += atOnce, atOnce = std::min(atOnce * 2, kPausesAtOnce)) {
            const std::uint64_t holder = slot->owner.load(std::memory_order_relaxed);
            if (holder == 0 && AcquireAtOnce(thread, handle, slot, timeout, HOST_CALLER)) {
                return STATUS_SUCCESS;
            }
            // Free, but not to be had at once; or this thread's own: looking again changes nothing.
            if (holder == 0 || holder == thread.id) {
                break;
            }
            for (unsigned pause = 0; pause < atOnce; ++pause) {
                SpinHint();
            }
        }
    }
    [[clang::musttail]] return AcquireChecked(globals, handle, timeout);
}

}  // namespace

NTSTATUS NTAPI WaitLockAcquire(PWDF_DRIVER_GLOBALS globals, WDFWAITLOCK handle, PLONGLONG timeout)
{
    if (!IsAnythingArmed() && ThreadState::IsAtMost(PASSIVE_LEVEL) &&
        AcquireAtOnce(*ThreadState::Known(), handle, HandleTable::Current().Find(handle), timeout, HOST_CALLER)) {
        return STATUS_SUCCESS;
    }
    [[clang::musttail]] return AcquireSoon(globals, handle, timeout);
}

void NTAPI WaitLockRelease(PWDF_DRIVER_GLOBALS globals, WDFWAITLOCK handle)
{
    if (!IsAnythingArmed() && ThreadState::IsAtMost(APC_LEVEL)) {
        ThreadState& thread = *ThreadState::Known();
        Slot* slot = HandleTable::Current().Find(handle);
        if (WaitLockAtOnce(slot) != nullptr && slot->owner.load(std::memory_order_relaxed) == thread.id &&
            !thread.heldLocks.empty() && thread.heldLocks.back() == handle) {
            thread.heldLocks.pop_back();
            --thread.criticalRegions;
            slot->owner.exchange(0);
            if (slot->waiting.load() != 0) {
                [[clang::musttail]] return WakeWaiting(globals, handle);
            }
            return;
        }
    }
    [[clang::musttail]] return ReleaseChecked(globals, handle);
}

}  // namespace functions
}  // namespace host::framework
