// A crash-dump driver: attaches to the Notifier, asks for the clients that are there already, takes the announcements
// of later ones, and prints each call of a client's dump. A real one would write the dump.
//
// Attaching comes first and asking second: so no client is missed, and one can at worst be announced twice.
#include <ntddk.h>

#include <initguid.h>
#include <wdmguid.h>

#include "driver/include/zepn_notifier.h"
#include "samples/common/notifier_link.h"

#define CRASHDUMP_POOL_TAG 'pmdS'  // "Sdmp" in memory

typedef struct _CRASHDUMP_CONTEXT {
    NOTIFIER_LINK Link;
    ZEP_NOTIFIER_WPCD_INTERFACE Notifier;
} CRASHDUMP_CONTEXT;
WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(CRASHDUMP_CONTEXT, CrashDumpContext)

EXTERN_C DRIVER_INITIALIZE DriverEntry;
static EVT_WDF_DRIVER_DEVICE_ADD CrashDumpDeviceAdd;
static EVT_WDF_DEVICE_PREPARE_HARDWARE CrashDumpPrepareHardware;
static EVT_WDF_DEVICE_RELEASE_HARDWARE CrashDumpReleaseHardware;

#define SAY(format, ...)                                                                                               \
    DbgPrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_INFO_LEVEL, "crash dump: " format "\n" __VA_OPT__(, ) __VA_ARGS__)

static VOID Describe(const char* how, const ZEP_SUBSYSTEM_DESCRIPTOR* descriptor)
{
    SAY("%s \"%s\" (%s), data entries: %u", how, descriptor->SubsystemName, descriptor->SubsystemDescription,
        (ULONG)descriptor->DataEntryCount);
}

// ---- Announcements: on a work item, with the Notifier's clients lock held ----

static NTSTATUS NTAPI OnClientAdd(const ZEP_SUBSYSTEM_DESCRIPTOR* descriptor)
{
    // The descriptor is the Notifier's own buffer: a driver that needs it later copies it here.
    Describe("is notified of", descriptor);
    return STATUS_SUCCESS;
}

static NTSTATUS NTAPI OnClientRemove(const ZEP_NOTIFIER_CLIENT_CONTEXT* client)
{
    // Of a removed client only identity and texts are to be read: GUID at 0, name at 16.
    SAY("\"%s\" was removed", reinterpret_cast<const CHAR*>(client) + sizeof(GUID));
    return STATUS_SUCCESS;
}

// ---- Dump calls: on the client's thread, at its IRQL, without any lock ----

static ULONG RecordOf(PVOID dumpHandle)
{
    return *static_cast<const ULONG*>(dumpHandle);
}

static NTSTATUS NTAPI OnDumpStart(PVOID dumpHandle, ULONGLONG value1, ULONGLONG value2)
{
    SAY("dump %u starts (0x%llX, 0x%llX)", RecordOf(dumpHandle), value1, value2);
    return STATUS_SUCCESS;
}

static NTSTATUS NTAPI OnDumpAddData(PVOID dumpHandle, PVOID, ULONGLONG value1, ULONG value2, ULONG value3)
{
    SAY("dump %u: data at 0x%llX, %u bytes (%u)", RecordOf(dumpHandle), value1, value2, value3);
    return STATUS_SUCCESS;
}

static NTSTATUS NTAPI OnDumpAddTriageData(PVOID dumpHandle, ULONGLONG value1, ULONG value2)
{
    SAY("dump %u: triage data at 0x%llX, %u bytes", RecordOf(dumpHandle), value1, value2);
    return STATUS_SUCCESS;
}

static NTSTATUS NTAPI OnDumpQueryParam(PVOID dumpHandle, ULONG value1, ULONGLONG, ULONGLONG)
{
    SAY("dump %u: parameter %u is asked for", RecordOf(dumpHandle), value1);
    return STATUS_SUCCESS;
}

static NTSTATUS NTAPI OnDumpStop(PVOID dumpHandle, ULONGLONG value1)
{
    SAY("dump %u stops (0x%llX)", RecordOf(dumpHandle), value1);
    return STATUS_SUCCESS;
}

// ---- Connecting and disconnecting ----

// Prints every client that is registered now. Clients may come between the question for their number and the one for
// all of them: then the room is too small, and the questions are asked again.
static NTSTATUS Enumerate(const ZEP_NOTIFIER_WPCD_INTERFACE* notifier)
{
    NTSTATUS status = STATUS_BUFFER_TOO_SMALL;
    while (status == STATUS_BUFFER_TOO_SMALL) {
        ULONG count = 0;
        status = notifier->Notifier_WpcdGetNumSubsystemDescriptors(&count);
        if (!NT_SUCCESS(status) || count == 0) {
            return status;
        }
        const SIZE_T bytes = count * sizeof(ZEP_SUBSYSTEM_DESCRIPTOR);
        auto* all = static_cast<ZEP_SUBSYSTEM_DESCRIPTOR*>(ExAllocatePoolWithTag(PagedPool, bytes, CRASHDUMP_POOL_TAG));
        if (all == NULL) {
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        RtlZeroMemory(all, bytes);
        status = notifier->Notifier_WpcdGetAllSubsystemDescriptors(all, &count);
        for (ULONG index = 0; NT_SUCCESS(status) && index < count; ++index) {
            Describe("finds", &all[index]);
        }
        ExFreePoolWithTag(all, CRASHDUMP_POOL_TAG);
    }
    return status;
}

static NTSTATUS CrashDumpConnect(WDFDEVICE device)
{
    const WpcdClientRegistration registration = {.Header = 0,
                                                 .ZepClientAdd = OnClientAdd,
                                                 .ZepClientRemove = OnClientRemove,
                                                 .ZepDumpStart = OnDumpStart,
                                                 .ZepDumpAddDumpData = OnDumpAddData,
                                                 .ZepDumpStop = OnDumpStop,
                                                 .ZepDumpQueryParam = OnDumpQueryParam,
                                                 .ZepDumpAddTriageData = OnDumpAddTriageData};
    const ZEP_NOTIFIER_WPCD_INTERFACE* notifier = &CrashDumpContext(device)->Notifier;
    NTSTATUS status = notifier->Notifier_WpcdClientInit(&registration);
    SAY("attaches: 0x%08X", (unsigned)status);
    if (status == STATUS_OBJECT_NAME_EXISTS) {
        return STATUS_OBJECT_NAME_COLLISION;  // another one is attached, although the status is no failure
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = Enumerate(notifier);
    if (!NT_SUCCESS(status)) {
        (void)notifier->Notifier_WpcdClientDeInit();
    }
    return status;
}

// Clients must have ended their dumps: a dump call that meets a detaching crash-dump driver is nobody's.
static VOID CrashDumpDisconnect(WDFDEVICE device)
{
    const NTSTATUS status = CrashDumpContext(device)->Notifier.Notifier_WpcdClientDeInit();
    SAY("detaches: 0x%08X", (unsigned)status);
}

// ---- The device ----

static NTSTATUS NTAPI CrashDumpPrepareHardware(WDFDEVICE device, WDFCMRESLIST, WDFCMRESLIST)
{
    return NotifierLinkStart(&CrashDumpContext(device)->Link);
}

static NTSTATUS NTAPI CrashDumpReleaseHardware(WDFDEVICE device, WDFCMRESLIST)
{
    NotifierLinkStop(&CrashDumpContext(device)->Link);
    return STATUS_SUCCESS;
}

static NTSTATUS NTAPI CrashDumpDeviceAdd(WDFDRIVER, PWDFDEVICE_INIT deviceInit)
{
    WDF_PNPPOWER_EVENT_CALLBACKS power;
    WDF_PNPPOWER_EVENT_CALLBACKS_INIT(&power);
    power.EvtDevicePrepareHardware = CrashDumpPrepareHardware;
    power.EvtDeviceReleaseHardware = CrashDumpReleaseHardware;
    WdfDeviceInitSetPnpPowerEventCallbacks(deviceInit, &power);

    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, CRASHDUMP_CONTEXT);
    WDFDEVICE device = NULL;
    const NTSTATUS status = WdfDeviceCreate(&deviceInit, &attributes, &device);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    CRASHDUMP_CONTEXT* context = CrashDumpContext(device);
    context->Link.InterfaceGuid = &GUID_ZEP_NOTIFIER_WPCD_INTERFACE;
    context->Link.Table = &context->Notifier.InterfaceHeader;
    context->Link.TableSize = sizeof(context->Notifier);
    context->Link.TableVersion = ZEP_NOTIFIER_INTERFACE_VERSION;
    context->Link.Name = "crash dump";
    context->Link.Connect = CrashDumpConnect;
    context->Link.Disconnect = CrashDumpDisconnect;
    return NotifierLinkCreate(&context->Link, device);
}

NTSTATUS DriverEntry(PDRIVER_OBJECT driverObject, PUNICODE_STRING registryPath)
{
    WDF_DRIVER_CONFIG config;
    WDF_DRIVER_CONFIG_INIT(&config, CrashDumpDeviceAdd);
    return WdfDriverCreate(driverObject, registryPath, WDF_NO_OBJECT_ATTRIBUTES, &config, WDF_NO_HANDLE);
}
