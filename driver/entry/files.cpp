// Handles of the control device. On purpose: each open file object carries a client-type context that nobody fills or
// reads; its only role is to be present, and it is freed with the file object.
#include "driver/context/driver_context.h"
#include "driver/context/operations.h"
#include "driver/registry/client.h"

void NotifierEvtDeviceFileCreate(WDFDEVICE device, WDFREQUEST request, WDFFILEOBJECT fileObject)
{
    Report<Site::kFileCreateEntered>(device, fileObject);

    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, ZEP_NOTIFIER_CLIENT_CONTEXT);
    PVOID context = nullptr;
    NTSTATUS status = WdfObjectAllocateContext(fileObject, &attributes, &context);
    if (!NT_SUCCESS(status)) {
        Report<Site::kFileCreateAllocateContext>(status);
    } else if (context == nullptr) {
        status = STATUS_IO_DEVICE_ERROR;
        Report<Site::kFileCreateNoContext>(fileObject, status);
    }
    WdfRequestComplete(request, status);
}

void NotifierEvtDeviceFileClose(WDFFILEOBJECT fileObject)
{
    Report<Site::kFileCloseEntered>(fileObject);

    if (GetClientContext(fileObject) == nullptr) {
        Report<Site::kFileCloseNoContext>(fileObject);
    }
}
