// From the init structure to the device: init functions record, WdfDeviceCreate acts.
#include "host/framework/device_init.h"

#include "host/framework/functions.h"

#include <algorithm>

namespace host::framework {

using checks::Rule;

bool IsUsable(const PlatformCall& call, const WDFDEVICE_INIT* init)
{
    if (!Requires(call, init, "DeviceInit")) {
        return false;
    }
    if (init->consumed) {
        call.Violation(Rule::kBadParameter, "the init structure was consumed by WdfDeviceCreate");
        return false;
    }
    return true;
}

bool HasSize(const PlatformCall& call, ULONG size, std::initializer_list<std::size_t> expected)
{
    if (std::ranges::find(expected, size) != expected.end()) {
        return true;
    }
    call.Violation(Rule::kBadParameter, "a structure of " + std::to_string(size) + " bytes instead of " +
                                            std::to_string(*expected.begin()) + "; nothing is recorded");
    return false;
}

namespace functions {

void NTAPI DeviceInitSetIoType(PWDF_DRIVER_GLOBALS, PWDFDEVICE_INIT init, WDF_DEVICE_IO_TYPE ioType)
{
    const PlatformCall call("WdfDeviceInitSetIoType", HOST_CALLER, DISPATCH_LEVEL);
    if (IsUsable(call, init)) {
        init->ioType = ioType;
    }
}

NTSTATUS NTAPI DeviceInitAssignName(PWDF_DRIVER_GLOBALS, PWDFDEVICE_INIT init, PCUNICODE_STRING name)
{
    const std::string text = kernel::NameText(name);
    const PlatformCall call("WdfDeviceInitAssignName", HOST_CALLER, PASSIVE_LEVEL, text.c_str());
    if (call.IsRefused()) {
        return call.fault()->status;
    }
    if (!IsUsable(call, init) || (name != nullptr && !kernel::IsWellFormed(*name))) {
        return STATUS_INVALID_PARAMETER;
    }
    init->name = text;
    return call.Done();
}

void NTAPI DeviceInitSetPnpPowerEventCallbacks(PWDF_DRIVER_GLOBALS, PWDFDEVICE_INIT init,
                                               PWDF_PNPPOWER_EVENT_CALLBACKS callbacks)
{
    const PlatformCall call("WdfDeviceInitSetPnpPowerEventCallbacks", HOST_CALLER, DISPATCH_LEVEL);
    if (IsUsable(call, init) && Requires(call, callbacks, "PnpPowerEventCallbacks") &&
        HasSize(call, callbacks->Size, {sizeof(WDF_PNPPOWER_EVENT_CALLBACKS)})) {
        init->powerCallbacks = *callbacks;
    }
}

void NTAPI DeviceInitSetFileObjectConfig(PWDF_DRIVER_GLOBALS, PWDFDEVICE_INIT init, PWDF_FILEOBJECT_CONFIG config,
                                         PWDF_OBJECT_ATTRIBUTES attributes)
{
    const PlatformCall call("WdfDeviceInitSetFileObjectConfig", HOST_CALLER, DISPATCH_LEVEL);
    if (IsUsable(call, init) && Requires(call, config, "FileObjectConfig") &&
        HasSize(call, config->Size, {sizeof(WDF_FILEOBJECT_CONFIG)})) {
        if (attributes != nullptr && !HasSize(call, attributes->Size, {sizeof(WDF_OBJECT_ATTRIBUTES)})) {
            return;
        }
        init->fileConfig = *config;
        init->hasFileConfig = true;
        init->fileAttributes = attributes != nullptr ? std::optional(*attributes) : std::nullopt;
    }
}

NTSTATUS NTAPI DeviceCreate(PWDF_DRIVER_GLOBALS globals, PWDFDEVICE_INIT* initPointer,
                            PWDF_OBJECT_ATTRIBUTES attributes, WDFDEVICE* handle)
{
    const PlatformCall call("WdfDeviceCreate", HOST_CALLER, PASSIVE_LEVEL);
    ClearOnEntry(handle);
    if (const std::optional<NTSTATUS> injected = Injected(call, handle)) {
        return *injected;
    }
    if (!Requires(call, initPointer, "DeviceInit") || !Requires(call, handle, "Device") ||
        !IsUsable(call, *initPointer)) {
        return STATUS_INVALID_PARAMETER;
    }
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    DriverInstance* instance = framework.drivers.Of(globals);
    if (instance == nullptr || instance->driver == nullptr) {
        call.Violation(Rule::kForeignHandle, "the driver globals belong to no driver that has an object");
        return STATUS_INVALID_PARAMETER;
    }
    const NTSTATUS status = CheckAttributes(attributes, ObjectType::kDevice, ParentRule::kForbidden);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    WDFDEVICE_INIT& init = **initPointer;
    const std::string name = kernel::LowerCase(init.name);
    if (!name.empty() && !framework.names.Take(name)) {
        return STATUS_OBJECT_NAME_COLLISION;
    }

    auto object = std::make_unique<DeviceObject>(instance);
    DeviceObject& device = *object;
    device.name = init.name;
    device.deviceName = name;
    device.power = init.powerCallbacks;
    device.files = init.fileConfig;
    device.hasFiles = init.hasFileConfig;
    device.fileAttributes = init.fileAttributes;
    device.settings = init.settings;
    device.wdm = std::make_unique<WdmDeviceObjects>(framework.kernel, *instance, init);
    framework.objects.ApplyAttributes(device, attributes);
    framework.objects.Register(std::move(object), instance->driver);
    instance->devices.push_back(&device);
    init.consumed = true;
    *initPointer = nullptr;
    *handle = static_cast<WDFDEVICE>(device.handle);
    return call.Done();
}

}  // namespace functions
}  // namespace host::framework
