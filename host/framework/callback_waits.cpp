// Callback routines are called like all other driver code. ExUnregisterCallback waits for the routine that it
// unregisters. The wait stands in one graph with those for wait locks, work items and requests, so that one without an
// end is found here too: a routine that unregisters itself, or one whose thread is parked.
#include "host/framework/framework.h"

namespace host::framework {

void ConnectCallbackWaits(Framework& framework)
{
    framework.kernel.waitForRoutine = [&framework](const PlatformCall& call, const auto& registration) {
        const auto threads = [&] {
            const std::lock_guard lock(framework.kernel.mutex);
            return registration->runningOn;
        };
        std::unique_lock lock(framework.mutex);
        (void)framework.threads.WaitFor(
            lock,
            {.subject = [] { return "the return of the callback routine that it unregisters"; },
             .isReady = [&] { return threads().empty(); },
             .heldBy = threads},
            call.function(), call.caller());
    };
    framework.kernel.callRoutine = [&framework](const void* routine, const std::function<void()>& call) {
        framework.threads.Guarded("callback routine", routine, call);
    };
    framework.kernel.onRoutineLeft = [&framework] {
        const std::lock_guard lock(framework.mutex);
        framework.threads.NotifyWaiting();
    };
}

}  // namespace host::framework
