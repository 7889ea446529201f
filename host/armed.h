// Who besides the platform function itself acts on a platform call. Functions that drivers call very often look at this
// one word: while it is 0, and at APC_LEVEL or below, where no code may be paged out under them, they do their work at
// once, else they take the way of all platform calls.
//
// That way is a function of its own, never inlined: a function of the platform's calling convention that calls others
// saves ten vector registers first, and those that answer at once call nobody.
#pragma once

#include <atomic>

namespace host {

enum Armed : unsigned {
    kArmedController = 1,  // of the schedule
    kArmedObserver = 2,
    kArmedFaults = 4,
    kArmedHiding = 8,  // the thread sanitizer learns of driver locks alone
    kArmedNoMachine = 16,
    kArmedStrangers = 32,  // somebody released a wait lock that another thread held
};

inline std::atomic<unsigned> theArmed{kArmedNoMachine};

inline void Arm(Armed what, bool isArmed)
{
    if (isArmed) {
        theArmed.fetch_or(what);
    } else {
        theArmed.fetch_and(~static_cast<unsigned>(what));
    }
}

[[nodiscard]] inline bool IsAnythingArmed()
{
    return theArmed.load(std::memory_order_relaxed) != 0;
}

}  // namespace host
