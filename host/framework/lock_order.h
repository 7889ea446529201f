// The order in which wait locks are taken: declared by ranks, or as it has been seen so far. Two threads need not meet
// for a wrong order to show.
#pragma once

#include "host/framework/handle_table.h"

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
    // Reports a lock that is wanted against the order while the others are held, at its first sight.
    void Check(const PlatformCall& call, const HandleTable& handles, WaitLockObject& wanted,
               const std::vector<WDFOBJECT>& heldLocks);

    // Whether the lock was wanted under this one before, and that is all there is to say. Any thread may ask.
    [[nodiscard]] static bool IsLookedAt(const WaitLockObject& wanted, WDFOBJECT held)
    {
        return std::ranges::any_of(wanted.takenUnder, [held](const std::atomic<WDFOBJECT>& known) {
            return known.load(std::memory_order_relaxed) == held;
        });
    }

    // A rank has changed: every pair is looked at again.
    static void ForgetLookedAt(const HandleTable& handles);

    // The lock is gone.
    void Forget(WDFOBJECT handle);

private:
    // Which lock was taken while another was held, and where.
    std::map<WDFOBJECT, std::map<WDFOBJECT, const void*>> orders_;
};

}  // namespace host::framework
