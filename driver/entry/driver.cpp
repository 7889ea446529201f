// Driver entry and unload: tracing is registered before everything else and unregistered after everything else.
#include "driver/entry/driver_private.h"
#include "driver/trace/trace.h"

#include "driver/context/driver_context.h"
#include "driver/context/operations.h"

constexpr ULONG kFrameworkPoolTag = '0ftn';  // "ntf0" in memory

NTSTATUS DriverEntry(PDRIVER_OBJECT driverObject, PUNICODE_STRING registryPath)
{
    RegisterEventProvider();
    InitializeTraceMessages();

    Report<Site::kDriverEntryStarted>(__DATE__, __TIME__);

    WDF_DRIVER_CONFIG config;
    WDF_DRIVER_CONFIG_INIT(&config, NotifierEvtDeviceAdd);
    config.EvtDriverUnload = NotifierEvtDriverUnload;
    config.DriverPoolTag = kFrameworkPoolTag;

    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, ZEP_NOTIFIER_DRIVER_CONTEXT);

    const NTSTATUS status = WdfDriverCreate(driverObject, registryPath, &attributes, &config, WDF_NO_HANDLE);
    if (!NT_SUCCESS(status)) {
        // On purpose: tracing stays registered.
        return ReportFailure<Site::kDriverEntryCreate>(status);
    }
    return status;
}

void NotifierEvtDriverUnload(WDFDRIVER driver)
{
    Report<Site::kDriverUnloadEntered>(driver);

    ZEP_NOTIFIER_DRIVER_CONTEXT* context = GetDriverContext(driver);
    if (context == nullptr) {
        Report<Site::kDriverUnloadNoContext>();
    } else {
        // Unregistering waits for a running callback; only then may the object be dereferenced.
        if (context->PowerStateCallbackRegistration != nullptr) {
            Report<Site::kDriverUnloadUnregister>();
            ExUnregisterCallback(context->PowerStateCallbackRegistration);
            context->PowerStateCallbackRegistration = nullptr;
        }
        if (context->PowerStateCallbackObject != nullptr) {
            Report<Site::kDriverUnloadDereference>();
            ObDereferenceObject(context->PowerStateCallbackObject);
            context->PowerStateCallbackObject = nullptr;
        }
    }

    // On purpose: unconditional. It gives back the reference that a successful device add took last. When no device add
    // has succeeded, it takes the framework's own: bugcheck 0x10D, or freed memory when nothing was made yet.
    WdfObjectDereferenceActual(driver, nullptr, kDereferenceLine, const_cast<PCHAR>(kReferenceFile));

    UnregisterEventProvider();
    CleanUpTraceMessages();
}
