// The dump forwarders: a client's dump call is passed on to the crash-dump driver.
//
// No lock, the caller's thread and IRQL; everything touched here is resident. Arguments are passed on as they came;
// only the first 32 bits that a pointer points to are read, and only to trace a call that succeeded. The crash-dump
// driver must not attach or detach while such calls can come. These sites have a set of trace messages of their own.
//
// On purpose: the answer is tested by NT_SUCCESS, while announcements take only 0. A call that does not reach the
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

// The reporting sites of one forwarder. What it traces of a call that succeeded differs, so that is its caller's.
struct ForwarderSites {
    Site entered;
    Site noContext;
    Site failed;
    Site exited;
};

// Passes a call on to one of the crash-dump driver's callbacks.
template <ForwarderSites kSites, auto kCallback, class ReportDone, class... Arguments>
static NTSTATUS Forward(ReportDone reportDone, PVOID dumpHandle, Arguments... arguments)
{
    Report<kSites.entered>();
    ZEP_NOTIFIER_DRIVER_CONTEXT* driverContext;
    ZEP_NOTIFIER_WPCD_CLIENT_CONTEXT* wpcdClientContext;
    NTSTATUS status = GetContext(dumpHandle, &driverContext, &wpcdClientContext);
    if (!NT_SUCCESS(status)) {
        return ReportFailure<kSites.noContext>(status);
    }
    status = (wpcdClientContext->*kCallback)(dumpHandle, arguments...);
    if (!NT_SUCCESS(status)) {
        Report<kSites.failed>(status);
    } else {
        reportDone();
    }
    Report<kSites.exited>();
    return status;
}

NTSTATUS Notifier_HelperStartDump(PVOID dumpHandle, ULONGLONG value1, ULONGLONG value2)
{
    constexpr ForwarderSites kSites = {.entered = Site::kStartDumpEntered,
                                       .noContext = Site::kStartDumpNoContext,
                                       .failed = Site::kStartDumpFailed,
                                       .exited = Site::kStartDumpExited};
    return Forward<kSites, &ZEP_NOTIFIER_WPCD_CLIENT_CONTEXT::ZepDumpStart>(
        [=] { Report<Site::kStartDumpDone>(dumpHandle); }, dumpHandle, value1, value2);
}

NTSTATUS Notifier_HelperAddDumpData(PVOID dumpHandle, PVOID data, ULONGLONG value1, ULONG value2, ULONG value3)
{
    constexpr ForwarderSites kSites = {.entered = Site::kAddDumpDataEntered,
                                       .noContext = Site::kAddDumpDataNoContext,
                                       .failed = Site::kAddDumpDataFailed,
                                       .exited = Site::kAddDumpDataExited};
    return Forward<kSites, &ZEP_NOTIFIER_WPCD_CLIENT_CONTEXT::ZepDumpAddDumpData>(
        [=] { Report<Site::kAddDumpDataDone>(dumpHandle, data); }, dumpHandle, data, value1, value2, value3);
}

NTSTATUS Notifier_HelperStopDump(PVOID dumpHandle, ULONGLONG value1)
{
    constexpr ForwarderSites kSites = {.entered = Site::kStopDumpEntered,
                                       .noContext = Site::kStopDumpNoContext,
                                       .failed = Site::kStopDumpFailed,
                                       .exited = Site::kStopDumpExited};
    return Forward<kSites, &ZEP_NOTIFIER_WPCD_CLIENT_CONTEXT::ZepDumpStop>(
        [=] { Report<Site::kStopDumpDone>(dumpHandle); }, dumpHandle, value1);
}

NTSTATUS Notifier_HelperDumpQueryParam(PVOID dumpHandle, ULONG value1, ULONGLONG value2, ULONGLONG value3)
{
    constexpr ForwarderSites kSites = {.entered = Site::kDumpQueryParamEntered,
                                       .noContext = Site::kDumpQueryParamNoContext,
                                       .failed = Site::kDumpQueryParamFailed,
                                       .exited = Site::kDumpQueryParamExited};
    return Forward<kSites, &ZEP_NOTIFIER_WPCD_CLIENT_CONTEXT::ZepDumpQueryParam>(
        [=] { Report<Site::kDumpQueryParamDone>(dumpHandle); }, dumpHandle, value1, value2, value3);
}

NTSTATUS Notifier_HelperDumpAddTriageData(PVOID dumpHandle, ULONGLONG value1, ULONG value2)
{
    constexpr ForwarderSites kSites = {.entered = Site::kDumpAddTriageDataEntered,
                                       .noContext = Site::kDumpAddTriageDataNoContext,
                                       .failed = Site::kDumpAddTriageDataFailed,
                                       .exited = Site::kDumpAddTriageDataExited};
    return Forward<kSites, &ZEP_NOTIFIER_WPCD_CLIENT_CONTEXT::ZepDumpAddTriageData>(
        [=] { Report<Site::kDumpAddTriageDataDone>(dumpHandle, value2); }, dumpHandle, value1, value2);
}
