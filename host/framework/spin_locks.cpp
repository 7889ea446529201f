// Spin locks. Who holds one runs at DISPATCH_LEVEL, so each platform function that it calls meanwhile says whether it
// may be called there. The host waits where a real processor would spin, and knows the holder.
#include "host/framework/spin_locks.h"

#include "host/framework/functions.h"

#include <algorithm>

namespace host::framework {

using checks::Rule;

std::vector<const void*> SpinLocksHeld(const HandleTable& handles)
{
    const std::uint64_t self = ThreadState::Current().id;
    std::vector<const void*> held;
    handles.ForEach([&](Object& object) {
        if (object.type == ObjectType::kSpinLock) {
            const auto& spinLock = static_cast<SpinLockObject&>(object);
            if (spinLock.held && !spinLock.abandoned && spinLock.holderId == self) {
                held.push_back(spinLock.handle);
            }
        }
    });
    return held;
}

std::vector<KeptLock> AbandonSpinLocks(const HandleTable& handles, const std::vector<const void*>& before)
{
    std::vector<KeptLock> kept;
    for (const void* handle : SpinLocksHeld(handles)) {
        if (std::ranges::find(before, handle) == before.end()) {
            auto& spinLock = static_cast<SpinLockObject&>(*handles.Peek(handle));
            spinLock.abandoned = true;
            kept.push_back({Describe(spinLock), spinLock.takenAt});
        }
    }
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
    auto* spinLock = framework.objects.Resolve<SpinLockObject>(call, handle, "SpinLock");
    if (spinLock == nullptr) {
        return;
    }
    if (spinLock->held) {
        const std::string holder = spinLock->holderId != thread.id ? ", held by " + spinLock->holderName : "";
        const schedule::Wait wait{
            .subject = [text = Describe(*spinLock) + holder] { return text; },
            .isReady = [&] { return !spinLock->held; },
            .heldBy = [&] { return std::vector{spinLock->abandoned ? schedule::kNobody : spinLock->holderId}; },
        };
        ObjectTree::Reference(*spinLock);  // whoever deletes it meanwhile shall not pull it from under us
        const schedule::Wake wake = framework.threads.Block(lock, wait);
        const void* const takenAt = spinLock->takenAt;
        const bool isLast = spinLock->References() == 1;
        if (isLast) {
            call.Violation(Rule::kDeadHandle, Describe(*spinLock) + " went while a thread waited for it");
        }
        framework.objects.Dereference(lock, *spinLock);
        if (wake != schedule::Wake::kReady) {
            framework.threads.ParkFor(lock, wait, wake, call.function(), call.caller(), takenAt);
        }
        if (isLast) {
            return;
        }
    }
    spinLock->held = true;
    spinLock->abandoned = false;
    spinLock->holderId = thread.id;
    spinLock->holderName = thread.name;
    spinLock->takenAt = call.caller();
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
    auto* spinLock = framework.objects.Resolve<SpinLockObject>(call, handle, "SpinLock");
    if (spinLock == nullptr) {
        return;
    }
    if (!spinLock->held || spinLock->holderId != thread.id) {
        call.Violation(Rule::kLockNotOwned,
                       Describe(*spinLock) +
                           (spinLock->held ? " is held by " + spinLock->holderName + " and released by " + thread.name
                                           : " is released, but nobody holds it"),
                       {{"acquired", {spinLock->held ? spinLock->takenAt : nullptr}}});
        return;
    }
    schedule::Release(spinLock);
    spinLock->held = false;
    spinLock->holderId = 0;
    thread.irql = spinLock->levelBefore;
    framework.threads.NotifyWaiting();
}

}  // namespace functions
}  // namespace host::framework
