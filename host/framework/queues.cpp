// I/O queues: creation, and the disposal that waits for the requests which the driver still has.
#include "host/framework/devices.h"
#include "host/framework/functions.h"
#include "host/schedule/parking.h"

#include <cstring>

namespace host::framework {

void QueueObject::OnDispose(Framework& framework, std::unique_lock<std::mutex>& lock)
{
    purged = true;
    CancelWaiting(framework, lock, *this, nullptr, STATUS_CANCELLED);
    // The driver may complete the rest from a work item.
    schedule::Outcome outcome;
    while (!presented.empty() && framework.work.HasItems() && framework.work.RunOne(lock, outcome)) {
    }
    const auto isOver = [&] {
        return presented.empty() || (!framework.work.HasItems() && !framework.work.IsRunning());
    };
    (void)framework.threads.WaitFor(lock,
                                    {.subject = [this] { return "the requests of " + Describe(*this); },
                                     .isReady = isOver,
                                     .heldBy = [&] { return deliveringOn; }},
                                    "queue disposal", nullptr);
    if (!presented.empty()) {
        const std::string reason = "waits for " + Describe(*presented.front()) + ", which the driver never completed";
        lock.unlock();
        framework.environment.Report(checks::Rule::kRequestNotCompleted, "queue disposal", reason, nullptr);
        schedule::ParkThisThread(reason);
    }
    std::erase(device->queues, this);
    if (device->defaultQueue == this) {
        device->defaultQueue = nullptr;
    }
}

namespace functions {
namespace {

bool HasHandler(const WDF_IO_QUEUE_CONFIG& config)
{
    return config.EvtIoDefault != nullptr || config.EvtIoRead != nullptr || config.EvtIoWrite != nullptr ||
           config.EvtIoDeviceControl != nullptr || config.EvtIoInternalDeviceControl != nullptr;
}

NTSTATUS CheckDispatching(const WDF_IO_QUEUE_CONFIG& config)
{
    int type = 0;  // not read as the enumeration: a driver may pass what is none of its values
    static_assert(sizeof(type) == sizeof(config.DispatchType));
    std::memcpy(&type, &config.DispatchType, sizeof(type));
    if (type <= WdfIoQueueDispatchInvalid || type > WdfIoQueueDispatchManual) {
        return STATUS_INVALID_PARAMETER;
    }
    const bool isManual = type == WdfIoQueueDispatchManual;
    if (isManual == HasHandler(config)) {
        return isManual ? STATUS_INVALID_PARAMETER : STATUS_WDF_NO_CALLBACK;
    }
    return type != WdfIoQueueDispatchParallel && config.Settings.Parallel.NumberOfPresentedRequests != 0
               ? STATUS_INVALID_PARAMETER
               : STATUS_SUCCESS;
}

}  // namespace

NTSTATUS NTAPI IoQueueCreate(PWDF_DRIVER_GLOBALS globals, WDFDEVICE deviceHandle, PWDF_IO_QUEUE_CONFIG config,
                             PWDF_OBJECT_ATTRIBUTES attributes, WDFQUEUE* handle)
{
    const PlatformCall call("WdfIoQueueCreate", HOST_CALLER, DISPATCH_LEVEL);
    if (const std::optional<NTSTATUS> injected = Injected(call, handle)) {
        return *injected;
    }
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    auto* device = framework.objects.Resolve<DeviceObject>(call, deviceHandle, "Device");
    if (device == nullptr || !Requires(call, config, "Config")) {
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status = CheckAttributes(attributes, ObjectType::kQueue, ParentRule::kOptional);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (config->Size != sizeof(WDF_IO_QUEUE_CONFIG)) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    const bool isDefault = config->DefaultQueue != FALSE;
    if (handle == nullptr && !isDefault) {
        return STATUS_INVALID_PARAMETER_4;
    }
    if (isDefault && device->pnpState != PnpState::kAdded) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    Object* parent = framework.objects.ParentFor(call, attributes, device, status);
    if (parent == nullptr) {
        return status;
    }
    const Object* above = parent;
    while (above != nullptr && above != device) {
        above = above->parent();
    }
    if (above == nullptr) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    status = CheckDispatching(*config);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (isDefault && device->defaultQueue != nullptr) {
        return STATUS_UNSUCCESSFUL;
    }

    auto object = std::make_unique<QueueObject>(framework.drivers.Of(globals));
    QueueObject& queue = *object;
    queue.device = device;
    queue.config = *config;
    queue.noDelete = isDefault;
    framework.objects.ApplyAttributes(queue, attributes);
    framework.objects.Register(std::move(object), parent);
    // A function driver's queues are power-managed unless it says otherwise.
    queue.powerManaged = config->PowerManaged != WdfFalse;
    device->queues.push_back(&queue);
    if (isDefault) {
        device->defaultQueue = &queue;
    }
    if (handle != nullptr) {
        *handle = static_cast<WDFQUEUE>(queue.handle);
    }
    return call.Done();
}

WDFDEVICE NTAPI IoQueueGetDevice(PWDF_DRIVER_GLOBALS, WDFQUEUE handle)
{
    const PlatformCall call("WdfIoQueueGetDevice", HOST_CALLER, DISPATCH_LEVEL);
    if (call.fault()) {
        return nullptr;
    }
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    const auto* queue = framework.objects.Resolve<QueueObject>(call, handle, "Queue");
    return queue == nullptr ? nullptr : static_cast<WDFDEVICE>(queue->device->handle);
}

}  // namespace functions
}  // namespace host::framework
