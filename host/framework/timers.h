// Timers: what the machine's clock calls at its moments, at DISPATCH_LEVEL or on a system thread. The framework's mutex
// guards them.
#pragma once

#include "host/framework/object.h"
#include "host/kernel/clock.h"
#include "host/schedule/waiting.h"

#include <cstdint>
#include <vector>

namespace host::framework {

struct TimerObject final : Object {
    explicit TimerObject(DriverInstance* owner) : Object(ObjectType::kTimer, owner) {}
    // Stops it and waits for what it has under way.
    void OnDispose(Framework& framework, std::unique_lock<std::mutex>& lock) override;
    void OnFree(Framework& framework) override;
    [[nodiscard]] bool NeedsPassiveLevel() const override { return true; }
    void Show(ObjectSnapshot& view) const override { view.queued = queued; }

    PFN_WDF_TIMER routine = nullptr;  // may be null
    kernel::TimeUnits period = 0;     // 0: comes due once
    bool isPassive = false;           // its callback runs on a system thread
    bool disposing = false;           // disposal has begun: it is not started any more

    bool queued = false;           // started, not due yet
    std::uint64_t scheduleId = 0;  // of the clock, while it is queued
    kernel::TimeUnits moment = 0;  // when it is due

    bool isWorkQueued = false;                  // passive: due, and waits for a system thread
    unsigned starting = 0;                      // due, its callback not on its thread yet
    std::vector<schedule::ThreadId> runningOn;  // threads inside the callback now
    schedule::ThreadId callbackThread = 0;      // of the run that began last, until any run ends: the framework's view
    schedule::ThreadId stopper = 0;             // who waits in WdfTimerStop: starts are ignored meanwhile
    bool isStartIgnored = false;                // one was, by that
};

template <>
inline constexpr ObjectType kTypeOf<TimerObject> = ObjectType::kTimer;

}  // namespace host::framework
