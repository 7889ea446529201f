// Threads in driver code: how the framework calls a driver, what the driver must have given back when it returns, and
// how its threads wait for one another.
//
// All waits stand in one graph and look at state that the framework's mutex guards, so that a wait without an end is
// found: it is reported and its thread parked.
#pragma once

#include "host/checks/unused_stack.h"
#include "host/environment.h"
#include "host/framework/object.h"
#include "host/schedule/threads.h"
#include "host/schedule/waiting.h"

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

namespace host::framework {

class Framework;

class DriverThreads {
public:
    DriverThreads(Framework& framework, schedule::Threads& threads) : framework_(framework), threads_(threads) {}

    // ---- Without the mutex ----

    // Calls driver code, which must come back at the same level and with every lock given back; says which was kept
    // when not.
    template <class Callback>
    auto Guarded(const char* callbackName, const void* routine, const Callback& callback)
    {
        const Held before = HeldNow();
        checks::FillUnusedStack();
        if constexpr (std::is_void_v<decltype(callback())>) {
            callback();
            CheckHeld(callbackName, routine, before);
        } else {
            const auto result = callback();
            CheckHeld(callbackName, routine, before);
            return result;
        }
    }

    // Runs work, guarded, on a thread of the host, while this thread waits.
    schedule::Outcome RunOnThread(const std::string& name, const char* what, const void* routine,
                                  const std::function<void()>& work);

    // The same for one work after another on one thread, until `next` has none or one parks. `next` and the end of a
    // work, if it has one, are called on that thread, with the mutex. A work may park before its end or in it.
    struct Work {
        const char* what;
        const void* routine;
        std::function<void()> call;
        std::function<void(std::unique_lock<std::mutex>&)> end;
    };
    schedule::Outcome RunEach(const std::string& name, const std::function<std::optional<Work>()>& next);

    // Whether a thread is parked in driver code, whose image and objects must stay.
    [[nodiscard]] bool HasParked() const { return threads_.HasParked(); }

    // Whether a thread waits: for who has just ended, without the mutex, what one may wait for.
    [[nodiscard]] bool HasWaiting() const { return waiting_.HasWaiting(); }

    // Waits that found themselves over without having been notified: what ended them announced it too late or never.
    [[nodiscard]] std::uint64_t EndedUnnotified() const { return waiting_.EndedUnnotified(); }

    // ---- With the mutex, which is released during the wait ----

    // A thread with something to wait for that can have no end is reported and parked; else true when it is over, and
    // false when its time is.
    bool WaitFor(std::unique_lock<std::mutex>& lock, const schedule::Wait& wait, const char* function,
                 const void* caller, const void* takenAt = nullptr);

    // The same in two steps, for who has to do something in between: a wait that is neither ready nor timed out must
    // be parked. Of a lock the report says where its holder took it.
    [[nodiscard]] schedule::Wake Block(std::unique_lock<std::mutex>& lock, const schedule::Wait& wait)
    {
        return waiting_.Block(lock, wait);
    }
    [[noreturn]] void ParkFor(std::unique_lock<std::mutex>& lock, const schedule::Wait& wait, schedule::Wake wake,
                              const char* function, const void* caller, const void* takenAt = nullptr);

    // Something changed that a wait may look at.
    void NotifyWaiting() { waiting_.NotifyAll(); }

private:
    class Supervision;

    // What a thread has entered and not left.
    struct Held {
        int criticalRegions;
        std::vector<WDFOBJECT> waitLocks;
        KIRQL level;
        std::vector<const void*> spinLocks;  // looked up only where the level does not say it: from DISPATCH_LEVEL on
    };
    Held HeldNow() const;
    void CheckHeld(const char* callbackName, const void* routine, const Held& before);

    Framework& framework_;
    schedule::Threads& threads_;
    schedule::Waiting waiting_;
};

}  // namespace host::framework
