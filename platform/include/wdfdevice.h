// Devices: what a driver sets before creation and asks afterwards, and its power policy. Included by wdf.h.
#pragma once

typedef struct _WDF_POWER_POLICY_EVENT_CALLBACKS {
    ULONG Size;
    PVOID EvtDeviceArmWakeFromS0;
    PVOID EvtDeviceDisarmWakeFromS0;
    PVOID EvtDeviceWakeFromS0Triggered;
    PVOID EvtDeviceArmWakeFromSx;
    PVOID EvtDeviceDisarmWakeFromSx;
    PVOID EvtDeviceWakeFromSxTriggered;
    PVOID EvtDeviceArmWakeFromSxWithReason;
} WDF_POWER_POLICY_EVENT_CALLBACKS, *PWDF_POWER_POLICY_EVENT_CALLBACKS;
PLATFORM_SIZE(WDF_POWER_POLICY_EVENT_CALLBACKS, 64);

FORCEINLINE VOID WDF_POWER_POLICY_EVENT_CALLBACKS_INIT(PWDF_POWER_POLICY_EVENT_CALLBACKS Callbacks)
{
    RtlZeroMemory(Callbacks, sizeof(WDF_POWER_POLICY_EVENT_CALLBACKS));
    Callbacks->Size = sizeof(WDF_POWER_POLICY_EVENT_CALLBACKS);
}

typedef enum _WDF_POWER_POLICY_S0_IDLE_CAPABILITIES {
    IdleCapsInvalid = 0,
    IdleCannotWakeFromS0 = 1,
    IdleCanWakeFromS0 = 2,
    IdleUsbSelectiveSuspend = 3
} WDF_POWER_POLICY_S0_IDLE_CAPABILITIES;

typedef enum _WDF_POWER_POLICY_S0_IDLE_USER_CONTROL {
    IdleUserControlInvalid = 0,
    IdleDoNotAllowUserControl = 1,
    IdleAllowUserControl = 2
} WDF_POWER_POLICY_S0_IDLE_USER_CONTROL;

typedef enum _WDF_POWER_POLICY_IDLE_TIMEOUT_TYPE {
    DriverManagedIdleTimeout = 0,
    SystemManagedIdleTimeout = 1,
    SystemManagedIdleTimeoutWithHint = 2
} WDF_POWER_POLICY_IDLE_TIMEOUT_TYPE;

#define IdleTimeoutDefaultValue 0U

typedef struct _WDF_DEVICE_POWER_POLICY_IDLE_SETTINGS {
    ULONG Size;
    WDF_POWER_POLICY_S0_IDLE_CAPABILITIES IdleCaps;
    DEVICE_POWER_STATE DxState;
    ULONG IdleTimeout;  // in milliseconds
    WDF_POWER_POLICY_S0_IDLE_USER_CONTROL UserControlOfIdleSettings;
    WDF_TRI_STATE Enabled;
    WDF_TRI_STATE PowerUpIdleDeviceOnSystemWake;
    WDF_POWER_POLICY_IDLE_TIMEOUT_TYPE IdleTimeoutType;
    WDF_TRI_STATE ExcludeD3Cold;
} WDF_DEVICE_POWER_POLICY_IDLE_SETTINGS, *PWDF_DEVICE_POWER_POLICY_IDLE_SETTINGS;
PLATFORM_SIZE(WDF_DEVICE_POWER_POLICY_IDLE_SETTINGS, 36);
PLATFORM_LAYOUT(WDF_DEVICE_POWER_POLICY_IDLE_SETTINGS, PowerUpIdleDeviceOnSystemWake, 24);
PLATFORM_LAYOUT(WDF_DEVICE_POWER_POLICY_IDLE_SETTINGS, IdleTimeoutType, 28);

FORCEINLINE VOID WDF_DEVICE_POWER_POLICY_IDLE_SETTINGS_INIT(PWDF_DEVICE_POWER_POLICY_IDLE_SETTINGS Settings,
                                                            WDF_POWER_POLICY_S0_IDLE_CAPABILITIES IdleCaps)
{
    RtlZeroMemory(Settings, sizeof(WDF_DEVICE_POWER_POLICY_IDLE_SETTINGS));
    Settings->Size = sizeof(WDF_DEVICE_POWER_POLICY_IDLE_SETTINGS);
    Settings->IdleCaps = IdleCaps;
    Settings->DxState = IdleCaps == IdleCannotWakeFromS0 ? PowerDeviceD3 : PowerDeviceMaximum;
    Settings->UserControlOfIdleSettings = IdleAllowUserControl;
    Settings->Enabled = WdfUseDefault;
    Settings->PowerUpIdleDeviceOnSystemWake = WdfUseDefault;
    Settings->ExcludeD3Cold = WdfUseDefault;
}

WDF_CALL(30, WdfWdmDeviceGetWdfDeviceHandle, WDFDEVICE, (PDEVICE_OBJECT DeviceObject), (DeviceObject))
WDF_CALL(31, WdfDeviceWdmGetDeviceObject, PDEVICE_OBJECT, (WDFDEVICE Device), (Device))
WDF_CALL(32, WdfDeviceWdmGetAttachedDevice, PDEVICE_OBJECT, (WDFDEVICE Device), (Device))
WDF_CALL(33, WdfDeviceWdmGetPhysicalDevice, PDEVICE_OBJECT, (WDFDEVICE Device), (Device))
WDF_CALL(46, WdfDeviceAssignS0IdleSettings, NTSTATUS,
         (WDFDEVICE Device, PWDF_DEVICE_POWER_POLICY_IDLE_SETTINGS Settings),
         (Device, Settings))
WDF_CALL(56, WdfDeviceInitSetPowerPolicyEventCallbacks, VOID,
         (PWDFDEVICE_INIT DeviceInit, PWDF_POWER_POLICY_EVENT_CALLBACKS PowerPolicyEventCallbacks),
         (DeviceInit, PowerPolicyEventCallbacks))
WDF_CALL(57, WdfDeviceInitSetPowerPolicyOwnership, VOID,
         (PWDFDEVICE_INIT DeviceInit, BOOLEAN IsPowerPolicyOwner),
         (DeviceInit, IsPowerPolicyOwner))
WDF_CALL(62, WdfDeviceInitSetExclusive, VOID, (PWDFDEVICE_INIT DeviceInit, BOOLEAN IsExclusive), (DeviceInit, IsExclusive))
WDF_CALL(63, WdfDeviceInitSetPowerNotPageable, VOID, (PWDFDEVICE_INIT DeviceInit), (DeviceInit))
WDF_CALL(64, WdfDeviceInitSetPowerPageable, VOID, (PWDFDEVICE_INIT DeviceInit), (DeviceInit))
WDF_CALL(65, WdfDeviceInitSetPowerInrush, VOID, (PWDFDEVICE_INIT DeviceInit), (DeviceInit))
WDF_CALL(66, WdfDeviceInitSetDeviceType, VOID, (PWDFDEVICE_INIT DeviceInit, DEVICE_TYPE DeviceType), (DeviceInit, DeviceType))
WDF_CALL(70, WdfDeviceInitSetCharacteristics, VOID,
         (PWDFDEVICE_INIT DeviceInit, ULONG DeviceCharacteristics, BOOLEAN OrInValues),
         (DeviceInit, DeviceCharacteristics, OrInValues))
WDF_CALL(72, WdfDeviceInitSetRequestAttributes, VOID,
         (PWDFDEVICE_INIT DeviceInit, PWDF_OBJECT_ATTRIBUTES RequestAttributes),
         (DeviceInit, RequestAttributes))
