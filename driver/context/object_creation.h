// Creation of a framework object with a typed context.
#pragma once

#include <ntddk.h>

#include <wdf.h>

#include "driver/trace/report.h"

// Creates an object by attributes that name its context type, and gives its context. Both failures are reported; an
// object whose context is missing is deleted.
template <Site kNoObject, Site kNoContext, auto kGetContext, class Context>
[[nodiscard]] FORCEINLINE NTSTATUS CreateObject(WDF_OBJECT_ATTRIBUTES& attributes, WDFOBJECT& object, Context*& context)
{
    const NTSTATUS status = WdfObjectCreate(&attributes, &object);
    if (!NT_SUCCESS(status)) {
        return ReportFailure<kNoObject>(status);
    }
    context = kGetContext(object);
    if (context == nullptr) {
        Report<kNoContext>(object, STATUS_IO_DEVICE_ERROR);
        WdfObjectDelete(object);
        return STATUS_IO_DEVICE_ERROR;
    }
    return STATUS_SUCCESS;
}
