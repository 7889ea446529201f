// Work items: the calls of the table, and the disposal, which drops later enqueues and waits for what is queued or
// running.
#include "host/armed.h"
#include "host/framework/devices.h"
#include "host/framework/functions.h"

namespace host::framework {

using checks::Rule;

void WorkItemObject::OnDispose(Framework& framework, std::unique_lock<std::mutex>& lock)
{
    disposing = true;
    if (callbackThread != ThreadState::Current().id) {
        framework.work.WaitForRuns(lock, *this, "work item disposal", reinterpret_cast<const void*>(routine));
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
    NTSTATUS status = CheckAttributes(attributes, ObjectType::kWorkItem, ParentRule::kRequired);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (config->Size != sizeof(WDF_WORKITEM_CONFIG)) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    if (config->EvtWorkItemFunc == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    Object* parent = framework.objects.ParentFor(call, attributes, nullptr, status);
    if (parent == nullptr) {
        return status;
    }
    const Object* device = parent;
    while (device != nullptr && device->type != ObjectType::kDevice) {
        device = device->parent();
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
    auto object = std::make_unique<WorkItemObject>(framework.drivers.Of(globals));
    WorkItemObject& item = *object;
    item.routine = config->EvtWorkItemFunc;
    item.name = framework.environment.modules.FunctionAt(reinterpret_cast<const void*>(config->EvtWorkItemFunc));
    framework.objects.ApplyAttributes(item, attributes);
    framework.objects.Register(std::move(object), parent);
    *handle = static_cast<WDFWORKITEM>(item.handle);
    return call.Done();
}

namespace {

[[gnu::noinline]] void NTAPI EnqueueChecked(PWDF_DRIVER_GLOBALS, WDFWORKITEM handle)
{
    const PlatformCall call("WdfWorkItemEnqueue", HOST_CALLER, DISPATCH_LEVEL);
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    auto* item = framework.objects.Resolve<WorkItemObject>(call, handle, "WorkItem");
    if (item == nullptr) {
        return;
    }
    if (item->queued) {
        schedule::Release(&item->queued);
        return;
    }
    if (item->disposing) {
        call.Violation(Rule::kWorkItemGone, Describe(*item) + " is being deleted; the enqueue is dropped");
        return;
    }
    schedule::Release(&item->queued);
    framework.work.Enqueue(*item);
}

}  // namespace

// One that is queued already stays so; the exchange orders what the caller did before it and what the run will see.
void NTAPI WorkItemEnqueue(PWDF_DRIVER_GLOBALS globals, WDFWORKITEM handle)
{
    if (!IsAnythingArmed() && ThreadState::IsAtMost(APC_LEVEL)) {
        const Slot* slot = HandleTable::Current().Find(handle);
        if (slot != nullptr && slot->type == ObjectType::kWorkItem) {
            auto* item = static_cast<WorkItemObject*>(slot->object.load(std::memory_order_acquire));
            bool isQueued = true;
            if (item != nullptr && item->queued.compare_exchange_strong(isQueued, true) &&
                slot->object.load(std::memory_order_relaxed) == item) {
                return;
            }
        }
    }
    [[clang::musttail]] return EnqueueChecked(globals, handle);
}

WDFOBJECT NTAPI WorkItemGetParentObject(PWDF_DRIVER_GLOBALS, WDFWORKITEM handle)
{
    const PlatformCall call("WdfWorkItemGetParentObject", HOST_CALLER, DISPATCH_LEVEL);
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    const auto* item = framework.objects.Resolve<WorkItemObject>(call, handle, "WorkItem");
    return item == nullptr || item->parent() == nullptr ? nullptr : item->parent()->handle;
}

void NTAPI WorkItemFlush(PWDF_DRIVER_GLOBALS, WDFWORKITEM handle)
{
    const PlatformCall call("WdfWorkItemFlush", HOST_CALLER, PASSIVE_LEVEL);
    Framework& framework = Framework::Current();
    std::unique_lock lock(framework.mutex);
    auto* item = framework.objects.Resolve<WorkItemObject>(call, handle, "WorkItem");
    if (item == nullptr) {
        return;
    }
    if (item->callbackThread == ThreadState::Current().id) {
        call.Violation(Rule::kSelfWait, Describe(*item) + " is flushed by its own callback; the call returns at once");
        return;
    }
    ObjectTree::Reference(*item);
    framework.work.WaitForRuns(lock, *item, call.function(), call.caller());
    framework.objects.Dereference(lock, *item);
}

}  // namespace functions
}  // namespace host::framework
