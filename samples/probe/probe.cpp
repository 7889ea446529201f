// The probe: a driver that asks the platform what the host assumes of it, and writes down the answers.
//
// It asks nothing that could stop a system: every call is one that a careful driver may make. Questions are asked once,
// when its device starts; the order of the device's own callbacks is written at unload.
#include <ntddk.h>

#include <initguid.h>

#include "samples/probe/probe.h"

// {2E0C3C5B-6C0A-4F0E-8C7B-6D1B0A54B9F3}
DEFINE_GUID(GUID_PROBE_PROVIDER, 0x2E0C3C5B, 0x6C0A, 0x4F0E, 0x8C, 0x7B, 0x6D, 0x1B, 0x0A, 0x54, 0xB9, 0xF3);

#define PROBE_POOL_TAG 'borP'  // "Prob" in memory
#define LEVEL_INFORMATION 4

typedef struct _NOTED {
    ULONG Digit;
} NOTED;
WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(NOTED, Noted)

EXTERN_C DRIVER_INITIALIZE DriverEntry;
static EVT_WDF_DRIVER_DEVICE_ADD ProbeDeviceAdd;
static EVT_WDF_DRIVER_UNLOAD ProbeUnload;
static EVT_WDF_DEVICE_PREPARE_HARDWARE ProbePrepareHardware;
static EVT_WDF_DEVICE_RELEASE_HARDWARE ProbeReleaseHardware;
static EVT_WDF_DEVICE_D0_ENTRY ProbeD0Entry;
static EVT_WDF_DEVICE_D0_EXIT ProbeD0Exit;

static REGHANDLE g_Provider;
static WDFKEY g_Key;
static ULONG g_Log;
static ULONG g_DeviceLog;
static ULONG g_FirstD0From;

// ---- Answers ----

static VOID OpenAnswers(VOID)
{
    (void)WdfDriverOpenParametersRegistryKey(WdfGetDriver(), KEY_READ | KEY_WRITE, WDF_NO_OBJECT_ATTRIBUTES, &g_Key);
}

static VOID CloseAnswers(VOID)
{
    if (g_Key != NULL) {
        WdfRegistryClose(g_Key);
        g_Key = NULL;
    }
}

VOID Answer(PCWSTR name, ULONG value)
{
    UNICODE_STRING text;
    RtlInitUnicodeString(&text, name);
    if (g_Key != NULL) {
        (void)WdfRegistryAssignULong(g_Key, &text, value);
    }
    EVENT_DESCRIPTOR event;
    RtlZeroMemory(&event, sizeof(event));
    event.Id = 1;
    event.Level = LEVEL_INFORMATION;
    EVENT_DATA_DESCRIPTOR fields[2];
    EventDataDescCreate(&fields[0], name, text.Length + (ULONG)sizeof(WCHAR));
    EventDataDescCreate(&fields[1], &value, sizeof(value));
    (void)EtwWrite(g_Provider, &event, NULL, 2, fields);
}

VOID Note(ULONG digit)
{
    __atomic_store_n(&g_Log, g_Log << 4 | digit, __ATOMIC_RELEASE);
}

ULONG NotesSoFar(VOID)
{
    return __atomic_load_n(&g_Log, __ATOMIC_ACQUIRE);
}

ULONG TakeLog(VOID)
{
    const ULONG log = g_Log;
    g_Log = 0;
    return log;
}

static VOID NTAPI NotedCleanup(WDFOBJECT object)
{
    Note(Noted(object)->Digit);
}

static VOID NTAPI NotedDestroy(WDFOBJECT object)
{
    Note(Noted(object)->Digit + 8);
}

NTSTATUS MakeNoted(WDFOBJECT parent, ULONG digit, WDFOBJECT* object)
{
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, NOTED);
    attributes.ParentObject = parent;
    attributes.EvtCleanupCallback = NotedCleanup;
    attributes.EvtDestroyCallback = NotedDestroy;
    const NTSTATUS status = WdfObjectCreate(&attributes, object);
    if (NT_SUCCESS(status)) {
        Noted(*object)->Digit = digit;
    }
    return status;
}

// ---- The device's own callbacks: eight notes ----

static VOID NoteDevice(ULONG digit)
{
    g_DeviceLog = g_DeviceLog << 4 | digit;
}

static NTSTATUS NTAPI ProbePrepareHardware(WDFDEVICE device, WDFCMRESLIST, WDFCMRESLIST)
{
    NoteDevice(1);
    OpenAnswers();
    AskObjects(device);
    AskCollections(device);
    AskAttributes(device);
    AskDevice(device);
    AskQueries(device);
    AskRegistry();
    AskWorkItems(device);
    AskWaitLocks(device);
    AskKernel();
    CloseAnswers();
    return STATUS_SUCCESS;
}

static NTSTATUS NTAPI ProbeD0Entry(WDFDEVICE, WDF_POWER_DEVICE_STATE previous)
{
    NoteDevice(2);
    g_FirstD0From = previous;
    return STATUS_SUCCESS;
}

static NTSTATUS NTAPI ProbeD0Exit(WDFDEVICE, WDF_POWER_DEVICE_STATE)
{
    NoteDevice(3);
    return STATUS_SUCCESS;
}

static NTSTATUS NTAPI ProbeReleaseHardware(WDFDEVICE, WDFCMRESLIST)
{
    NoteDevice(4);
    return STATUS_SUCCESS;
}

static VOID NTAPI ChildCleanup(WDFOBJECT)
{
    NoteDevice(5);
}

static VOID NTAPI DeviceCleanup(WDFOBJECT)
{
    NoteDevice(6);
}

static VOID NTAPI ChildDestroy(WDFOBJECT)
{
    NoteDevice(7);
}

static VOID NTAPI DeviceDestroy(WDFOBJECT)
{
    NoteDevice(8);
}

static NTSTATUS NTAPI ProbeDeviceAdd(WDFDRIVER, PWDFDEVICE_INIT deviceInit)
{
    g_DeviceLog = 0;
    WDF_PNPPOWER_EVENT_CALLBACKS power;
    WDF_PNPPOWER_EVENT_CALLBACKS_INIT(&power);
    power.EvtDevicePrepareHardware = ProbePrepareHardware;
    power.EvtDeviceReleaseHardware = ProbeReleaseHardware;
    power.EvtDeviceD0Entry = ProbeD0Entry;
    power.EvtDeviceD0Exit = ProbeD0Exit;
    WdfDeviceInitSetPnpPowerEventCallbacks(deviceInit, &power);

    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    attributes.EvtCleanupCallback = DeviceCleanup;
    attributes.EvtDestroyCallback = DeviceDestroy;
    WDFDEVICE device = NULL;
    const NTSTATUS status = WdfDeviceCreate(&deviceInit, &attributes, &device);
    OpenAnswers();
    Answer(L"Device.InitIsTaken", deviceInit == NULL);
    CloseAnswers();
    if (!NT_SUCCESS(status)) {
        return status;
    }
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    attributes.EvtCleanupCallback = ChildCleanup;
    attributes.EvtDestroyCallback = ChildDestroy;
    attributes.ParentObject = device;
    WDFOBJECT child = NULL;
    return WdfObjectCreate(&attributes, &child);
}

static VOID NTAPI ProbeUnload(WDFDRIVER)
{
    OpenAnswers();
    Answer(L"Device.FirstD0EntryFrom", g_FirstD0From);
    Answer(L"Device.CallbackOrder", g_DeviceLog);
    CloseAnswers();
    (void)EtwUnregister(g_Provider);
}

NTSTATUS DriverEntry(PDRIVER_OBJECT driverObject, PUNICODE_STRING registryPath)
{
    const ULONG hadHandle = WdfGetDriver() != NULL;
    (void)EtwRegister(&GUID_PROBE_PROVIDER, NULL, NULL, &g_Provider);
    WDF_DRIVER_CONFIG config;
    WDF_DRIVER_CONFIG_INIT(&config, ProbeDeviceAdd);
    config.EvtDriverUnload = ProbeUnload;
    config.DriverPoolTag = PROBE_POOL_TAG;
    config.Size = 0;
    const NTSTATUS wrongSize =
        WdfDriverCreate(driverObject, registryPath, WDF_NO_OBJECT_ATTRIBUTES, &config, WDF_NO_HANDLE);
    config.Size = sizeof(config);
    const NTSTATUS status =
        WdfDriverCreate(driverObject, registryPath, WDF_NO_OBJECT_ATTRIBUTES, &config, WDF_NO_HANDLE);
    if (!NT_SUCCESS(status)) {
        (void)EtwUnregister(g_Provider);
        return status;
    }
    OpenAnswers();
    Answer(L"Driver.HandleBeforeCreate", hadHandle);
    Answer(L"Driver.ConfigSize", (ULONG)wrongSize);
    Answer(L"Driver.SecondCreate",
           (ULONG)WdfDriverCreate(driverObject, registryPath, WDF_NO_OBJECT_ATTRIBUTES, &config, WDF_NO_HANDLE));
    Answer(L"Driver.TagIsOurs", WdfDriverGlobals->DriverTag == PROBE_POOL_TAG);
    Answer(L"Driver.UnloadIsDisplaced", WdfDriverGlobals->DisplaceDriverUnload != FALSE);
    CloseAnswers();
    return status;
}
