// Spin locks. Who holds one runs at DISPATCH_LEVEL, so each platform function that it calls meanwhile says whether it may
// be called there. The host waits where a real processor would spin, and knows the holder.
#include "host/framework/functions.h"

namespace host::framework {

using checks::Rule;

std::string Framework::TakeKeptSpinLocks(KIRQL levelBefore)
{
    ThreadState& thread = ThreadState::Current();
    if (thread.irql == levelBefore) {
        return {};
    }
    std::string kept;
    const std::lock_guard lock(mutex);
    handles.ForEach([&](Object& object) {
        if (object.type != ObjectType::kSpinLock) {
            return;
        }
        auto& spinLock = static_cast<SpinLockObject&>(object);
        if (spinLock.held && spinLock.holderId == thread.id) {
            spinLock.abandoned = true;
            kept += (kept.empty() ? "" : ", ") + Describe(spinLock);
        }
    });
    thread.irql = levelBefore;
    waiting.NotifyAll();
    return kept;
}

namespace functions {

NTSTATUS NTAPI SpinLockCreate(PWDF_DRIVER_GLOBALS globals, PWDF_OBJECT_ATTRIBUTES attributes, WDFSPINLOCK* spinLock)
{
    const PlatformCall call("WdfSpinLockCreate", HOST_CALLER, DISPATCH_LEVEL);
    ClearOnEntry(spinLock);
    return Create<SpinLockObject>(call, globals, attributes, spinLock, "SpinLock");
}

void NTAPI SpinLockAcquire(PWDF_DRIVER_GLOBALS, WDFSPINLOCK handle)
{
    const PlatformCall call("WdfSpinLockAcquire", HOST_CALLER, DISPATCH_LEVEL);
    Framework& framework = Framework::Current();
    ThreadState& thread = ThreadState::Current();
    std::unique_lock lock(framework.mutex);
    auto* spinLock = framework.Resolve<SpinLockObject>(call, handle, "SpinLock");
    if (spinLock == nullptr) {
        return;
    }
    if (spinLock->held) {
        const std::string holder = spinLock->holderId != thread.id ? ", held by " + spinLock->holderName : "";
        const schedule::Wait wait{
            .subject = Framework::Describe(*spinLock) + holder,
            .isReady = [&] { return !spinLock->held; },
            .heldBy = [&] { return std::vector{spinLock->abandoned ? schedule::kNobody : spinLock->holderId}; },
        };
        framework.Reference(*spinLock);  // whoever deletes it meanwhile shall not pull it from under us
        const schedule::Wake wake = framework.waiting.Block(lock, wait);
        const bool isLast = spinLock->references == 1;
        if (isLast) {
            call.Violation(Rule::kDeadHandle, Framework::Describe(*spinLock) + " went while a thread waited for it");
        }
        framework.Dereference(lock, *spinLock);
        if (wake != schedule::Wake::kReady) {
            framework.ParkFor(lock, wait, wake, call.function(), call.caller());
        }
        if (isLast) {
            return;
        }
    }
    spinLock->held = true;
    spinLock->abandoned = false;
    spinLock->holderId = thread.id;
    spinLock->holderName = thread.name;
    spinLock->levelBefore = thread.irql;
    thread.irql = DISPATCH_LEVEL;
    schedule::Acquire(spinLock);
}

void NTAPI SpinLockRelease(PWDF_DRIVER_GLOBALS, WDFSPINLOCK handle)
{
    const PlatformCall call("WdfSpinLockRelease", HOST_CALLER, DISPATCH_LEVEL);
    Framework& framework = Framework::Current();
    ThreadState& thread = ThreadState::Current();
    const std::lock_guard lock(framework.mutex);
    auto* spinLock = framework.Resolve<SpinLockObject>(call, handle, "SpinLock");
    if (spinLock == nullptr) {
        return;
    }
    if (!spinLock->held || spinLock->holderId != thread.id) {
        call.Violation(Rule::kLockNotOwned,
                       Framework::Describe(*spinLock) +
                           (spinLock->held ? " is held by " + spinLock->holderName + " and released by " + thread.name
                                           : " is released, but nobody holds it"));
        return;
    }
    schedule::Release(spinLock);
    spinLock->held = false;
    spinLock->holderId = 0;
    thread.irql = spinLock->levelBefore;
    framework.waiting.NotifyAll();
}

}  // namespace functions
}  // namespace host::framework
