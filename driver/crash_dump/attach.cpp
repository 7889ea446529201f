// Attaching and detaching the crash-dump driver: one object whose context holds its callbacks. Clients that
// registered before it are announced with their next state, unless an earlier one was notified of them.
//
// On purpose: attaching takes no lock, so the handle is visible before the callbacks are, and it accepts null
// callbacks, which nobody tests later.
// On purpose: detaching leaves both queues and every client's announced mark alone.
#include "driver/crash_dump/crash_dump.h"

#include "driver/context/driver_context.h"
#include "driver/context/operations.h"

NTSTATUS Notifier_WpcdClientInit(const WpcdClientRegistration* registration)
{
    Report<Site::kAttachEntered>();
    if (registration == nullptr) {
        return ReportFailure<Site::kAttachNull>(STATUS_INVALID_PARAMETER);
    }
    ZEP_NOTIFIER_DRIVER_CONTEXT* context =
        DriverContextOrReport<Site::kAttachNoDriver, Site::kAttachNoContext>(STATUS_IO_DEVICE_ERROR);
    if (context == nullptr) {
        return STATUS_IO_DEVICE_ERROR;
    }
    if (ReadPointerNoFence(&context->wdfObjectWpcdClient) != nullptr) {
        // On purpose: a success: who attaches twice is attached, with the callbacks of the first time.
        return ReportFailure<Site::kAttachTwice>(STATUS_OBJECT_NAME_EXISTS);
    }

    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, ZEP_NOTIFIER_WPCD_CLIENT_CONTEXT);
    const NTSTATUS status = WdfObjectCreate(&attributes, &context->wdfObjectWpcdClient);
    if (!NT_SUCCESS(status)) {
        return ReportFailure<Site::kAttachObject>(status);
    }
    const WDFOBJECT object = ReadPointerNoFence(&context->wdfObjectWpcdClient);
    ZEP_NOTIFIER_WPCD_CLIENT_CONTEXT* wpcd = GetWpcdClientContext(object);
    if (wpcd == nullptr) {
        Report<Site::kAttachContext>(object, STATUS_IO_DEVICE_ERROR);
        WdfObjectDelete(object);
        WritePointerNoFence(&context->wdfObjectWpcdClient, nullptr);
        return STATUS_IO_DEVICE_ERROR;
    }

    wpcd->ZepClientAdd = registration->ZepClientAdd;
    wpcd->ZepClientRemove = registration->ZepClientRemove;
    wpcd->ZepDumpStart = registration->ZepDumpStart;
    wpcd->ZepDumpAddDumpData = registration->ZepDumpAddDumpData;
    wpcd->ZepDumpStop = registration->ZepDumpStop;
    wpcd->ZepDumpQueryParam = registration->ZepDumpQueryParam;
    wpcd->ZepDumpAddTriageData = registration->ZepDumpAddTriageData;
    return STATUS_SUCCESS;
}

NTSTATUS Notifier_WpcdClientDeInit(void)
{
    Report<Site::kDetachEntered>();
    ZEP_NOTIFIER_DRIVER_CONTEXT* context =
        DriverContextOrReport<Site::kDetachNoDriver, Site::kDetachNoContext>(STATUS_IO_DEVICE_ERROR);
    if (context == nullptr) {
        return STATUS_IO_DEVICE_ERROR;
    }
    NTSTATUS status = WdfWaitLockAcquire(context->wdfWaitLockClientsCollection, nullptr);
    if (status != STATUS_SUCCESS) {
        return ReportFailure<Site::kDetachLock>(status);
    }

    const WDFOBJECT object = ReadPointerNoFence(&context->wdfObjectWpcdClient);
    if (object != nullptr) {
        WdfObjectDelete(object);
        WritePointerNoFence(&context->wdfObjectWpcdClient, nullptr);
        status = STATUS_SUCCESS;
    } else {
        status = ReportFailure<Site::kDetachNone>(STATUS_OBJECT_NAME_NOT_FOUND);
    }
    WdfWaitLockRelease(context->wdfWaitLockClientsCollection);
    return status;
}
