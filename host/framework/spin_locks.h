// Spin locks of the framework, whose holder runs at DISPATCH_LEVEL.
#pragma once

#include "host/framework/wait_locks.h"

#include <string>
#include <vector>

namespace host::framework {

// The framework's mutex guards it.
struct SpinLockObject final : Object {
    explicit SpinLockObject(DriverInstance* owner) : Object(ObjectType::kSpinLock, owner) {}
    void Show(ObjectSnapshot& view) const override { view.held = held; }

    bool held = false;
    bool abandoned = false;      // its holder's callback is over: nobody will give it back
    std::uint64_t holderId = 0;  // ThreadState::id
    std::string holderName;
    const void* takenAt = nullptr;      // where in an image
    KIRQL levelBefore = PASSIVE_LEVEL;  // its holder's, which the release brings back
};

template <>
inline constexpr ObjectType kTypeOf<SpinLockObject> = ObjectType::kSpinLock;

// Those that the calling thread holds. The mutex is held.
[[nodiscard]] std::vector<const void*> SpinLocksHeld(const HandleTable& handles);

// Those that the calling thread holds although its callback, which began with these, is over: nobody will give them
// back. The mutex is held.
[[nodiscard]] std::vector<KeptLock> AbandonSpinLocks(const HandleTable& handles,
                                                     const std::vector<const void*>& before);

}  // namespace host::framework
