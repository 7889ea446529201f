// I/O targets: a driver holds the device of another open, and is notified when that device shall be or is removed.
//
// Without callbacks of the driver's own the framework closes the target for the query, opens it again when the removal
// is cancelled, and closes it when the device is removed.
#include "host/framework/device_callbacks.h"
#include "host/framework/functions.h"
#include "host/framework/plug_play.h"

#include <algorithm>

namespace host::framework {

using checks::Rule;
using State = IoTargetObject::State;

namespace {

// Targets on a device that are open, or were until the query; the mutex is held.
std::vector<IoTargetObject*> TargetsOn(const Framework& framework, const DeviceObject& device)
{
    std::vector<IoTargetObject*> targets;
    framework.handles.ForEach([&](const Object& object) {
        if (object.type == ObjectType::kIoTarget && !object.IsDeleted()) {
            auto& target = const_cast<IoTargetObject&>(static_cast<const IoTargetObject&>(object));
            if (target.device == &device) {
                targets.push_back(&target);
            }
        }
    });
    return targets;
}

// The enabled interface that bears a name; the mutex is held.
DeviceObject* DeviceByInterface(const Framework& framework, const std::string& lowerCaseName)
{
    for (const auto& instance : framework.drivers) {
        for (DeviceObject* device : instance->devices) {
            for (const DeviceInterface& interface : device->interfaces) {
                if (interface.enabled && kernel::LowerCase(InterfaceName(*device, interface)) == lowerCaseName) {
                    return device;
                }
            }
        }
    }
    return nullptr;
}

NTSTATUS OpenOn(Framework& framework, IoTargetObject& target, DeviceObject& device)
{
    FileObjectObject* file = nullptr;
    const RequestResult result = OpenFile(framework, device, file);
    if (file == nullptr) {
        return NT_SUCCESS(result.status) ? STATUS_UNSUCCESSFUL : result.status;
    }
    std::unique_lock lock(framework.mutex);
    target.state = State::kOpen;
    target.device = &device;
    target.file = file;
    if (device.pnpState != PnpState::kSurpriseRemoved) {
        return STATUS_SUCCESS;  // this target is notified of a removal from now on
    }
    CloseTarget(framework, lock, target, State::kClosed);
    return STATUS_NO_SUCH_DEVICE;
}

void Close(Framework& framework, IoTargetObject& target, State state)
{
    std::unique_lock lock(framework.mutex);
    CloseTarget(framework, lock, target, state);
}

template <class Routine>
auto CallBack(Framework& framework, const char* name, Routine routine, const IoTargetObject& target)
{
    return framework.threads.Guarded(name, reinterpret_cast<const void*>(routine),
                                     [&] { return routine(static_cast<WDFIOTARGET>(target.handle)); });
}

void NotifyRemoveCanceled(Framework& framework, IoTargetObject& target, DeviceObject& device)
{
    if (target.removeCanceled != nullptr) {
        CallBack(framework, "EvtIoTargetRemoveCanceled", target.removeCanceled, target);
    } else if (target.state == State::kClosedForQueryRemove) {
        (void)OpenOn(framework, target, device);
    }
}

}  // namespace

void CloseTarget(Framework& framework, std::unique_lock<std::mutex>& lock, IoTargetObject& target, State state)
{
    FileObjectObject* file = target.file;
    target.file = nullptr;
    target.state = state;
    if (state == State::kClosed) {
        target.device = nullptr;
    }
    if (file != nullptr) {
        lock.unlock();
        CloseFile(framework, *file);
        lock.lock();
    }
}

void IoTargetObject::OnDispose(Framework& framework, std::unique_lock<std::mutex>& lock)
{
    CloseTarget(framework, lock, *this, State::kClosed);
}

NTSTATUS QueryRemove(Framework& framework, DeviceObject& device)
{
    std::vector<IoTargetObject*> targets;
    {
        const std::lock_guard lock(framework.mutex);
        targets = TargetsOn(framework, device);
    }
    std::vector<IoTargetObject*> agreed;
    NTSTATUS status = STATUS_SUCCESS;
    for (IoTargetObject* target : targets) {
        if (target->queryRemove == nullptr) {
            Close(framework, *target, State::kClosedForQueryRemove);
        } else {
            status = CallBack(framework, "EvtIoTargetQueryRemove", target->queryRemove, *target);
        }
        agreed.push_back(target);
        if (!NT_SUCCESS(status)) {
            break;
        }
    }
    if (NT_SUCCESS(status) && device.stopRemoveRefusals != 0) {
        status = STATUS_INVALID_DEVICE_STATE;
    }
    if (NT_SUCCESS(status)) {
        status = CallDeviceRoutine(framework, "EvtDeviceQueryRemove", device.power.EvtDeviceQueryRemove, device);
    }
    if (!NT_SUCCESS(status)) {
        for (IoTargetObject* target : agreed) {
            NotifyRemoveCanceled(framework, *target, device);
        }
    }
    return status;
}

void NotifyRemoveComplete(Framework& framework, DeviceObject& device)
{
    std::vector<IoTargetObject*> targets;
    {
        const std::lock_guard lock(framework.mutex);
        targets = TargetsOn(framework, device);
    }
    for (IoTargetObject* target : targets) {
        if (target->removeComplete != nullptr) {
            CallBack(framework, "EvtIoTargetRemoveComplete", target->removeComplete, *target);
        } else {
            Close(framework, *target, State::kClosed);
        }
    }
}

namespace functions {

NTSTATUS NTAPI IoTargetCreate(PWDF_DRIVER_GLOBALS, WDFDEVICE deviceHandle, PWDF_OBJECT_ATTRIBUTES attributes,
                              WDFIOTARGET* handle)
{
    const PlatformCall call("WdfIoTargetCreate", HOST_CALLER, PASSIVE_LEVEL);
    if (const std::optional<NTSTATUS> injected = Injected(call, handle)) {
        return *injected;
    }
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    auto* device = framework.objects.Resolve<DeviceObject>(call, deviceHandle, "Device");
    if (device == nullptr || !Requires(call, handle, "IoTarget")) {
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status = CheckAttributes(attributes, ObjectType::kIoTarget, ParentRule::kOptional);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    Object* parent = framework.objects.ParentFor(call, attributes, device, status);
    if (parent == nullptr) {
        return status;
    }
    auto object = std::make_unique<IoTargetObject>(device->driver);
    IoTargetObject& created = *object;
    framework.objects.ApplyAttributes(created, attributes);
    framework.objects.Register(std::move(object), parent);
    *handle = static_cast<WDFIOTARGET>(created.handle);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI IoTargetOpen(PWDF_DRIVER_GLOBALS, WDFIOTARGET handle, PWDF_IO_TARGET_OPEN_PARAMS parameters)
{
    const PlatformCall call("WdfIoTargetOpen", HOST_CALLER, PASSIVE_LEVEL);
    if (call.fault()) {
        return call.fault()->status;
    }
    Framework& framework = Framework::Current();
    IoTargetObject* target = nullptr;
    DeviceObject* device = nullptr;
    {
        const std::lock_guard lock(framework.mutex);
        target = framework.objects.Resolve<IoTargetObject>(call, handle, "IoTarget");
        if (target == nullptr || !Requires(call, parameters, "OpenParams")) {
            return STATUS_INVALID_PARAMETER;
        }
        if (parameters->Size != sizeof(WDF_IO_TARGET_OPEN_PARAMS)) {
            return STATUS_INFO_LENGTH_MISMATCH;
        }
        if (parameters->Type == WdfIoTargetOpenReopen) {
            if (target->state != State::kClosedForQueryRemove) {
                return STATUS_INVALID_DEVICE_STATE;
            }
            device = target->device;
        } else if (parameters->Type == WdfIoTargetOpenByName) {
            if (target->state != State::kClosed) {
                return STATUS_INVALID_DEVICE_STATE;
            }
            const UNICODE_STRING& name = parameters->TargetDeviceName;
            if (!kernel::IsWellFormed(name) || name.Buffer == nullptr || name.Length == 0) {
                return STATUS_INVALID_PARAMETER;
            }
            device = DeviceByInterface(framework, kernel::LowerCase(kernel::Narrow(name)));
            target->queryRemove = parameters->EvtIoTargetQueryRemove;
            target->removeCanceled = parameters->EvtIoTargetRemoveCanceled;
            target->removeComplete = parameters->EvtIoTargetRemoveComplete;
        } else {
            call.Violation(Rule::kNotProvided, "this host opens targets by name only");
            return STATUS_NOT_IMPLEMENTED;
        }
        if (device == nullptr) {
            return STATUS_OBJECT_NAME_NOT_FOUND;
        }
        ObjectTree::Reference(*device);
    }
    const NTSTATUS status = OpenOn(framework, *target, *device);
    std::unique_lock lock(framework.mutex);
    framework.objects.Dereference(lock, *device);
    return status;
}

void NTAPI IoTargetCloseForQueryRemove(PWDF_DRIVER_GLOBALS, WDFIOTARGET handle)
{
    const PlatformCall call("WdfIoTargetCloseForQueryRemove", HOST_CALLER, PASSIVE_LEVEL);
    Framework& framework = Framework::Current();
    std::unique_lock lock(framework.mutex);
    if (auto* target = framework.objects.Resolve<IoTargetObject>(call, handle, "IoTarget")) {
        if (target->state == State::kOpen) {
            CloseTarget(framework, lock, *target, State::kClosedForQueryRemove);
        }
    }
}

void NTAPI IoTargetClose(PWDF_DRIVER_GLOBALS, WDFIOTARGET handle)
{
    const PlatformCall call("WdfIoTargetClose", HOST_CALLER, PASSIVE_LEVEL);
    Framework& framework = Framework::Current();
    std::unique_lock lock(framework.mutex);
    if (auto* target = framework.objects.Resolve<IoTargetObject>(call, handle, "IoTarget")) {
        CloseTarget(framework, lock, *target, State::kClosed);
    }
}

NTSTATUS NTAPI IoTargetQueryForInterface(PWDF_DRIVER_GLOBALS, WDFIOTARGET handle, LPCGUID type, PINTERFACE table,
                                         USHORT size, USHORT version, PVOID)
{
    const PlatformCall call("WdfIoTargetQueryForInterface", HOST_CALLER, PASSIVE_LEVEL);
    if (call.fault()) {
        return call.fault()->status;
    }
    Framework& framework = Framework::Current();
    DeviceObject* device = nullptr;
    {
        const std::lock_guard lock(framework.mutex);
        const auto* target = framework.objects.Resolve<IoTargetObject>(call, handle, "IoTarget");
        if (target == nullptr || !Requires(call, type, "InterfaceType") || !Requires(call, table, "Interface")) {
            return STATUS_INVALID_PARAMETER;
        }
        if (target->state != State::kOpen) {
            call.Violation(Rule::kBadParameter,
                           Describe(*target) + " is not open; the real framework uses its device all the same");
            return STATUS_INVALID_DEVICE_STATE;
        }
        device = target->device;
    }
    return QueryInterfaceForDriver(framework, *device, *type, {reinterpret_cast<std::byte*>(table), size}, version);
}

}  // namespace functions
}  // namespace host::framework
