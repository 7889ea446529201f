// The order in which wait locks are taken: declared by ranks, or as it has been seen so far. Two threads need not meet
// for a wrong order to show.
#pragma once

#include "host/framework/wait_locks.h"

#include <algorithm>
#include <map>
#include <vector>

namespace host {
class PlatformCall;
}

namespace host::framework {

// Everything but IsLookedAt is called with the framework's mutex held.
class LockOrder {
public:
    explicit LockOrder(const HandleTable& handles) : handles_(handles) {}

    // Declares a lock's place: from now on it may be taken only while all ranked locks held have lower ranks.
    void Rank(WaitLockObject& lock, unsigned rank);

    // Reports a lock that is wanted against the order while the others are held, at its first sight.
    void Check(const PlatformCall& call, WaitLockObject& wanted, const std::vector<WDFOBJECT>& heldLocks);

    // Whether the lock was wanted under this one before, and that is all there is to say. Any thread may ask.
    [[nodiscard]] static bool IsLookedAt(const WaitLockObject& wanted, WDFOBJECT held)
    {
        return std::ranges::any_of(wanted.takenUnder, [held](const std::atomic<WDFOBJECT>& known) {
            return known.load(std::memory_order_relaxed) == held;
        });
    }

    // The lock is gone.
    void Forget(WDFOBJECT handle);

private:
    const HandleTable& handles_;
    // Which lock was taken while another was held, and where.
    std::map<WDFOBJECT, std::map<WDFOBJECT, const void*>> orders_;
};

}  // namespace host::framework
