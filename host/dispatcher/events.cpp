// Events and the waits for them.
//
// Anybody may set an event, so every thread that runs may end a wait for one; the wait is without an end when none of
// them can go on. With pumped work items nothing runs by itself: a wait then gives queued work and timers their turns,
// and when nothing is left the clock moves on to the time-out. Otherwise a time-out takes its real time.
#include "host/framework/framework.h"
#include "host/schedule/yield.h"

#include <algorithm>
#include <cstdio>

using host::PlatformCall;
using host::ThreadState;
using host::checks::Rule;
using host::framework::Framework;
using host::kernel::Clock;
using host::kernel::TimeUnits;

#define HOST_EXPORT extern "C" __attribute__((visibility("default"), used))

namespace {

// How long a wait without a time-out goes on only because timers come due.
constexpr TimeUnits kTimerWaitMaximum = 3600 * host::kernel::kUnitsPerSecond;

// Whether this is an event at all: KeInitializeEvent made its list of waiters, which stays empty here.
bool IsEvent(const KEVENT& event)
{
    return event.Header.Type <= SynchronizationEvent && event.Header.WaitListHead.Flink == &event.Header.WaitListHead;
}

bool RequireEvent(const PlatformCall& call, const KEVENT* event)
{
    if (event != nullptr && IsEvent(*event)) {
        return true;
    }
    call.Violation(Rule::kBadParameter, "this is no event that KeInitializeEvent made");
    return false;
}

LONG Set(const PlatformCall& call, KEVENT* event, LONG state)
{
    if (!RequireEvent(call, event)) {
        return 0;
    }
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    if (state != 0) {
        host::schedule::Release(event);
        framework.threads.NotifyWaiting();
    }
    return std::exchange(event->Header.SignalState, state);
}

// Takes what a signaled event gives to one waiter; the mutex is held.
bool TakeSignal(KEVENT& event)
{
    if (event.Header.SignalState == 0) {
        return false;
    }
    if (event.Header.Type == SynchronizationEvent) {
        event.Header.SignalState = 0;
    }
    host::schedule::Acquire(&event);
    return true;
}

// Runs something that a real machine would run during the wait; false when there is nothing but time to pass.
bool RunOther(Framework& framework, std::optional<TimeUnits> limit)
{
    {
        host::schedule::Outcome outcome;
        std::unique_lock lock(framework.mutex);
        if (framework.work.RunOne(lock, outcome)) {
            return true;
        }
    }
    Clock& clock = framework.kernel.clock;
    const std::optional<TimeUnits> next = clock.NextMoment();
    if (!next || (limit && *next > *limit)) {
        return false;
    }
    clock.AdvanceTo(*next);
    return true;
}

std::string Subject(const KEVENT& event)
{
    char text[64];
    std::snprintf(text, sizeof(text), "the event at %p", static_cast<const void*>(&event));
    return text;
}

// False when the time is over.
bool WaitFor(const PlatformCall& call, KEVENT& event, std::optional<TimeUnits> moment)
{
    Framework& framework = Framework::Current();
    Clock& clock = framework.kernel.clock;
    const bool isPumped = framework.environment.options.workItems == host::WorkItems::kPumped &&
                          host::schedule::theController.load(std::memory_order_acquire) == nullptr;
    const TimeUnits begin = clock.Now();
    std::unique_lock lock(framework.mutex);
    while (isPumped && event.Header.SignalState == 0) {
        lock.unlock();
        const bool ran = RunOther(framework, moment.value_or(begin + kTimerWaitMaximum));
        if (!ran && moment) {
            clock.AdvanceTo(*moment);
        }
        lock.lock();
        if (!ran) {
            break;
        }
    }
    if (TakeSignal(event)) {
        return true;
    }
    if (moment && clock.Now() >= *moment) {
        return false;
    }
    host::schedule::Wait wait{.subject = [text = Subject(event)] { return text; },
                              .isReady = [&] { return event.Header.SignalState != 0; },
                              .heldBy =
                                  [&framework] {
                                      std::vector<std::uint64_t> threads = framework.work.AboutToRun();
                                      const std::vector<std::uint64_t> others = ThreadState::ThatRun();
                                      threads.insert(threads.end(), others.begin(), others.end());
                                      return threads;
                                  },
                              .anyEndsIt = true};
    if (moment) {
        constexpr std::int64_t kNanosecondsPerUnit = 100;
        wait.deadline =
            std::chrono::steady_clock::now() + std::chrono::nanoseconds((*moment - clock.Now()) * kNanosecondsPerUnit);
    }
    const bool isSignaled = framework.threads.WaitFor(lock, wait, call.function(), call.caller()) && TakeSignal(event);
    lock.unlock();
    if (!isSignaled) {
        clock.AdvanceTo(*moment);
    }
    return isSignaled;
}

}  // namespace

HOST_EXPORT VOID NTAPI KeInitializeEvent(PRKEVENT event, EVENT_TYPE type, BOOLEAN state)
{
    const PlatformCall call("KeInitializeEvent", HOST_CALLER, HIGH_LEVEL);
    event->Header = {.Type = static_cast<UCHAR>(type),
                     .Signalling = 0,
                     .Size = sizeof(KEVENT) / sizeof(LONG),
                     .Reserved1 = 0,
                     .SignalState = state != FALSE ? 1 : 0,
                     .WaitListHead = {}};
    InitializeListHead(&event->Header.WaitListHead);
}

HOST_EXPORT LONG NTAPI KeSetEvent(PRKEVENT event, KPRIORITY, BOOLEAN wait)
{
    const PlatformCall call("KeSetEvent", HOST_CALLER, wait != FALSE ? APC_LEVEL : DISPATCH_LEVEL);
    return Set(call, event, 1);
}

HOST_EXPORT LONG NTAPI KeResetEvent(PRKEVENT event)
{
    const PlatformCall call("KeResetEvent", HOST_CALLER, DISPATCH_LEVEL);
    return Set(call, event, 0);
}

HOST_EXPORT VOID NTAPI KeClearEvent(PRKEVENT event)
{
    const PlatformCall call("KeClearEvent", HOST_CALLER, DISPATCH_LEVEL);
    (void)Set(call, event, 0);
}

HOST_EXPORT LONG NTAPI KeReadStateEvent(PRKEVENT event)
{
    const PlatformCall call("KeReadStateEvent", HOST_CALLER, DISPATCH_LEVEL);
    if (!RequireEvent(call, event)) {
        return 0;
    }
    const std::lock_guard lock(Framework::Current().mutex);
    return event->Header.SignalState;
}

HOST_EXPORT NTSTATUS NTAPI KeWaitForSingleObject(PVOID object, KWAIT_REASON, KPROCESSOR_MODE, BOOLEAN,
                                                 PLARGE_INTEGER timeout)
{
    const bool onlyLooks = timeout != nullptr && timeout->QuadPart == 0;
    const PlatformCall call("KeWaitForSingleObject", HOST_CALLER, onlyLooks ? DISPATCH_LEVEL : APC_LEVEL,
                            timeout != nullptr ? "timeout" : "");
    if (call.fault()) {
        return call.fault()->status;
    }
    auto* event = static_cast<KEVENT*>(object);
    if (!RequireEvent(call, event)) {
        return STATUS_INVALID_PARAMETER;
    }
    if (onlyLooks) {
        const std::lock_guard lock(Framework::Current().mutex);
        return TakeSignal(*event) ? STATUS_SUCCESS : STATUS_TIMEOUT;
    }
    std::optional<TimeUnits> moment;
    if (timeout != nullptr) {
        moment = host::kernel::Kernel::Current().clock.MomentOf(timeout->QuadPart);
    }
    return WaitFor(call, *event, moment) ? STATUS_SUCCESS : STATUS_TIMEOUT;
}
