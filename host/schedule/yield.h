// Where driver code can be interrupted, and who decides what runs then.
//
// Ordinary runs have no controller and pay one load per point. The controlled scheduler is one: it decides at each
// point which thread goes on, and replaces the sleeping of threads that wait.
#pragma once

#include "host/armed.h"

#include <atomic>
#include <mutex>

namespace host::schedule {

enum class YieldKind {
    kPlatformCall,  // a platform function was called and has not acted yet
    kClientCode,    // a callback of another driver runs; reported by who plays that driver
    kThreadBegins,  // a callback or client routine is about to run on a thread of its own
    kThreadEnds,    // it has returned
};

class Controller {
public:
    virtual ~Controller() = default;

    // Called on the thread that stands at the point, with no lock of the host held.
    virtual void OnYield(YieldKind kind, const char* what) = 0;

    // Called instead of sleeping, with the lock held; returns, with the lock held, when the thread shall look again
    // whether its wait is over.
    virtual void OnBlock(std::unique_lock<std::mutex>& lock) = 0;
};

inline std::atomic<Controller*> theController{nullptr};

// Null: nobody decides.
inline void SetController(Controller* controller)
{
    theController.store(controller, std::memory_order_release);
    Arm(kArmedController, controller != nullptr);
}

inline void YieldPoint(YieldKind kind, const char* what)
{
    if (Controller* controller = theController.load(std::memory_order_acquire)) {
        controller->OnYield(kind, what);
    }
}

}  // namespace host::schedule
