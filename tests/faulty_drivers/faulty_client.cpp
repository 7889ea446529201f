// A client of the Notifier that makes one mistake of a client's: which one is in its Parameters key, as Mistake.
#include "tests/faulty_drivers/faulty_client.h"

#include <ntddk.h>

#include <initguid.h>
#include <wdmguid.h>

#include "driver/include/zepn_notifier.h"
#include "samples/common/notifier_link.h"

namespace {

constexpr ULONG kTag = 'tlcF';
constexpr SIZE_T kBlockBytes = 64;
constexpr GUID kOwn = {0x4B1D3A77, 0x90C4, 0x4E3F, {0xA5, 0x18, 0x0E, 0x7C, 0x26, 0xB9, 0x51, 0x01}};
constexpr GUID kWatched = {0x4B1D3A77, 0x90C4, 0x4E3F, {0xA5, 0x18, 0x0E, 0x7C, 0x26, 0xB9, 0x51, 0x02}};

struct CLIENT_CONTEXT {
    NOTIFIER_LINK Link;
    ZEP_NOTIFIER_HELPER_INTERFACE Notifier;
    Mistake Made;
    WDFSPINLOCK SpinLock;
    WDFTIMER Timer;
    WDFWORKITEM Work;
    ULONG* Block;  // while registered
};
WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(CLIENT_CONTEXT, ClientContext)

NTSTATUS Post(CLIENT_CONTEXT& client, ULONG state)
{
    const ZepState record = {.Size = sizeof(record), .InterfaceGUID = kOwn, .State = state, .Reserved = 0};
    return client.Notifier.Notifier_HelperSendState(&record);
}

// Functions of their own, whose names the findings show.
__attribute__((noinline)) void ReadFreedBlock(CLIENT_CONTEXT& client)
{
    (void)*static_cast<volatile ULONG*>(client.Block);
}

__attribute__((noinline, no_sanitize("undefined"))) void FillNewBlock(CLIENT_CONTEXT& client)
{
    *static_cast<volatile ULONG*>(client.Block) = 1;
}

__attribute__((noinline)) void CreateForCommand(WDFOBJECT device)
{
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    attributes.ParentObject = device;
    WDFOBJECT object = nullptr;
    (void)WdfObjectCreate(&attributes, &object);
}

NTSTATUS NTAPI OnState(PVOID context, const ZepState* state, PULONG)
{
    auto& client = *static_cast<CLIENT_CONTEXT*>(context);
    return client.Made == Mistake::kPostsInCallback ? Post(client, state->State) : STATUS_SUCCESS;
}

constexpr LONGLONG kTimerMs = 10;

VOID NTAPI OnTimer(WDFTIMER timer)
{
    CLIENT_CONTEXT& client = *ClientContext(WdfTimerGetParentObject(timer));
    if (client.Made == Mistake::kPostsInTimer) {
        (void)Post(client, 1);
    } else {
        ReadFreedBlock(client);
    }
}

VOID NTAPI OnWork(WDFWORKITEM workItem)
{
    (void)Post(*ClientContext(WdfWorkItemGetParentObject(workItem)), 1);
}

NTSTATUS NTAPI OnCommand(PVOID context, ULONG, const ZepCommandInfo* command, PULONG)
{
    auto& client = *static_cast<CLIENT_CONTEXT*>(context);
    if (client.Made == Mistake::kPostsInTimer && command->CommandArgument != 0) {
        WdfTimerStart(client.Timer, WDF_REL_TIMEOUT_IN_MS(kTimerMs));
    } else if (client.Made == Mistake::kPostsInTimer) {
        WdfTimerStop(client.Timer, TRUE);
    }
    if (client.Made == Mistake::kUsesFreedMemory) {
        ExFreePoolWithTag(client.Block, kTag);
        ReadFreedBlock(client);
    } else if (client.Made == Mistake::kLeaks) {
        client.Block = static_cast<ULONG*>(ExAllocatePoolWithTag(NonPagedPoolNx, kBlockBytes, kTag));
    }
    if (client.Made == Mistake::kCreatesWithoutEnd) {
        CreateForCommand(WdfTimerGetParentObject(client.Timer));
    }
    if (client.Made == Mistake::kWorksAfterLeaving) {
        WdfWorkItemEnqueue(client.Work);
    }
    return STATUS_SUCCESS;
}

NTSTATUS Connect(WDFDEVICE device)
{
    CLIENT_CONTEXT& client = *ClientContext(device);
    client.Block = static_cast<ULONG*>(ExAllocatePoolWithTag(NonPagedPoolNx, kBlockBytes, kTag));
    if (client.Made == Mistake::kTrustsAllocation) {
        FillNewBlock(client);
    }
    if (client.Block == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    ActionCallbackTable callbacks{};
    callbacks.CommandCallback = OnCommand;
    NTSTATUS status =
        client.Notifier.Notifier_HelperInit(&kOwn, "faulty", "makes mistakes", &callbacks, nullptr, 0, &client);
    if (NT_SUCCESS(status)) {
        const ZepState any = {.Size = sizeof(any), .InterfaceGUID = kWatched, .State = ZEP_STATE_ANY, .Reserved = 0};
        status = client.Notifier.Notifier_HelperRegisterForStateNotification(&kOwn, &any, OnState);
        if (NT_SUCCESS(status) && client.Made == Mistake::kCallsAtDispatchLevel) {
            WdfSpinLockAcquire(client.SpinLock);
            status = Post(client, 1);
            WdfSpinLockRelease(client.SpinLock);
        }
        if (!NT_SUCCESS(status) && client.Made != Mistake::kForgetsFailedStart) {
            (void)client.Notifier.Notifier_HelperClientDeinit(&kOwn);
        }
    }
    if (!NT_SUCCESS(status)) {
        ExFreePoolWithTag(client.Block, kTag);
    } else if (client.Made == Mistake::kLeavesTimerRunning) {
        WdfTimerStart(client.Timer, WDF_REL_TIMEOUT_IN_MS(kTimerMs));
    }
    return status;
}

VOID Disconnect(WDFDEVICE device)
{
    CLIENT_CONTEXT& client = *ClientContext(device);
    if (client.Made != Mistake::kNeverDeregisters) {
        (void)client.Notifier.Notifier_HelperClientDeinit(&kOwn);
    }
    ExFreePoolWithTag(client.Block, kTag);
}

Mistake ReadMistake()
{
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, L"Mistake");
    ULONG value = 0;
    WDFKEY key = nullptr;
    if (NT_SUCCESS(WdfDriverOpenParametersRegistryKey(WdfGetDriver(), KEY_READ, WDF_NO_OBJECT_ATTRIBUTES, &key))) {
        (void)WdfRegistryQueryULong(key, &name, &value);
        WdfRegistryClose(key);
    }
    return static_cast<Mistake>(value);
}

NTSTATUS NTAPI PrepareHardware(WDFDEVICE device, WDFCMRESLIST, WDFCMRESLIST)
{
    return NotifierLinkStart(&ClientContext(device)->Link);
}

NTSTATUS NTAPI ReleaseHardware(WDFDEVICE device, WDFCMRESLIST)
{
    CLIENT_CONTEXT& client = *ClientContext(device);
    NotifierLinkStop(&client.Link);
    if (client.Made == Mistake::kCallsAfterClosing) {
        (void)Post(client, 1);
    }
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI DeviceAdd(WDFDRIVER, PWDFDEVICE_INIT init)
{
    WDF_PNPPOWER_EVENT_CALLBACKS power;
    WDF_PNPPOWER_EVENT_CALLBACKS_INIT(&power);
    power.EvtDevicePrepareHardware = PrepareHardware;
    power.EvtDeviceReleaseHardware = ReleaseHardware;
    WdfDeviceInitSetPnpPowerEventCallbacks(init, &power);

    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, CLIENT_CONTEXT);
    WDFDEVICE device = nullptr;
    NTSTATUS status = WdfDeviceCreate(&init, &attributes, &device);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    CLIENT_CONTEXT& client = *ClientContext(device);
    client.Made = ReadMistake();
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    attributes.ParentObject = device;
    WDF_TIMER_CONFIG timer;
    WDF_TIMER_CONFIG_INIT_PERIODIC(&timer, OnTimer, kTimerMs);
    timer.AutomaticSerialization = FALSE;
    WDF_WORKITEM_CONFIG work;
    WDF_WORKITEM_CONFIG_INIT(&work, OnWork);
    work.AutomaticSerialization = FALSE;
    status = WdfSpinLockCreate(&attributes, &client.SpinLock);
    if (NT_SUCCESS(status)) {
        status = WdfTimerCreate(&timer, &attributes, &client.Timer);
    }
    if (NT_SUCCESS(status)) {
        status = WdfWorkItemCreate(&work, &attributes, &client.Work);
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    client.Link.InterfaceGuid = &GUID_ZEP_NOTIFIER_HELPER_INTERFACE;
    client.Link.Table = &client.Notifier.InterfaceHeader;
    client.Link.TableSize = sizeof(client.Notifier);
    client.Link.TableVersion = ZEP_NOTIFIER_INTERFACE_VERSION;
    client.Link.Name = "faulty client";
    client.Link.Connect = Connect;
    client.Link.Disconnect = Disconnect;
    return NotifierLinkCreate(&client.Link, device);
}

}  // namespace

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driverObject, PUNICODE_STRING registryPath)
{
    WDF_DRIVER_CONFIG config;
    WDF_DRIVER_CONFIG_INIT(&config, DeviceAdd);
    return WdfDriverCreate(driverObject, registryPath, WDF_NO_OBJECT_ATTRIBUTES, &config, WDF_NO_HANDLE);
}
