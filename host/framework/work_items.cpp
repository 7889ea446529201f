// Work items: queued at most once, run at PASSIVE_LEVEL on threads of the host, either when asked to or at once. Runs
// of one item may overlap. An item's disposal drops later enqueues and waits for what is queued or running. The
// framework's own deferred work, disposals above all, runs on the same threads.
#include "host/framework/devices.h"
#include "host/framework/functions.h"
#include "host/schedule/parking.h"

#include <algorithm>

namespace host::framework {

using checks::Rule;

void Framework::RunCallback(WorkItemObject& item)
{
    const std::uint64_t self = ThreadState::Current().id;
    {
        const std::lock_guard lock(mutex);
        --item.starting;
        item.runningOn.push_back(self);
        item.callbackThread = self;
    }
    schedule::Acquire(&item.queued);
    Guarded("EvtWorkItem", reinterpret_cast<const void*>(item.routine),
            [&] { item.routine(static_cast<WDFWORKITEM>(item.handle)); });
    schedule::Release(&item.runningOn);
    std::unique_lock lock(mutex);
    std::erase(item.runningOn, self);
    item.callbackThread = 0;
    waiting.NotifyAll();
    Dereference(lock, item);
}

// Runs a queued item's callback on a thread of the host. The item may be destroyed by it, unless the thread parks.
void Framework::RunTaken(std::unique_lock<std::mutex>& lock, WorkItemObject& item, const std::string& threadName,
                         schedule::Outcome& outcome)
{
    std::erase(workQueue, &item);
    item.queued = false;
    ++item.starting;
    ++workRunning;
    Reference(item);
    lock.unlock();
    outcome = RunOnThread(threadName, "work item", nullptr, [this, &item] { RunCallback(item); });
    lock.lock();
    --workRunning;
    workChanged.notify_all();
}

void Framework::Defer(const Object* owner, const Object& object, std::function<void()> work)
{
    deferredWork.push_back({owner, &object, std::move(work)});
    workChanged.notify_all();
}

bool Framework::RunDeferred(std::unique_lock<std::mutex>& lock, const std::string& threadName,
                            schedule::Outcome& outcome, const Object* onlyOf)
{
    const auto next = std::find_if(deferredWork.begin(), deferredWork.end(), [onlyOf](const DeferredWork& deferred) {
        return onlyOf == nullptr || deferred.owner == onlyOf;
    });
    if (next == deferredWork.end()) {
        return false;
    }
    const DeferredWork deferred = std::move(*next);
    deferredWork.erase(next);
    const auto running = deferredRunning.insert(deferredRunning.end(), {deferred.owner, schedule::kNobody});
    ++workRunning;
    lock.unlock();
    outcome = RunOnThread(threadName, "framework work", nullptr, [&] {
        {
            const std::lock_guard begin(mutex);
            running->thread = ThreadState::Current().id;
        }
        deferred.work();
    });
    lock.lock();
    if (!outcome.parked) {
        deferredRunning.erase(running);
        waiting.NotifyAll();
    }
    --workRunning;
    workChanged.notify_all();
    return true;
}

void Framework::WaitForDisposals(std::unique_lock<std::mutex>& lock, const Object& owner)
{
    schedule::Outcome outcome;
    while (RunDeferred(lock, "system worker", outcome, &owner)) {
    }
    const auto threads = [&] {
        std::vector<schedule::ThreadId> begun;
        for (const RunningDeferred& running : deferredRunning) {
            if (running.owner == &owner && running.thread != schedule::kNobody) {
                begun.push_back(running.thread);
            }
        }
        return begun;
    };
    const auto isOver = [&] {
        return std::none_of(deferredRunning.begin(), deferredRunning.end(),
                            [&](const RunningDeferred& running) { return running.owner == &owner; });
    };
    (void)WaitFor(lock,
                  {.subject = "the deferred disposals of " + Describe(owner), .isReady = isOver, .heldBy = threads},
                  "removal", nullptr);
}

bool Framework::RunOneWorkItem(schedule::Outcome& outcome)
{
    std::unique_lock lock(mutex);
    if (RunDeferred(lock, "system worker", outcome)) {
        return true;
    }
    if (workQueue.empty()) {
        return false;
    }
    RunTaken(lock, *workQueue.front(), "system worker", outcome);
    return true;
}

void Framework::WorkerLoop(unsigned number)
{
    const std::string name = "system worker " + std::to_string(number);
    ThreadState::Current().Rename(name + " (dispatch)");
    std::unique_lock lock(mutex);
    schedule::Outcome outcome;
    while (!stopping_) {
        if (RunDeferred(lock, name, outcome)) {
            continue;
        }
        if (workQueue.empty()) {
            workChanged.wait(lock);
            continue;
        }
        RunTaken(lock, *workQueue.front(), name, outcome);
    }
}

void Framework::StartWorkers()
{
    for (unsigned number = 1; number <= environment.options.workerCount; ++number) {
        workers_.emplace_back([this, number] { WorkerLoop(number); });
    }
}

void Framework::StopWorkers()
{
    {
        const std::lock_guard lock(mutex);
        stopping_ = true;
        workChanged.notify_all();
    }
    for (std::thread& worker : workers_) {
        worker.join();
    }
    workers_.clear();
}

void Framework::WaitForWorkItems()
{
    std::unique_lock lock(mutex);
    workChanged.wait(lock, [this] { return workQueue.empty() && deferredWork.empty() && workRunning == 0; });
}

void Framework::WaitForRuns(std::unique_lock<std::mutex>& lock, WorkItemObject& item, const char* function,
                            const void* caller)
{
    // Whether or not a worker is free: one that waits for a lock of this thread's would never get to it.
    while (item.queued) {
        schedule::Outcome outcome;
        RunTaken(lock, item, "system worker", outcome);
    }
    const schedule::Wait wait{
        .subject = "the runs of " + Describe(item),
        .isReady = [&item] { return !item.queued && item.starting == 0 && item.runningOn.empty(); },
        .heldBy = [&item] { return item.runningOn; },
    };
    (void)WaitFor(lock, wait, function, caller);
    schedule::Acquire(&item.runningOn);
}

void Framework::DisposeWorkItem(std::unique_lock<std::mutex>& lock, WorkItemObject& item)
{
    item.disposing = true;
    if (item.callbackThread != ThreadState::Current().id) {
        WaitForRuns(lock, item, "work item disposal", reinterpret_cast<const void*>(item.routine));
    }
}

namespace functions {

NTSTATUS NTAPI WorkItemCreate(PWDF_DRIVER_GLOBALS globals, PWDF_WORKITEM_CONFIG config,
                              PWDF_OBJECT_ATTRIBUTES attributes, WDFWORKITEM* handle)
{
    const PlatformCall call("WdfWorkItemCreate", HOST_CALLER, DISPATCH_LEVEL);
    if (const std::optional<NTSTATUS> injected = Injected(call, handle)) {
        return *injected;
    }
    if (!Requires(call, config, "Config") || !Requires(call, handle, "WorkItem")) {
        return STATUS_INVALID_PARAMETER;
    }
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    NTSTATUS status = framework.CheckAttributes(attributes, ObjectType::kWorkItem, Framework::ParentRule::kRequired);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (config->Size != sizeof(WDF_WORKITEM_CONFIG)) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    if (config->EvtWorkItemFunc == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    Object* parent = framework.ParentFor(call, attributes, nullptr, status);
    if (parent == nullptr) {
        return status;
    }
    const Object* device = parent;
    while (device != nullptr && device->type != ObjectType::kDevice) {
        device = device->parent;
    }
    if (device == nullptr) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    const bool scoped = parent->synchronizationScope == WdfSynchronizationScopeDevice ||
                        parent->synchronizationScope == WdfSynchronizationScopeQueue;
    if (config->AutomaticSerialization != FALSE && scoped) {
        if (parent->executionLevel != WdfExecutionLevelPassive) {
            return STATUS_WDF_INCOMPATIBLE_EXECUTION_LEVEL;
        }
        call.Violation(Rule::kNotProvided, "this host does not serialise work items by a device's or queue's scope");
        return STATUS_NOT_SUPPORTED;
    }
    auto object = std::make_unique<WorkItemObject>(framework.InstanceOf(globals));
    WorkItemObject& item = *object;
    item.routine = config->EvtWorkItemFunc;
    item.name = framework.environment.modules.FunctionAt(reinterpret_cast<const void*>(config->EvtWorkItemFunc));
    framework.ApplyAttributes(item, attributes);
    framework.Register(std::move(object), parent);
    *handle = static_cast<WDFWORKITEM>(item.handle);
    return call.Done();
}

void NTAPI WorkItemEnqueue(PWDF_DRIVER_GLOBALS, WDFWORKITEM handle)
{
    const PlatformCall call("WdfWorkItemEnqueue", HOST_CALLER, DISPATCH_LEVEL);
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    auto* item = framework.Resolve<WorkItemObject>(call, handle, "WorkItem");
    if (item == nullptr) {
        return;
    }
    if (item->queued) {
        schedule::Release(&item->queued);
        return;
    }
    if (item->disposing) {
        call.Violation(Rule::kWorkItemGone, Framework::Describe(*item) + " is being deleted; the enqueue is dropped");
        return;
    }
    schedule::Release(&item->queued);
    item->queued = true;
    framework.workQueue.push_back(item);
    framework.workChanged.notify_all();
}

WDFOBJECT NTAPI WorkItemGetParentObject(PWDF_DRIVER_GLOBALS, WDFWORKITEM handle)
{
    const PlatformCall call("WdfWorkItemGetParentObject", HOST_CALLER, DISPATCH_LEVEL);
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    const auto* item = framework.Resolve<WorkItemObject>(call, handle, "WorkItem");
    return item == nullptr || item->parent == nullptr ? nullptr : item->parent->handle;
}

void NTAPI WorkItemFlush(PWDF_DRIVER_GLOBALS, WDFWORKITEM handle)
{
    const PlatformCall call("WdfWorkItemFlush", HOST_CALLER, PASSIVE_LEVEL);
    Framework& framework = Framework::Current();
    std::unique_lock lock(framework.mutex);
    auto* item = framework.Resolve<WorkItemObject>(call, handle, "WorkItem");
    if (item == nullptr) {
        return;
    }
    if (item->callbackThread == ThreadState::Current().id) {
        call.Violation(Rule::kSelfWait,
                       Framework::Describe(*item) + " is flushed by its own callback; the call returns at once");
        return;
    }
    framework.Reference(*item);
    framework.WaitForRuns(lock, *item, call.function(), call.caller());
    framework.Dereference(lock, *item);
}

}  // namespace functions
}  // namespace host::framework
