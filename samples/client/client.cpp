// A client of the Notifier: registers, watches another client, posts its states, sends and answers commands, records a
// dump when asked to, and deregisters in time.
//
// Its number and whom it watches are in its service's Parameters key: ClientNumber, WatchedNumber, and Supervises (1:
// it asks the watched client for a dump whenever that comes up).
//
// The Notifier calls with its clients lock held, and nearly every operation takes that lock. So a callback here only
// reads its arguments, answers through them, and enqueues a work item for the rest.
#include <ntddk.h>

#include <initguid.h>
#include <wdmguid.h>

#include "driver/include/zepn_notifier.h"
#include "samples/client/sample_client.h"
#include "samples/common/notifier_link.h"

typedef struct _CLIENT_CONTEXT {
    NOTIFIER_LINK Link;
    ZEP_NOTIFIER_HELPER_INTERFACE Notifier;
    ULONG Number;
    ULONG WatchedNumber;
    ULONG Supervises;
    GUID Guid;
    GUID WatchedGuid;
    CHAR Name[10];  // "client 1"
    ULONG DumpRecord;

    // Counters of what callbacks want and the work has done: each has one writer.
    WDFWORKITEM Work;
    ULONG PeerUps;
    ULONG RecordsWanted;
    ULONG Sleeps;
    ULONG PeerUpsSeen;
    ULONG RecordsMade;
    ULONG SleepsSeen;
} CLIENT_CONTEXT;
WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(CLIENT_CONTEXT, ClientContext)

EXTERN_C DRIVER_INITIALIZE DriverEntry;
static EVT_WDF_DRIVER_DEVICE_ADD ClientDeviceAdd;
static EVT_WDF_DEVICE_PREPARE_HARDWARE ClientPrepareHardware;
static EVT_WDF_DEVICE_RELEASE_HARDWARE ClientReleaseHardware;
static EVT_WDF_WORKITEM ClientWork;

#define SAY(client, format, ...)                                                                                       \
    DbgPrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_INFO_LEVEL, "%s: " format "\n", (client)->Name __VA_OPT__(, ) __VA_ARGS__)

static NTSTATUS PostState(CLIENT_CONTEXT* client, ULONG state)
{
    const ZepState record = {.Size = sizeof(ZepState), .InterfaceGUID = client->Guid, .State = state, .Reserved = 0};
    const NTSTATUS status = client->Notifier.Notifier_HelperSendState(&record);
    SAY(client, "posts state %u: 0x%08X", state, (unsigned)status);
    return status;
}

// ---- Called by the Notifier, with its clients lock held ----

static NTSTATUS NTAPI OnWatchedState(PVOID context, const ZepState* state, PULONG response)
{
    auto* client = static_cast<CLIENT_CONTEXT*>(context);
    SAY(client, "is notified: client %u is in state %u", client->WatchedNumber, state->State);
    if (state->State == SAMPLE_STATE_UP) {
        *response = SAMPLE_STATE_CONNECTED;  // the Notifier posts it for us
        WriteULongNoFence(&client->PeerUps, client->PeerUps + 1);
        WdfWorkItemEnqueue(client->Work);  // a command cannot be sent from here
    }
    return STATUS_SUCCESS;
}

static NTSTATUS NTAPI OnCommand(PVOID context, ULONG commandId, const ZepCommandInfo* info, PULONG state)
{
    auto* client = static_cast<CLIENT_CONTEXT*>(context);
    SAY(client, "gets command %u (%u) while in state %u", commandId, info->CommandArgument, *state);
    if (commandId == SAMPLE_COMMAND_RECORD) {
        WriteULongNoFence(&client->RecordsWanted, client->RecordsWanted + 1);
        WdfWorkItemEnqueue(client->Work);
    }
    return STATUS_SUCCESS;
}

// An answer to this would be posted for us later, on another thread, perhaps after we deregistered. So the work posts.
//
// What remains: a post of ours on another thread that has looked us up already can be recorded during this callback.
// Then the unchanged value counts as an answer and is posted all the same, perhaps while we deregister. A client that
// posts at any time and deregisters at any time sets no such callback; this one does, to show it.
static NTSTATUS NTAPI OnAppsState(PVOID context, ULONG reason, PULONG state)
{
    auto* client = static_cast<CLIENT_CONTEXT*>(context);
    UNREFERENCED_PARAMETER(reason);
    UNREFERENCED_PARAMETER(state);
    SAY(client, "is notified: the system leaves its working state");
    WriteULongNoFence(&client->Sleeps, client->Sleeps + 1);
    WdfWorkItemEnqueue(client->Work);
    return STATUS_SUCCESS;
}

// ---- Work: what callbacks must not do themselves ----

static VOID AskForDump(CLIENT_CONTEXT* client)
{
    const ZepCommand command = {.Size = sizeof(ZepCommand),
                                .CommandArgument = client->PeerUpsSeen,
                                .SourceGuid = client->Guid,
                                .TargetGuid = client->WatchedGuid,
                                .CommandId = SAMPLE_COMMAND_RECORD};
    const NTSTATUS status = client->Notifier.Notifier_HelperSendCommand(&command);
    SAY(client, "asks client %u for a dump: 0x%08X", client->WatchedNumber, (unsigned)status);
}

// One dump: start, data, triage data, a question, stop. The values are the crash-dump driver's and ours to agree on.
static VOID RecordDump(CLIENT_CONTEXT* client)
{
    const ZEP_NOTIFIER_HELPER_INTERFACE* notifier = &client->Notifier;
    PVOID dump = &client->DumpRecord;
    ULONG data = client->RecordsMade;
    NTSTATUS status = notifier->Notifier_HelperStartDump(dump, 0x1000, 0x2000);
    if (NT_SUCCESS(status)) {
        status = notifier->Notifier_HelperAddDumpData(dump, &data, 0x80000000, 4096, 0);
        if (NT_SUCCESS(status)) {
            status = notifier->Notifier_HelperDumpAddTriageData(dump, 0x90000000, 256);
        }
        if (NT_SUCCESS(status)) {
            status = notifier->Notifier_HelperDumpQueryParam(dump, 1, 0, 0);
        }
        const NTSTATUS stopped = notifier->Notifier_HelperStopDump(dump, 0);
        status = NT_SUCCESS(status) ? stopped : status;
    }
    SAY(client, "has recorded a dump: 0x%08X", (unsigned)status);
}

// Runs may overlap; the link's lock lets one in at a time, and none while we deregister.
static VOID NTAPI ClientWork(WDFWORKITEM workItem)
{
    CLIENT_CONTEXT* client = ClientContext(WdfWorkItemGetParentObject(workItem));
    if (!NotifierLinkAcquire(&client->Link)) {
        return;  // the Notifier was removed meanwhile, and what was wanted with it
    }
    while (client->SleepsSeen != ReadULongNoFence(&client->Sleeps)) {
        ++client->SleepsSeen;
        (void)PostState(client, SAMPLE_STATE_ASLEEP);
    }
    while (client->PeerUpsSeen != ReadULongNoFence(&client->PeerUps)) {
        ++client->PeerUpsSeen;
        if (client->Supervises != 0) {
            AskForDump(client);
        }
    }
    while (client->RecordsMade != ReadULongNoFence(&client->RecordsWanted)) {
        ++client->RecordsMade;
        RecordDump(client);
    }
    NotifierLinkRelease(&client->Link);
}

// ---- Registering and deregistering ----

static NTSTATUS ClientConnect(WDFDEVICE device)
{
    CLIENT_CONTEXT* client = ClientContext(device);
    ActionCallbackTable callbacks;
    RtlZeroMemory(&callbacks, sizeof(callbacks));
    callbacks.AppsStateNotificationCallback = OnAppsState;
    callbacks.CommandCallback = OnCommand;
    // What the crash-dump driver shall know of us: an address and a size.
    const ZepDataEntry entry = {.Value = {0x80000000, 4096}};

    client->SleepsSeen = ReadULongNoFence(&client->Sleeps);  // what is left of an earlier registration
    NTSTATUS status = client->Notifier.Notifier_HelperInit(&client->Guid, client->Name, "a sample client", &callbacks,
                                                           &entry, 1, client);
    SAY(client, "registers: 0x%08X", (unsigned)status);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = PostState(client, SAMPLE_STATE_STARTING);
    if (NT_SUCCESS(status)) {
        const ZepState watched = {
            .Size = sizeof(ZepState), .InterfaceGUID = client->WatchedGuid, .State = ZEP_STATE_ANY, .Reserved = 0};
        // May call OnWatchedState before it returns, with the state that the watched client is in already.
        status = client->Notifier.Notifier_HelperRegisterForStateNotification(&client->Guid, &watched, OnWatchedState);
        SAY(client, "subscribes to client %u: 0x%08X", client->WatchedNumber, (unsigned)status);
    }
    if (NT_SUCCESS(status)) {
        status = PostState(client, SAMPLE_STATE_UP);
    }
    if (!NT_SUCCESS(status)) {
        (void)client->Notifier.Notifier_HelperClientDeinit(&client->Guid);
    }
    return status;
}

// Takes our subscriptions along. A command from or to us that is still undelivered would stop command delivery for
// everybody: a real client lets its commands drain before its device is removed.
static VOID ClientDisconnect(WDFDEVICE device)
{
    CLIENT_CONTEXT* client = ClientContext(device);
    const NTSTATUS status = client->Notifier.Notifier_HelperClientDeinit(&client->Guid);
    SAY(client, "deregisters: 0x%08X", (unsigned)status);
}

// ---- The device ----

static NTSTATUS NTAPI ClientPrepareHardware(WDFDEVICE device, WDFCMRESLIST, WDFCMRESLIST)
{
    return NotifierLinkStart(&ClientContext(device)->Link);
}

static NTSTATUS NTAPI ClientReleaseHardware(WDFDEVICE device, WDFCMRESLIST)
{
    NotifierLinkStop(&ClientContext(device)->Link);
    return STATUS_SUCCESS;
}

static ULONG ReadParameter(WDFKEY key, PCWSTR name, ULONG otherwise)
{
    UNICODE_STRING text;
    RtlInitUnicodeString(&text, name);
    ULONG value = 0;
    return NT_SUCCESS(WdfRegistryQueryULong(key, &text, &value)) ? value : otherwise;
}

static VOID ReadIdentity(CLIENT_CONTEXT* client)
{
    client->Number = 1;
    client->WatchedNumber = 2;
    WDFKEY key = NULL;
    if (NT_SUCCESS(WdfDriverOpenParametersRegistryKey(WdfGetDriver(), KEY_READ, WDF_NO_OBJECT_ATTRIBUTES, &key))) {
        client->Number = ReadParameter(key, L"ClientNumber", client->Number);
        client->WatchedNumber = ReadParameter(key, L"WatchedNumber", client->WatchedNumber);
        client->Supervises = ReadParameter(key, L"Supervises", 0);
        WdfRegistryClose(key);
    }
    constexpr GUID kBase = SAMPLE_CLIENT_GUID;
    client->Guid = kBase;
    client->Guid.Data1 += client->Number;
    client->WatchedGuid = kBase;
    client->WatchedGuid.Data1 += client->WatchedNumber;
    RtlCopyMemory(client->Name, "client #", sizeof("client #"));
    client->Name[sizeof("client #") - 2] = (CHAR)('0' + client->Number % 10);
    client->DumpRecord = client->Number;
}

static NTSTATUS NTAPI ClientDeviceAdd(WDFDRIVER, PWDFDEVICE_INIT deviceInit)
{
    WDF_PNPPOWER_EVENT_CALLBACKS power;
    WDF_PNPPOWER_EVENT_CALLBACKS_INIT(&power);
    power.EvtDevicePrepareHardware = ClientPrepareHardware;
    power.EvtDeviceReleaseHardware = ClientReleaseHardware;
    WdfDeviceInitSetPnpPowerEventCallbacks(deviceInit, &power);

    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, CLIENT_CONTEXT);
    WDFDEVICE device = NULL;
    NTSTATUS status = WdfDeviceCreate(&deviceInit, &attributes, &device);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    CLIENT_CONTEXT* client = ClientContext(device);
    ReadIdentity(client);

    WDF_WORKITEM_CONFIG config;
    WDF_WORKITEM_CONFIG_INIT(&config, ClientWork);
    config.AutomaticSerialization = FALSE;
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    attributes.ParentObject = device;
    status = WdfWorkItemCreate(&config, &attributes, &client->Work);
    if (!NT_SUCCESS(status)) {
        return status;
    }

    client->Link.InterfaceGuid = &GUID_ZEP_NOTIFIER_HELPER_INTERFACE;
    client->Link.Table = &client->Notifier.InterfaceHeader;
    client->Link.TableSize = sizeof(client->Notifier);
    client->Link.TableVersion = ZEP_NOTIFIER_INTERFACE_VERSION;
    client->Link.Name = client->Name;
    client->Link.Connect = ClientConnect;
    client->Link.Disconnect = ClientDisconnect;
    return NotifierLinkCreate(&client->Link, device);
}

NTSTATUS DriverEntry(PDRIVER_OBJECT driverObject, PUNICODE_STRING registryPath)
{
    WDF_DRIVER_CONFIG config;
    WDF_DRIVER_CONFIG_INIT(&config, ClientDeviceAdd);
    return WdfDriverCreate(driverObject, registryPath, WDF_NO_OBJECT_ATTRIBUTES, &config, WDF_NO_HANDLE);
}
