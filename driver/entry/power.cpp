// The device's plug-and-play and power callbacks, and the system's power-state callback.
//
// The device has no hardware and no state: its callbacks only report. Surprise removal takes the interfaces
// away first, so that no new peer finds the device. The power-state callback notifies the clients when the system
// leaves its working state, and holds the transition for a configured time, so that deliveries can run before the
// system sleeps.
#include "driver/entry/driver_private.h"

#include "driver/context/driver_context.h"
#include "driver/context/operations.h"

constexpr LONGLONG kIntervalsPerMillisecond = 10000;  // 100 ns units

NTSTATUS NotifierEvtDevicePrepareHardware(WDFDEVICE device, WDFCMRESLIST, WDFCMRESLIST)
{
    Report<Site::kPrepareHardwareEntered>(device);
    return STATUS_SUCCESS;
}

NTSTATUS NotifierEvtDeviceReleaseHardware(WDFDEVICE device, WDFCMRESLIST)
{
    Report<Site::kReleaseHardwareEntered>(device);
    return STATUS_SUCCESS;
}

NTSTATUS NotifierEvtDeviceD0Entry(WDFDEVICE device, WDF_POWER_DEVICE_STATE)
{
    Report<Site::kD0EntryEntered>(device);
    return STATUS_SUCCESS;
}

NTSTATUS NotifierEvtDeviceD0Exit(WDFDEVICE device, WDF_POWER_DEVICE_STATE)
{
    Report<Site::kD0ExitEntered>(device);
    return STATUS_SUCCESS;
}

void NotifierEvtDeviceSurpriseRemoval(WDFDEVICE device)
{
    Report<Site::kSurpriseRemovalEntered>(device);
    WdfDeviceSetDeviceInterfaceState(device, &GUID_ZEP_NOTIFIER_HELPER_INTERFACE, nullptr, FALSE);
    WdfDeviceSetDeviceInterfaceState(device, &GUID_ZEP_NOTIFIER_WPCD_INTERFACE, nullptr, FALSE);
}

// Milliseconds; 0 when nothing is configured. Read anew at each transition, so that a change needs no reload.
static ULONG ZEPReadRegistry()
{
    Report<Site::kReadRegistryEntered>();
    ULONG timeoutMs = 0;
    UNICODE_STRING valueName;
    RtlInitUnicodeString(&valueName, L"SubsystemNotificationTimeout");

    const WDFDRIVER driver = WdfGetDriver();
    if (driver == nullptr) {
        Report<Site::kReadRegistryNoDriver>();
        return 0;
    }
    WDFKEY key;
    NTSTATUS status = WdfDriverOpenParametersRegistryKey(driver, KEY_READ, WDF_NO_OBJECT_ATTRIBUTES, &key);
    if (!NT_SUCCESS(status)) {
        Report<Site::kReadRegistryOpen>();
        return 0;
    }
    status = WdfRegistryQueryULong(key, &valueName, &timeoutMs);
    if (!NT_SUCCESS(status)) {
        Report<Site::kReadRegistryQuery>();
        timeoutMs = 0;
    }
    WdfRegistryClose(key);
    return timeoutMs;
}

// Called by the system for every kind of power notification, some at DISPATCH_LEVEL: all but the one kind that comes at
// PASSIVE_LEVEL are turned away before anything else.
void EvtPowerStateCallback(PVOID callbackContext, PVOID argument1, PVOID argument2)
{
    if (reinterpret_cast<ULONG_PTR>(argument1) != PO_CB_SYSTEM_STATE_LOCK) {
        return;
    }
    Report<Site::kPowerStateEntered>(callbackContext);

    const ULONG inWorkingState = static_cast<ULONG>(reinterpret_cast<ULONG_PTR>(argument2));
    if (inWorkingState == 0) {
        (void)Notifier_NotifyAppsState(ZEP_APPS_STATE_REASON_CHANGED);
        const ULONG timeoutMs = ZEPReadRegistry();
        if (timeoutMs != 0) {
            Report<Site::kPowerStateWaiting>(timeoutMs);
            LARGE_INTEGER interval = {.QuadPart = -static_cast<LONGLONG>(timeoutMs) * kIntervalsPerMillisecond};
            (void)KeDelayExecutionThread(KernelMode, FALSE, &interval);
        }
    } else if (inWorkingState == 1) {
        Report<Site::kPowerStateResumed>();
    }
    Report<Site::kPowerStateDone>();
}

NTSTATUS RegisterPowerStateCallback(WDFDRIVER driver, ZEP_NOTIFIER_DRIVER_CONTEXT& context)
{
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, L"\\Callback\\PowerState");
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);

    const NTSTATUS status = ExCreateCallback(&context.PowerStateCallbackObject, &attributes, FALSE, TRUE);
    if (!NT_SUCCESS(status)) {
        return ReportFailure<Site::kDeviceAddPowerCallback>(status);
    }

    context.PowerStateCallbackRegistration =
        ExRegisterCallback(context.PowerStateCallbackObject, EvtPowerStateCallback, &context);
    if (context.PowerStateCallbackRegistration == nullptr) {
        // On purpose: without a report.
        ObDereferenceObject(context.PowerStateCallbackObject);
        context.PowerStateCallbackObject = nullptr;
        return STATUS_UNSUCCESSFUL;
    }

    // Given back at unload, after the callback is unregistered.
    WdfObjectReferenceActual(driver, nullptr, kReferenceLine, const_cast<PCHAR>(kReferenceFile));
    return STATUS_SUCCESS;
}
