// Work items: queued at most once, run at PASSIVE_LEVEL on threads of the host, either when asked to or at once. Runs of
// one item may overlap. An item's end drops later enqueues and waits for what is queued or running.
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
        item.runningOn.push_back(self);
    }
    Guarded("EvtWorkItem", reinterpret_cast<const void*>(item.routine),
            [&] { item.routine(static_cast<WDFWORKITEM>(item.handle)); });
    std::unique_lock lock(mutex);
    item.runningOn.erase(std::find(item.runningOn.begin(), item.runningOn.end(), self));
    item.ended.notify_all();
    Dereference(lock, item);
}

bool Framework::RunOneWorkItem(schedule::Outcome& outcome)
{
    WorkItemObject* item = nullptr;
    {
        const std::lock_guard lock(mutex);
        if (workQueue.empty()) {
            return false;
        }
        item = workQueue.front();
        workQueue.pop_front();
        item->queued = false;
        Reference(*item);  // given back by the callback's end; a parked one keeps it
    }
    outcome = threads.Run("system worker", [this, item] { RunCallback(*item); });
    if (outcome.parked) {
        const std::lock_guard lock(mutex);
        ++item->parked;
        item->ended.notify_all();
    }
    return true;
}

void Framework::WorkerLoop(unsigned number)
{
    ThreadState::Current().name = "system worker " + std::to_string(number);
    std::unique_lock lock(mutex);
    while (!stopping_) {
        if (workQueue.empty()) {
            workChanged.wait(lock);
            continue;
        }
        WorkItemObject* item = workQueue.front();
        workQueue.pop_front();
        item->queued = false;
        Reference(*item);
        ++workRunning;
        lock.unlock();
        const schedule::Outcome outcome =
            threads.Run(ThreadState::Current().name, [this, item] { RunCallback(*item); });
        lock.lock();
        if (outcome.parked) {
            ++item->parked;
            item->ended.notify_all();
        }
        --workRunning;
        workChanged.notify_all();
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
    workChanged.wait(lock, [this] { return workQueue.empty() && workRunning == 0; });
}

void Framework::DisposeWorkItem(std::unique_lock<std::mutex>& lock, WorkItemObject& item)
{
    item.gone = true;
    const std::uint64_t self = ThreadState::Current().id;
    // In pumped mode nobody else would run what is queued.
    while (item.queued && environment.options.workItems == WorkItems::kPumped) {
        std::erase(workQueue, &item);
        workQueue.push_front(&item);
        lock.unlock();
        schedule::Outcome outcome;
        RunOneWorkItem(outcome);
        lock.lock();
    }
    const bool ownCallback = std::find(item.runningOn.begin(), item.runningOn.end(), self) != item.runningOn.end();
    while (!ownCallback && (item.queued || !item.runningOn.empty())) {
        if (item.parked != 0) {
            const std::string reason = "waits for the end of " + Describe(item) + ", whose callback is parked";
            lock.unlock();
            environment.Report(Rule::kDeadlock, "work item end", reason, reinterpret_cast<const void*>(item.routine));
            schedule::ParkThisThread(reason);
        }
        item.ended.wait(lock);
    }
}

namespace functions {

NTSTATUS NTAPI WorkItemCreate(PWDF_DRIVER_GLOBALS globals, PWDF_WORKITEM_CONFIG config,
                              PWDF_OBJECT_ATTRIBUTES attributes, WDFWORKITEM* handle)
{
    const PlatformCall call("WdfWorkItemCreate", HOST_CALLER, DISPATCH_LEVEL);
    if (call.fault()) {
        return call.fault()->status;
    }
    if (!Requires(call, config, "Config") || !Requires(call, handle, "WorkItem")) {
        return STATUS_INVALID_PARAMETER;
    }
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    NTSTATUS status = framework.CheckAttributes(call, attributes, ObjectType::kWorkItem,
                                                Framework::ParentRule::kRequired);
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
    if (config->AutomaticSerialization != FALSE && scoped && parent->executionLevel != WdfExecutionLevelPassive) {
        return STATUS_WDF_INCOMPATIBLE_EXECUTION_LEVEL;
    }
    auto object = std::make_unique<WorkItemObject>(framework.InstanceOf(globals));
    WorkItemObject& item = *object;
    item.routine = config->EvtWorkItemFunc;
    item.name = framework.environment.modules.FunctionAt(reinterpret_cast<const void*>(config->EvtWorkItemFunc));
    framework.ApplyAttributes(item, attributes);
    framework.Register(std::move(object), parent);
    *handle = static_cast<WDFWORKITEM>(item.handle);
    return STATUS_SUCCESS;
}

void NTAPI WorkItemEnqueue(PWDF_DRIVER_GLOBALS, WDFWORKITEM handle)
{
    const PlatformCall call("WdfWorkItemEnqueue", HOST_CALLER, DISPATCH_LEVEL);
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    auto* item = framework.Resolve<WorkItemObject>(call, handle, "WorkItem");
    if (item == nullptr || item->queued) {
        return;
    }
    if (item->gone) {
        call.Violation(Rule::kWorkItemGone, Framework::Describe(*item) + " is being deleted; the enqueue is dropped");
        return;
    }
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
    const bool wasGone = item->gone;
    framework.DisposeWorkItem(lock, *item);  // the same waiting; the item lives on
    item->gone = wasGone;
}

}  // namespace functions
}  // namespace host::framework
