// The default queue: it receives the I/O controls of the control device, one at a time at PASSIVE_LEVEL.
#include "driver/entry/driver_private.h"

#include "driver/context/driver_context.h"
#include "driver/context/operations.h"

// Not power-managed: I/O controls are delivered whatever the device's power state.
NTSTATUS CreateDefaultQueue(WDFDEVICE device, ZEP_NOTIFIER_DRIVER_CONTEXT& context)
{
    WDF_IO_QUEUE_CONFIG config;
    WDF_IO_QUEUE_CONFIG_INIT_DEFAULT_QUEUE(&config, WdfIoQueueDispatchSequential);
    config.PowerManaged = WdfFalse;
    config.AllowZeroLengthRequests = TRUE;
    config.EvtIoDeviceControl = NotifierEvtIoDeviceControl;

    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    attributes.ExecutionLevel = WdfExecutionLevelPassive;
    attributes.ParentObject = device;

    const NTSTATUS status = WdfIoQueueCreate(device, &config, &attributes, &context.wdfQueueDefault);
    if (!NT_SUCCESS(status)) {
        return ReportFailure<Site::kDeviceAddQueue>(status);
    }
    return STATUS_SUCCESS;
}

void NotifierEvtIoDeviceControl(WDFQUEUE queue, WDFREQUEST request, size_t, size_t, ULONG ioControlCode)
{
    NTSTATUS status;
    if (WdfIoQueueGetDevice(queue) == nullptr) {
        status = ReportFailure<Site::kIoControlNoDevice>(queue, STATUS_INVALID_DEVICE_REQUEST);
    } else {
        Report<Site::kIoControlEntered>(ioControlCode);
        if (ioControlCode == IOCTL_ZEPN_NOTIFY_APPS_STATE) {
            status = NT_SUCCESS(Notifier_NotifyAppsState(ZEP_APPS_STATE_REASON_CHANGED)) ? STATUS_SUCCESS
                                                                                         : STATUS_UNSUCCESSFUL;
        } else {
            Report<Site::kIoControlUnknown>(ioControlCode);
            status = STATUS_NOT_SUPPORTED;
        }
    }
    WdfRequestCompleteWithInformation(request, status, 0);
}
