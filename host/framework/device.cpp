// A device as plug and play drives it: add, start, sleep, wake, surprise removal, removal.
#include "host/framework/device_callbacks.h"
#include "host/framework/functions.h"
#include "host/framework/plug_play.h"
#include "host/framework/resource_lists.h"

namespace host::framework {

using checks::Rule;

namespace {

// Under the lock: a client that opens the device on another thread reads it.
void SetPnpState(Framework& framework, DeviceObject& device, PnpState pnpState)
{
    const std::lock_guard lock(framework.mutex);
    device.pnpState = pnpState;
}

WDFDEVICE HandleOf(const DeviceObject& device)
{
    return static_cast<WDFDEVICE>(device.handle);
}

NTSTATUS FirstNotSuccess(NTSTATUS first, NTSTATUS second)
{
    return first != STATUS_SUCCESS ? first : second;
}

void SetD0(Framework& framework, DeviceObject& device, bool inD0)
{
    const std::lock_guard lock(framework.mutex);
    device.inD0 = inD0;
}

// What follows the driver's D0 entry. The queues go on before the driver's own I/O starts.
NTSTATUS FinishD0Entry(Framework& framework, DeviceObject& device, WDF_POWER_DEVICE_STATE previous)
{
    const NTSTATUS enabled = CallDeviceRoutine(framework, "EvtDeviceD0EntryPostInterruptsEnabled",
                                               device.power.EvtDeviceD0EntryPostInterruptsEnabled, device, previous);
    if (!NT_SUCCESS(enabled)) {
        return enabled;
    }
    {
        std::unique_lock lock(framework.mutex);
        device.inD0 = true;
        for (QueueObject* queue : std::vector<QueueObject*>(device.queues)) {
            Deliver(framework, lock, *queue);  // what arrived while the device slept
        }
    }
    const NTSTATUS started = device.selfManagedIo.Start(framework, device);
    return NT_SUCCESS(started) ? FirstNotSuccess(enabled, started) : started;
}

NTSTATUS CallD0Entry(Framework& framework, DeviceObject& device, WDF_POWER_DEVICE_STATE previous)
{
    const NTSTATUS entered =
        CallDeviceRoutine(framework, "EvtDeviceD0Entry", device.power.EvtDeviceD0Entry, device, previous);
    if (!NT_SUCCESS(entered)) {
        SetD0(framework, device, false);
        return entered;
    }
    const NTSTATUS finished = FinishD0Entry(framework, device, previous);
    if (!NT_SUCCESS(finished)) {
        SetD0(framework, device, false);
        (void)CallDeviceRoutine(framework, "EvtDeviceD0Exit", device.power.EvtDeviceD0Exit, device,
                                WdfPowerDeviceD3Final);
        return finished;
    }
    return FirstNotSuccess(entered, finished);
}

NTSTATUS CallD0Exit(Framework& framework, DeviceObject& device, WDF_POWER_DEVICE_STATE target)
{
    NTSTATUS status = device.selfManagedIo.Suspend(framework, device);
    SetD0(framework, device, false);
    status =
        FirstNotSuccess(status, CallDeviceRoutine(framework, "EvtDeviceD0ExitPreInterruptsDisabled",
                                                  device.power.EvtDeviceD0ExitPreInterruptsDisabled, device, target));
    return FirstNotSuccess(
        status, CallDeviceRoutine(framework, "EvtDeviceD0Exit", device.power.EvtDeviceD0Exit, device, target));
}

NTSTATUS CallReleaseHardware(Framework& framework, DeviceObject& device)
{
    if (const auto routine = device.power.EvtDeviceReleaseHardware) {
        return framework.threads.Guarded("EvtDeviceReleaseHardware", reinterpret_cast<const void*>(routine),
                                         [&] { return routine(HandleOf(device), device.resourcesTranslated); });
    }
    return STATUS_SUCCESS;
}

void SetAllInterfaces(Framework& framework, DeviceObject& device, bool enabled)
{
    const std::lock_guard lock(framework.mutex);
    for (DeviceInterface& interface : device.interfaces) {
        SetInterface(framework, device, interface, enabled);
    }
}

void DropSymbolicLink(Framework& framework, DeviceObject& device)
{
    const std::lock_guard lock(framework.mutex);
    framework.names.Release(device.symbolicLink);
    device.symbolicLink.clear();
}

// From here on a queue refuses new requests, and those that wait in it fail.
void Purge(Framework& framework, DeviceObject& device, bool onlyPowerManaged)
{
    std::unique_lock lock(framework.mutex);
    for (QueueObject* queue : std::vector<QueueObject*>(device.queues)) {
        if (queue->powerManaged || !onlyPowerManaged) {
            queue->purged = true;
            CancelWaiting(framework, lock, *queue, nullptr, STATUS_CANCELLED);
        }
    }
}

}  // namespace

void DeviceObject::OnFinished(Framework& framework, std::unique_lock<std::mutex>& lock)
{
    framework.work.WaitForDisposals(lock, *this);
}

void DisposeDevice(Framework& framework, DeviceObject& device)
{
    DropSymbolicLink(framework, device);
    Purge(framework, device, false);
    device.selfManagedIo.Cleanup(framework, device);
    std::unique_lock lock(framework.mutex);
    device.pnpState = PnpState::kRemoved;
    framework.names.Release(device.deviceName);
    device.driver->devices.remove(&device);
    framework.objects.Delete(lock, device);
}

NTSTATUS AddDevice(Framework& framework, DriverInstance& driver)
{
    const auto add = driver.driver->config.EvtDriverDeviceAdd;
    if (add == nullptr) {
        throw HostError(driver.service + ": the driver has no device-add routine");
    }
    WDFDEVICE_INIT init;
    init.driver = &driver;
    const std::size_t devicesBefore = driver.devices.size();
    const NTSTATUS status = framework.threads.Guarded("EvtDriverDeviceAdd", reinterpret_cast<const void*>(add), [&] {
        return add(static_cast<WDFDRIVER>(driver.driver->handle), &init);
    });
    if (!NT_SUCCESS(status) && driver.devices.size() > devicesBefore) {
        DisposeDevice(framework, *driver.devices.back());
    }
    return status;
}

NTSTATUS StartDevice(Framework& framework, DeviceObject& device)
{
    NTSTATUS status = STATUS_SUCCESS;
    if (device.power.EvtDevicePrepareHardware != nullptr || device.power.EvtDeviceReleaseHardware != nullptr) {
        device.resourcesTranslated = NewResourceList(framework, device);
    }
    if (const auto routine = device.power.EvtDevicePrepareHardware) {
        const WDFCMRESLIST resourcesRaw = NewResourceList(framework, device);
        status = framework.threads.Guarded("EvtDevicePrepareHardware", reinterpret_cast<const void*>(routine), [&] {
            return routine(HandleOf(device), resourcesRaw, device.resourcesTranslated);
        });
    }
    if (NT_SUCCESS(status)) {
        const NTSTATUS entered = CallD0Entry(framework, device, WdfPowerDeviceD3Final);
        status = NT_SUCCESS(entered) ? FirstNotSuccess(status, entered) : entered;
    }
    if (!NT_SUCCESS(status)) {
        (void)CallReleaseHardware(framework, device);
        device.selfManagedIo.Flush(framework, device);
        return status;
    }
    SetAllInterfaces(framework, device, true);
    SetPnpState(framework, device, PnpState::kStarted);
    return status;
}

NTSTATUS SleepDevice(Framework& framework, DeviceObject& device)
{
    return CallD0Exit(framework, device, WdfPowerDeviceD3);
}

NTSTATUS WakeDevice(Framework& framework, DeviceObject& device)
{
    return CallD0Entry(framework, device, WdfPowerDeviceD3);
}

NTSTATUS SurpriseRemoveDevice(Framework& framework, DeviceObject& device)
{
    NTSTATUS status = STATUS_SUCCESS;
    if (const auto routine = device.power.EvtDeviceSurpriseRemoval) {
        framework.threads.Guarded("EvtDeviceSurpriseRemoval", reinterpret_cast<const void*>(routine),
                                  [&] { routine(HandleOf(device)); });
    }
    if (device.inD0) {
        status = CallD0Exit(framework, device, WdfPowerDeviceD3Final);
    }
    status = FirstNotSuccess(status, CallReleaseHardware(framework, device));
    SetAllInterfaces(framework, device, false);
    DropSymbolicLink(framework, device);
    Purge(framework, device, true);
    device.selfManagedIo.Flush(framework, device);
    SetPnpState(framework, device, PnpState::kSurpriseRemoved);
    NotifyRemoveComplete(framework, device);
    return status;
}

void RemoveDevice(Framework& framework, DeviceObject& device)
{
    if (device.pnpState == PnpState::kStarted) {  // an orderly removal: the query was not refused
        if (device.inD0) {
            (void)CallD0Exit(framework, device, WdfPowerDeviceD3Final);
        }
        (void)CallReleaseHardware(framework, device);
        SetAllInterfaces(framework, device, false);
        Purge(framework, device, true);
        device.selfManagedIo.Flush(framework, device);
        NotifyRemoveComplete(framework, device);
    }
    DisposeDevice(framework, device);
}

namespace functions {

WDFDRIVER NTAPI DeviceGetDriver(PWDF_DRIVER_GLOBALS, WDFDEVICE handle)
{
    const PlatformCall call("WdfDeviceGetDriver", HOST_CALLER, DISPATCH_LEVEL);
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    const auto* device = framework.objects.Resolve<DeviceObject>(call, handle, "Device");
    return device == nullptr ? nullptr : static_cast<WDFDRIVER>(device->driver->driver->handle);
}

void NTAPI DeviceSetStaticStopRemove(PWDF_DRIVER_GLOBALS, WDFDEVICE handle, BOOLEAN stoppable)
{
    const PlatformCall call("WdfDeviceSetStaticStopRemove", HOST_CALLER, DISPATCH_LEVEL,
                            stoppable != FALSE ? "allows" : "refuses");
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    if (auto* device = framework.objects.Resolve<DeviceObject>(call, handle, "Device")) {
        device->stopRemoveRefusals += stoppable != FALSE ? -1 : 1;
    }
}

NTSTATUS NTAPI DeviceCreateSymbolicLink(PWDF_DRIVER_GLOBALS, WDFDEVICE handle, PCUNICODE_STRING name)
{
    const std::string text = kernel::NameText(name);
    const PlatformCall call("WdfDeviceCreateSymbolicLink", HOST_CALLER, PASSIVE_LEVEL, text.c_str());
    if (call.IsRefused()) {
        return call.fault()->status;
    }
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    auto* device = framework.objects.Resolve<DeviceObject>(call, handle, "Device");
    if (device == nullptr || !Requires(call, name, "SymbolicLinkName") || !kernel::IsWellFormed(*name)) {
        return STATUS_INVALID_PARAMETER;
    }
    if (!device->symbolicLink.empty()) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    const std::string link = kernel::LowerCase(text);
    if (!framework.names.Take(link)) {
        return STATUS_OBJECT_NAME_COLLISION;
    }
    device->symbolicLink = link;
    return call.Done();
}

WDFQUEUE NTAPI DeviceGetDefaultQueue(PWDF_DRIVER_GLOBALS, WDFDEVICE handle)
{
    const PlatformCall call("WdfDeviceGetDefaultQueue", HOST_CALLER, DISPATCH_LEVEL);
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    const auto* device = framework.objects.Resolve<DeviceObject>(call, handle, "Device");
    return device == nullptr || device->defaultQueue == nullptr ? nullptr
                                                                : static_cast<WDFQUEUE>(device->defaultQueue->handle);
}

}  // namespace functions
}  // namespace host::framework
