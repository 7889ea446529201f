// Timers stand on the machine's clock, so that a test decides when they come due. One that is due is called on a thread
// of its own at DISPATCH_LEVEL, as the platform does from whatever thread it interrupts; a passive one queues a run for
// a system thread instead. A periodic one is queued again before its callback begins.
#include "host/framework/timers.h"

#include "host/framework/functions.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace host::framework {

using checks::Rule;

namespace {

void Expire(Framework& framework, WDFOBJECT handle, kernel::TimeUnits moment);

// A timer is never due in the very moment in which it is started, or one that starts itself would hold the clock for
// ever.
void Queue(Framework& framework, TimerObject& timer, kernel::TimeUnits moment)
{
    kernel::Clock& clock = framework.kernel.clock;
    timer.queued = true;
    timer.moment = std::max(moment, clock.Now() + 1);
    timer.scheduleId = clock.Schedule(timer.moment, [&framework, handle = timer.handle, moment = timer.moment] {
        Expire(framework, handle, moment);
    });
}

bool Unqueue(Framework& framework, TimerObject& timer)
{
    const bool wasQueued = timer.queued;
    if (wasQueued) {
        framework.kernel.clock.Cancel(timer.scheduleId);
    }
    timer.queued = false;
    return wasQueued;
}

// On the thread of the callback. The timer may be destroyed by it.
void RunCallback(Framework& framework, TimerObject& timer)
{
    const schedule::ThreadId self = ThreadState::Current().id;
    {
        const std::lock_guard lock(framework.mutex);
        --timer.starting;
        timer.runningOn.push_back(self);
        timer.callbackThread = self;
    }
    schedule::Acquire(&timer.queued);
    framework.threads.Guarded("EvtTimerFunc", reinterpret_cast<const void*>(timer.routine), [&] {
        if (timer.routine != nullptr) {
            timer.routine(static_cast<WDFTIMER>(timer.handle));
        }
    });
    schedule::Release(&timer.runningOn);
    std::unique_lock lock(framework.mutex);
    std::erase(timer.runningOn, self);
    timer.callbackThread = 0;
    framework.threads.NotifyWaiting();
    framework.objects.Dereference(lock, timer);
}

// Calls the callback on a thread of its own, while this thread waits.
void Run(Framework& framework, std::unique_lock<std::mutex>& lock, TimerObject& timer)
{
    ++timer.starting;
    ObjectTree::Reference(timer);
    lock.unlock();
    if (timer.isPassive) {
        (void)framework.threads.RunOnThread("system worker", "passive timer", nullptr,
                                            [&] { RunCallback(framework, timer); });
    } else {
        (void)framework.threads.RunOnThread("timer DPC", "timer", nullptr, [&] {
            const ScopedIrql dispatch(DISPATCH_LEVEL);
            RunCallback(framework, timer);
        });
    }
    lock.lock();
}

// Runs the callback of a passive timer that is due, unless that was done meanwhile.
void RunQueuedWork(Framework& framework, std::unique_lock<std::mutex>& lock, TimerObject& timer)
{
    if (timer.isWorkQueued) {
        timer.isWorkQueued = false;
        framework.work.TakeOver(timer);
        Run(framework, lock, timer);
        framework.work.EndRun();
    }
}

// On the thread that moves the clock.
void Expire(Framework& framework, WDFOBJECT handle, kernel::TimeUnits moment)
{
    std::unique_lock lock(framework.mutex);
    Object* object = framework.handles.Peek(handle);
    auto* timer = static_cast<TimerObject*>(object);
    if (object == nullptr || !timer->queued || timer->moment != moment) {
        return;  // stopped or started again while it came due
    }
    timer->queued = false;
    if (timer->period != 0) {
        Queue(framework, *timer, moment + timer->period);
    }
    if (!timer->isPassive) {
        Run(framework, lock, *timer);
    } else if (!timer->isWorkQueued) {
        timer->isWorkQueued = true;
        framework.work.Defer(nullptr, timer, [&framework, handle] {
            std::unique_lock later(framework.mutex);
            if (Object* due = framework.handles.Peek(handle)) {
                RunQueuedWork(framework, later, *static_cast<TimerObject*>(due));
            }
        });
    }
}

// Until no callback of the timer is queued or running. A queued one is run here: its system thread may be one that
// waits for this thread.
void WaitForRuns(Framework& framework, std::unique_lock<std::mutex>& lock, TimerObject& timer, const char* function,
                 const void* caller)
{
    RunQueuedWork(framework, lock, timer);
    const schedule::Wait wait{
        .subject = [&timer] { return "the callback of " + Describe(timer); },
        .isReady = [&timer] { return timer.starting == 0 && timer.runningOn.empty(); },
        .heldBy = [&timer] { return timer.runningOn; },
    };
    (void)framework.threads.WaitFor(lock, wait, function, caller);
    schedule::Acquire(&timer.runningOn);
}

bool IsInCallback(const TimerObject& timer)
{
    return timer.callbackThread == ThreadState::Current().id;
}

}  // namespace

void TimerObject::OnDispose(Framework& framework, std::unique_lock<std::mutex>& lock)
{
    const void* code = reinterpret_cast<const void*>(routine);
    disposing = true;
    (void)Unqueue(framework, *this);
    if (IsInCallback(*this)) {
        framework.environment.Report(Rule::kSelfWait, "timer disposal",
                                     Describe(*this) + " is deleted by its own callback", code);
        return;
    }
    WaitForRuns(framework, lock, *this, "timer disposal", code);
}

void TimerObject::OnFree(Framework& framework)
{
    (void)Unqueue(framework, *this);
}

namespace functions {
namespace {

// The configuration in its present form; those of older drivers end earlier.
NTSTATUS ReadConfig(const WDF_TIMER_CONFIG& config, WDF_TIMER_CONFIG& read)
{
    constexpr ULONG kSizeOf1_7 = offsetof(WDF_TIMER_CONFIG, TolerableDelay);
    constexpr ULONG kSizeOf1_11 = offsetof(WDF_TIMER_CONFIG, UseHighResolutionTimer);
    constexpr ULONG kPeriodMaximum = 0x7FFFFFFF;
    if (config.Size != sizeof(config) && config.Size != kSizeOf1_7 && config.Size != kSizeOf1_11) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    read = {};
    std::memcpy(&read, &config, config.Size);
    if (read.Period > kPeriodMaximum || (read.TolerableDelay > 0 && read.UseHighResolutionTimer != FALSE)) {
        return STATUS_INVALID_PARAMETER;
    }
    return STATUS_SUCCESS;
}

bool IsBelowDevice(const Object* object)
{
    while (object != nullptr && object->type != ObjectType::kDevice) {
        object = object->parent();
    }
    return object != nullptr;
}

}  // namespace

NTSTATUS NTAPI TimerCreate(PWDF_DRIVER_GLOBALS globals, PWDF_TIMER_CONFIG config, PWDF_OBJECT_ATTRIBUTES attributes,
                           WDFTIMER* handle)
{
    const PlatformCall call("WdfTimerCreate", HOST_CALLER, DISPATCH_LEVEL);
    if (const std::optional<NTSTATUS> injected = Injected(call, handle)) {
        return *injected;
    }
    if (attributes == nullptr || (attributes->Size == sizeof(*attributes) && attributes->ParentObject == nullptr)) {
        return STATUS_WDF_PARENT_NOT_SPECIFIED;
    }
    if (attributes->Size != sizeof(*attributes)) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    if (!Requires(call, config, "Config") || !Requires(call, handle, "Timer")) {
        return STATUS_INVALID_PARAMETER;
    }
    WDF_TIMER_CONFIG read;
    NTSTATUS status = ReadConfig(*config, read);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    status = CheckAttributes(attributes, ObjectType::kTimer, ParentRule::kRequired);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    const bool isPassive = attributes->ExecutionLevel == WdfExecutionLevelPassive;
    if (isPassive && read.Period != 0) {
        return STATUS_NOT_SUPPORTED;
    }
    Object* parent = framework.objects.ParentFor(call, attributes, nullptr, status);
    if (parent == nullptr) {
        return status;
    }
    if (!IsBelowDevice(parent)) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    const bool hasScope = parent->synchronizationScope == WdfSynchronizationScopeDevice ||
                          parent->synchronizationScope == WdfSynchronizationScopeQueue;
    if (read.AutomaticSerialization != FALSE && hasScope) {
        if (isPassive != (parent->executionLevel == WdfExecutionLevelPassive)) {
            return STATUS_WDF_INCOMPATIBLE_EXECUTION_LEVEL;
        }
        call.Violation(Rule::kNotProvided, "this host does not serialise timers by a device's or queue's scope");
        return STATUS_NOT_SUPPORTED;
    }
    auto object = std::make_unique<TimerObject>(framework.drivers.Of(globals));
    TimerObject& timer = *object;
    timer.routine = read.EvtTimerFunc;
    timer.period = read.Period * kernel::kUnitsPerMillisecond;
    timer.isPassive = isPassive;
    timer.name = framework.environment.modules.FunctionAt(reinterpret_cast<const void*>(read.EvtTimerFunc));
    framework.objects.ApplyAttributes(timer, attributes);
    framework.objects.Register(std::move(object), parent);
    *handle = static_cast<WDFTIMER>(timer.handle);
    return call.Done();
}

BOOLEAN NTAPI TimerStart(PWDF_DRIVER_GLOBALS, WDFTIMER handle, LONGLONG dueTime)
{
    const PlatformCall call("WdfTimerStart", HOST_CALLER, DISPATCH_LEVEL);
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    auto* timer = framework.objects.Resolve<TimerObject>(call, handle, "Timer");
    if (timer == nullptr) {
        return FALSE;
    }
    if (timer->disposing) {
        call.Violation(Rule::kDeadHandle, Describe(*timer) + " is being deleted; the start is dropped");
        return FALSE;
    }
    if (timer->stopper != schedule::kNobody) {
        timer->isStartIgnored = true;
        return FALSE;
    }
    const bool wasQueued = Unqueue(framework, *timer);
    Queue(framework, *timer, framework.kernel.clock.MomentOf(dueTime));
    schedule::Release(&timer->queued);
    return wasQueued ? TRUE : FALSE;
}

BOOLEAN NTAPI TimerStop(PWDF_DRIVER_GLOBALS, WDFTIMER handle, BOOLEAN wait)
{
    const bool waits = wait != FALSE;
    const PlatformCall call("WdfTimerStop", HOST_CALLER, waits ? PASSIVE_LEVEL : DISPATCH_LEVEL);
    Framework& framework = Framework::Current();
    std::unique_lock lock(framework.mutex);
    auto* timer = framework.objects.Resolve<TimerObject>(call, handle, "Timer");
    if (timer == nullptr || (waits && ThreadState::Current().irql > PASSIVE_LEVEL)) {
        return FALSE;
    }
    if (!waits) {
        return Unqueue(framework, *timer) ? TRUE : FALSE;
    }
    if (IsInCallback(*timer)) {
        call.Violation(Rule::kSelfWait,
                       Describe(*timer) + " is waited for by its own callback; the call returns at once");
        return FALSE;
    }
    ObjectTree::Reference(*timer);
    timer->isStartIgnored = false;
    timer->stopper = ThreadState::Current().id;
    const bool wasQueued = Unqueue(framework, *timer);
    WaitForRuns(framework, lock, *timer, call.function(), call.caller());
    timer->stopper = schedule::kNobody;
    const bool result = wasQueued || timer->isStartIgnored;
    framework.objects.Dereference(lock, *timer);
    return result ? TRUE : FALSE;
}

WDFOBJECT NTAPI TimerGetParentObject(PWDF_DRIVER_GLOBALS, WDFTIMER handle)
{
    const PlatformCall call("WdfTimerGetParentObject", HOST_CALLER, DISPATCH_LEVEL);
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    const auto* timer = framework.objects.Resolve<TimerObject>(call, handle, "Timer");
    return timer == nullptr || timer->parent() == nullptr ? nullptr : timer->parent()->handle;
}

}  // namespace functions
}  // namespace host::framework
