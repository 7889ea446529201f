// Init functions of devices that record a setting, and the power policy. The devices of this machine cannot wake
// themselves or the system, so they are never armed for it. When one sleeps and wakes is for who plays the machine to
// say: idle settings are checked and kept.
#include "host/framework/device_init.h"
#include "host/framework/functions.h"

namespace host::framework::functions {

using checks::Rule;

namespace {

// Records one setting, unless the structure cannot be used.
template <class Record>
void RecordSetting(const PlatformCall& call, WDFDEVICE_INIT* init, const Record& record)
{
    if (IsUsable(call, init)) {
        record(init->settings);
    }
}

}  // namespace

void NTAPI DeviceInitSetExclusive(PWDF_DRIVER_GLOBALS, PWDFDEVICE_INIT init, BOOLEAN exclusive)
{
    const PlatformCall call("WdfDeviceInitSetExclusive", HOST_CALLER, DISPATCH_LEVEL);
    RecordSetting(call, init, [&](DeviceSettings& settings) { settings.exclusive = exclusive != FALSE; });
}

void NTAPI DeviceInitSetPowerNotPageable(PWDF_DRIVER_GLOBALS, PWDFDEVICE_INIT init)
{
    const PlatformCall call("WdfDeviceInitSetPowerNotPageable", HOST_CALLER, DISPATCH_LEVEL);
    RecordSetting(call, init, [](DeviceSettings& settings) { settings.powerPageable = false; });
}

void NTAPI DeviceInitSetPowerPageable(PWDF_DRIVER_GLOBALS, PWDFDEVICE_INIT init)
{
    const PlatformCall call("WdfDeviceInitSetPowerPageable", HOST_CALLER, DISPATCH_LEVEL);
    RecordSetting(call, init, [](DeviceSettings& settings) { settings.powerPageable = true; });
}

void NTAPI DeviceInitSetPowerInrush(PWDF_DRIVER_GLOBALS, PWDFDEVICE_INIT init)
{
    const PlatformCall call("WdfDeviceInitSetPowerInrush", HOST_CALLER, DISPATCH_LEVEL);
    RecordSetting(call, init, [](DeviceSettings& settings) {
        settings.powerInrush = true;
        settings.powerPageable = false;
    });
}

void NTAPI DeviceInitSetDeviceType(PWDF_DRIVER_GLOBALS, PWDFDEVICE_INIT init, DEVICE_TYPE type)
{
    const PlatformCall call("WdfDeviceInitSetDeviceType", HOST_CALLER, DISPATCH_LEVEL);
    RecordSetting(call, init, [&](DeviceSettings& settings) { settings.deviceType = type; });
}

void NTAPI DeviceInitSetCharacteristics(PWDF_DRIVER_GLOBALS, PWDFDEVICE_INIT init, ULONG characteristics, BOOLEAN orIn)
{
    const PlatformCall call("WdfDeviceInitSetCharacteristics", HOST_CALLER, DISPATCH_LEVEL);
    RecordSetting(call, init, [&](DeviceSettings& settings) {
        settings.characteristics =
            (orIn != FALSE ? settings.characteristics : 0) | characteristics | FILE_DEVICE_SECURE_OPEN;
    });
}

void NTAPI DeviceInitSetRequestAttributes(PWDF_DRIVER_GLOBALS, PWDFDEVICE_INIT init, PWDF_OBJECT_ATTRIBUTES attributes)
{
    const PlatformCall call("WdfDeviceInitSetRequestAttributes", HOST_CALLER, DISPATCH_LEVEL);
    if (!IsUsable(call, init) || !Requires(call, attributes, "RequestAttributes")) {
        return;
    }
    if (!NT_SUCCESS(CheckAttributes(attributes, ObjectType::kRequest, ParentRule::kForbidden))) {
        call.Violation(Rule::kBadParameter, "requests cannot have these attributes; nothing is recorded");
        return;
    }
    init->settings.requestAttributes = *attributes;
}

void NTAPI DeviceInitSetPowerPolicyEventCallbacks(PWDF_DRIVER_GLOBALS, PWDFDEVICE_INIT init,
                                                  PWDF_POWER_POLICY_EVENT_CALLBACKS callbacks)
{
    constexpr std::size_t kSizeOf1_5 = offsetof(WDF_POWER_POLICY_EVENT_CALLBACKS, EvtDeviceArmWakeFromSxWithReason);
    const PlatformCall call("WdfDeviceInitSetPowerPolicyEventCallbacks", HOST_CALLER, DISPATCH_LEVEL);
    if (!IsUsable(call, init) || !Requires(call, callbacks, "PowerPolicyEventCallbacks") ||
        !HasSize(call, callbacks->Size, {sizeof(*callbacks), kSizeOf1_5})) {
        return;
    }
    if (callbacks->Size == sizeof(*callbacks) && callbacks->EvtDeviceArmWakeFromSx != nullptr &&
        callbacks->EvtDeviceArmWakeFromSxWithReason != nullptr) {
        call.Violation(Rule::kBadParameter, "two callbacks that arm for wake from Sx; nothing is recorded");
    }
}

void NTAPI DeviceInitSetPowerPolicyOwnership(PWDF_DRIVER_GLOBALS, PWDFDEVICE_INIT init, BOOLEAN isOwner)
{
    const PlatformCall call("WdfDeviceInitSetPowerPolicyOwnership", HOST_CALLER, DISPATCH_LEVEL);
    RecordSetting(call, init, [&](DeviceSettings& settings) { settings.ownsPowerPolicy = isOwner != FALSE; });
}

namespace {

bool IsTriState(WDF_TRI_STATE value)
{
    return static_cast<unsigned>(value) <= WdfUseDefault;
}

template <class Enumeration>
bool IsWithin(Enumeration value, Enumeration first, Enumeration last)
{
    return static_cast<unsigned>(value) - static_cast<unsigned>(first) <=
           static_cast<unsigned>(last) - static_cast<unsigned>(first);
}

// What idle settings earn on a device that cannot wake itself. Those of older drivers end earlier.
NTSTATUS CheckIdleSettings(const WDF_DEVICE_POWER_POLICY_IDLE_SETTINGS& settings)
{
    constexpr ULONG kSizeOf1_7 = offsetof(WDF_DEVICE_POWER_POLICY_IDLE_SETTINGS, PowerUpIdleDeviceOnSystemWake);
    constexpr ULONG kSizeOf1_9 = offsetof(WDF_DEVICE_POWER_POLICY_IDLE_SETTINGS, IdleTimeoutType);
    if (settings.Size != sizeof(settings) && settings.Size != kSizeOf1_9 && settings.Size != kSizeOf1_7) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    if (!IsWithin(settings.DxState, PowerDeviceD1, PowerDeviceMaximum) ||
        !IsWithin(settings.IdleCaps, IdleCannotWakeFromS0, IdleUsbSelectiveSuspend) ||
        !IsWithin(settings.UserControlOfIdleSettings, IdleDoNotAllowUserControl, IdleAllowUserControl) ||
        !IsTriState(settings.Enabled)) {
        return STATUS_INVALID_PARAMETER;
    }
    if (settings.Size > kSizeOf1_7 &&
        (!IsTriState(settings.PowerUpIdleDeviceOnSystemWake) ||
         (settings.IdleCaps != IdleCannotWakeFromS0 && settings.PowerUpIdleDeviceOnSystemWake != WdfUseDefault))) {
        return STATUS_INVALID_PARAMETER;
    }
    if (settings.Size > kSizeOf1_9 &&
        !IsWithin(settings.IdleTimeoutType, DriverManagedIdleTimeout, SystemManagedIdleTimeoutWithHint)) {
        return STATUS_INVALID_PARAMETER;
    }
    return settings.IdleCaps == IdleCannotWakeFromS0 ? STATUS_SUCCESS : STATUS_POWER_STATE_INVALID;
}

bool IsSystemManaged(const WDF_DEVICE_POWER_POLICY_IDLE_SETTINGS& settings)
{
    return settings.Size == sizeof(settings) && settings.IdleTimeoutType != DriverManagedIdleTimeout;
}

}  // namespace

NTSTATUS NTAPI DeviceAssignS0IdleSettings(PWDF_DRIVER_GLOBALS, WDFDEVICE handle,
                                          PWDF_DEVICE_POWER_POLICY_IDLE_SETTINGS settings)
{
    const PlatformCall call("WdfDeviceAssignS0IdleSettings", HOST_CALLER, DISPATCH_LEVEL);
    if (call.IsRefused()) {
        return call.fault()->status;
    }
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    auto* device = framework.objects.Resolve<DeviceObject>(call, handle, "Device");
    if (device == nullptr || !Requires(call, settings, "Settings")) {
        return STATUS_INVALID_PARAMETER;
    }
    if (!device->settings.ownsPowerPolicy) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    if (const NTSTATUS status = CheckIdleSettings(*settings); !NT_SUCCESS(status)) {
        return status;
    }
    const bool isSystemManaged = IsSystemManaged(*settings);
    if (device->hasSystemManagedIdle && settings->Size == sizeof(*settings) &&
        *device->hasSystemManagedIdle != isSystemManaged) {
        return STATUS_INVALID_DEVICE_REQUEST;  // who decides when the device is idle stays as it was said first
    }
    if (!device->hasSystemManagedIdle) {
        device->hasSystemManagedIdle = isSystemManaged;
    }
    return call.Done();
}

}  // namespace host::framework::functions
