// The interrupt request level of the calling thread, and the spin locks that raise it. The host waits where a real
// processor would spin, and knows the holder.
#include "host/framework/framework.h"

#include <algorithm>
#include <utility>

using host::PlatformCall;
using host::ThreadState;
using host::checks::Rule;
using host::framework::Framework;
using host::kernel::HeldSpinLock;

#define HOST_EXPORT extern "C" __attribute__((visibility("default"), used))

namespace {

using HeldSpinLocks = std::map<const KSPIN_LOCK*, HeldSpinLock>;

void Acquire(const PlatformCall& call, KSPIN_LOCK* spinLock, KIRQL level)
{
    Framework& framework = Framework::Current();
    ThreadState& thread = ThreadState::Current();
    HeldSpinLocks& held = framework.kernel.heldSpinLocks;
    std::unique_lock lock(framework.mutex);
    if (const auto found = held.find(spinLock); found != held.end()) {
        const auto holder = [&] {
            const auto now = held.find(spinLock);
            return now == held.end()       ? std::vector<host::schedule::ThreadId>()
                   : now->second.abandoned ? std::vector{host::schedule::kNobody}
                                           : std::vector{now->second.holderId};
        };
        const bool own = found->second.holderId == thread.id;
        (void)framework.threads.WaitFor(
            lock,
            {.subject = [text = found->second.name +
                                (own ? "" : ", held by " + found->second.holderName)] { return text; },
             .isReady = [&] { return !held.contains(spinLock); },
             .heldBy = holder},
            call.function(), call.caller(), found->second.takenAt);
    } else if (*spinLock != 0) {
        call.Violation(Rule::kBadParameter, "the spin lock was not initialized by KeInitializeSpinLock");
    }
    held[spinLock] = {.name = "the spin lock that " + framework.environment.modules.Describe(call.caller()) + " took",
                      .holderId = thread.id,
                      .holderName = thread.name,
                      .takenAt = call.caller(),
                      .level = level};
    *spinLock = thread.id;
    thread.irql = level;
    host::schedule::Acquire(spinLock);
}

bool HoldsAny(const HeldSpinLocks& held, std::uint64_t thread)
{
    return std::ranges::any_of(held, [&](const auto& entry) { return entry.second.holderId == thread; });
}

void Release(const PlatformCall& call, KSPIN_LOCK* spinLock, KIRQL levelAfter)
{
    Framework& framework = Framework::Current();
    ThreadState& thread = ThreadState::Current();
    HeldSpinLocks& held = framework.kernel.heldSpinLocks;
    const std::lock_guard lock(framework.mutex);
    const auto found = held.find(spinLock);
    if (found == held.end() || found->second.holderId != thread.id) {
        call.Violation(Rule::kLockNotOwned, found == held.end()
                                                ? "the spin lock is released, but nobody holds it"
                                                : found->second.name + " is held by " + found->second.holderName +
                                                      " and released by " + thread.name);
        return;
    }
    if (thread.irql < found->second.level) {
        call.Violation(Rule::kIrql, "called at IRQL " + std::to_string(thread.irql) + ", but the lock was taken at " +
                                        std::to_string(found->second.level));
    }
    host::schedule::Release(spinLock);
    held.erase(found);
    *spinLock = 0;
    if (levelAfter < DISPATCH_LEVEL && HoldsAny(held, thread.id)) {
        call.Violation(Rule::kIrql, "the level goes down to " + std::to_string(levelAfter) +
                                        " while the thread holds another spin lock");
    }
    thread.irql = levelAfter;
    framework.threads.NotifyWaiting();
}

}  // namespace

HOST_EXPORT KIRQL NTAPI KeGetCurrentIrql()
{
    const PlatformCall call("KeGetCurrentIrql", HOST_CALLER, HIGH_LEVEL);
    return ThreadState::Current().irql;
}

HOST_EXPORT KIRQL NTAPI KfRaiseIrql(KIRQL level)
{
    const PlatformCall call("KfRaiseIrql", HOST_CALLER, HIGH_LEVEL);
    ThreadState& thread = ThreadState::Current();
    if (level < thread.irql) {
        call.Violation(Rule::kIrql, "raises the level from " + std::to_string(thread.irql) + " to " +
                                        std::to_string(level) + ", which is lower");
    }
    return std::exchange(thread.irql, level);
}

HOST_EXPORT VOID NTAPI KeLowerIrql(KIRQL level)
{
    const PlatformCall call("KeLowerIrql", HOST_CALLER, HIGH_LEVEL);
    ThreadState& thread = ThreadState::Current();
    if (level > thread.irql) {
        call.Violation(Rule::kIrql, "lowers the level from " + std::to_string(thread.irql) + " to " +
                                        std::to_string(level) + ", which is higher");
    }
    thread.irql = level;
}

HOST_EXPORT KIRQL NTAPI KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK spinLock)
{
    const PlatformCall call("KeAcquireSpinLock", HOST_CALLER, DISPATCH_LEVEL);
    const KIRQL before = ThreadState::Current().irql;
    Acquire(call, spinLock, DISPATCH_LEVEL);
    return before;
}

HOST_EXPORT VOID NTAPI KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK spinLock)
{
    const PlatformCall call("KeAcquireSpinLockAtDpcLevel", HOST_CALLER, HIGH_LEVEL);
    const KIRQL level = ThreadState::Current().irql;
    if (level < DISPATCH_LEVEL) {
        call.Violation(Rule::kIrql, "called at IRQL " + std::to_string(level) + ", allowed from " +
                                        std::to_string(DISPATCH_LEVEL) + " on");
    }
    Acquire(call, spinLock, level);
}

HOST_EXPORT VOID NTAPI KeReleaseSpinLock(PKSPIN_LOCK spinLock, KIRQL level)
{
    const PlatformCall call("KeReleaseSpinLock", HOST_CALLER, DISPATCH_LEVEL);
    Release(call, spinLock, level);
}

HOST_EXPORT VOID NTAPI KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK spinLock)
{
    const PlatformCall call("KeReleaseSpinLockFromDpcLevel", HOST_CALLER, HIGH_LEVEL);
    Release(call, spinLock, ThreadState::Current().irql);
}
