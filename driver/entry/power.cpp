// The device's plug-and-play and power callbacks, and the registration for the system's power-state callback.
//
// There is no hardware and no state behind the device: its callbacks only report. Surprise removal takes the interfaces
// away first, so that no new peer finds the device.
#include "driver/entry/driver_private.h"

#include "driver/context/driver_context.h"
#include "driver/context/operations.h"

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
