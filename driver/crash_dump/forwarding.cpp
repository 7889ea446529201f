// The dump forwarders: a client's dump call goes straight through to the crash-dump driver.
//
// No lock, the caller's thread and IRQL; everything touched here is resident. Arguments are passed on as they came;
// only the first 32 bits behind a pointer are read, and only to trace a call that succeeded. The crash-dump driver must
// not attach or detach while such calls can come. These sites have a set of trace messages of their own.
//
// On purpose: the answer is judged by its sign, while announcements take only 0. A call that does not reach the
// crash-dump driver, for whatever reason, writes no exit trace.
#include "driver/crash_dump/crash_dump.h"

#include "driver/context/driver_context.h"
#include "driver/context/operations.h"

static NTSTATUS GetContext(PVOID dumpHandle, ZEP_NOTIFIER_DRIVER_CONTEXT** driverContext,
                           ZEP_NOTIFIER_WPCD_CLIENT_CONTEXT** wpcdClientContext)
{
    Report<Site::kGetContextEntered>();
    if (dumpHandle == nullptr || driverContext == nullptr || wpcdClientContext == nullptr) {
        return ReportFailure<Site::kGetContextNull>(STATUS_INVALID_PARAMETER);
    }
    const WDFDRIVER driver = WdfGetDriver();
    if (driver == nullptr) {
        return ReportFailure<Site::kGetContextNoDriver>(STATUS_IO_DEVICE_ERROR);
    }
    ZEP_NOTIFIER_DRIVER_CONTEXT* context = GetDriverContext(driver);
    if (context == nullptr) {
        return ReportFailure<Site::kGetContextNoContext>(driver, STATUS_IO_DEVICE_ERROR);
    }
    const WDFOBJECT wpcdObject = ReadPointerNoFence(&context->wdfObjectWpcdClient);
    if (wpcdObject == nullptr) {
        return ReportFailure<Site::kGetContextNotAttached>(driver, STATUS_IO_DEVICE_ERROR);
    }
    ZEP_NOTIFIER_WPCD_CLIENT_CONTEXT* wpcd = GetWpcdClientContext(wpcdObject);
    if (wpcd == nullptr) {
        Report<Site::kGetContextWpcdContext>(wpcdObject);
        return STATUS_IO_DEVICE_ERROR;
    }
    *driverContext = context;
    *wpcdClientContext = wpcd;
    return STATUS_SUCCESS;
}

NTSTATUS Notifier_HelperStartDump(PVOID dumpHandle, ULONGLONG value1, ULONGLONG value2)
{
    Report<Site::kStartDumpEntered>();
    ZEP_NOTIFIER_DRIVER_CONTEXT* driverContext;
    ZEP_NOTIFIER_WPCD_CLIENT_CONTEXT* pWpcdClientContext;
    NTSTATUS status = GetContext(dumpHandle, &driverContext, &pWpcdClientContext);
    if (!NT_SUCCESS(status)) {
        return ReportFailure<Site::kStartDumpNoContext>(status);
    }
    status = pWpcdClientContext->ZepDumpStart(dumpHandle, value1, value2);
    if (!NT_SUCCESS(status)) {
        Report<Site::kStartDumpFailed>(status);
    } else {
        Report<Site::kStartDumpDone>(dumpHandle);
    }
    Report<Site::kStartDumpLeft>();
    return status;
}

NTSTATUS Notifier_HelperAddDumpData(PVOID dumpHandle, PVOID data, ULONGLONG value1, ULONG value2, ULONG value3)
{
    Report<Site::kAddDumpDataEntered>();
    ZEP_NOTIFIER_DRIVER_CONTEXT* driverContext;
    ZEP_NOTIFIER_WPCD_CLIENT_CONTEXT* pWpcdClientContext;
    NTSTATUS status = GetContext(dumpHandle, &driverContext, &pWpcdClientContext);
    if (!NT_SUCCESS(status)) {
        return ReportFailure<Site::kAddDumpDataNoContext>(status);
    }
    status = pWpcdClientContext->ZepDumpAddDumpData(dumpHandle, data, value1, value2, value3);
    if (!NT_SUCCESS(status)) {
        Report<Site::kAddDumpDataFailed>(status);
    } else {
        Report<Site::kAddDumpDataDone>(dumpHandle, data);
    }
    Report<Site::kAddDumpDataLeft>();
    return status;
}

NTSTATUS Notifier_HelperStopDump(PVOID dumpHandle, ULONGLONG value1)
{
    Report<Site::kStopDumpEntered>();
    ZEP_NOTIFIER_DRIVER_CONTEXT* driverContext;
    ZEP_NOTIFIER_WPCD_CLIENT_CONTEXT* pWpcdClientContext;
    NTSTATUS status = GetContext(dumpHandle, &driverContext, &pWpcdClientContext);
    if (!NT_SUCCESS(status)) {
        return ReportFailure<Site::kStopDumpNoContext>(status);
    }
    status = pWpcdClientContext->ZepDumpStop(dumpHandle, value1);
    if (!NT_SUCCESS(status)) {
        Report<Site::kStopDumpFailed>(status);
    } else {
        Report<Site::kStopDumpDone>(dumpHandle);
    }
    Report<Site::kStopDumpLeft>();
    return status;
}

NTSTATUS Notifier_HelperDumpQueryParam(PVOID dumpHandle, ULONG value1, ULONGLONG value2, ULONGLONG value3)
{
    Report<Site::kDumpQueryParamEntered>();
    ZEP_NOTIFIER_DRIVER_CONTEXT* driverContext;
    ZEP_NOTIFIER_WPCD_CLIENT_CONTEXT* pWpcdClientContext;
    NTSTATUS status = GetContext(dumpHandle, &driverContext, &pWpcdClientContext);
    if (!NT_SUCCESS(status)) {
        return ReportFailure<Site::kDumpQueryParamNoContext>(status);
    }
    status = pWpcdClientContext->ZepDumpQueryParam(dumpHandle, value1, value2, value3);
    if (!NT_SUCCESS(status)) {
        Report<Site::kDumpQueryParamFailed>(status);
    } else {
        Report<Site::kDumpQueryParamDone>(dumpHandle);
    }
    Report<Site::kDumpQueryParamLeft>();
    return status;
}

NTSTATUS Notifier_HelperDumpAddTriageData(PVOID dumpHandle, ULONGLONG value1, ULONG value2)
{
    Report<Site::kDumpAddTriageDataEntered>();
    ZEP_NOTIFIER_DRIVER_CONTEXT* driverContext;
    ZEP_NOTIFIER_WPCD_CLIENT_CONTEXT* pWpcdClientContext;
    NTSTATUS status = GetContext(dumpHandle, &driverContext, &pWpcdClientContext);
    if (!NT_SUCCESS(status)) {
        return ReportFailure<Site::kDumpAddTriageDataNoContext>(status);
    }
    status = pWpcdClientContext->ZepDumpAddTriageData(dumpHandle, value1, value2);
    if (!NT_SUCCESS(status)) {
        Report<Site::kDumpAddTriageDataFailed>(status);
    } else {
        Report<Site::kDumpAddTriageDataDone>(dumpHandle, value2);
    }
    Report<Site::kDumpAddTriageDataLeft>();
    return status;
}
