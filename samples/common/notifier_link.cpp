// Opens the Notifier: arrival notification, work item, I/O target, query interface; and closes it when it is removed.
//
// The table's own reference routines do not keep the Notifier in memory. What does is the open target; so it stays open
// for as long as the table is used, and whoever removes the Notifier's device asks or notifies the target first.
#include "notifier_link.h"

#include <wdmguid.h>

typedef struct _LINK_REFERENCE {
    NOTIFIER_LINK* Link;
} LINK_REFERENCE;
WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(LINK_REFERENCE, LinkReference)

static DRIVER_NOTIFICATION_CALLBACK_ROUTINE LinkInterfaceChanged;
static EVT_WDF_WORKITEM LinkFind;
static EVT_WDF_IO_TARGET_QUERY_REMOVE LinkQueryRemove;
static EVT_WDF_IO_TARGET_REMOVE_CANCELED LinkRemoveCanceled;
static EVT_WDF_IO_TARGET_REMOVE_COMPLETE LinkRemoveComplete;

static VOID Say(const NOTIFIER_LINK* link, const char* what)
{
    DbgPrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_INFO_LEVEL, "%s: %s\n", link->Name, what);
}

static VOID SayStatus(const NOTIFIER_LINK* link, const char* what, NTSTATUS status)
{
    DbgPrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_ERROR_LEVEL, "%s: %s: 0x%08X\n", link->Name, what, (unsigned)status);
}

// ---- Connecting and disconnecting; the lock is held ----

// Gets the table from the open target and connects.
static NTSTATUS Connect(NOTIFIER_LINK* link)
{
    NTSTATUS status = WdfIoTargetQueryForInterface(link->Target, link->InterfaceGuid, link->Table, link->TableSize,
                                                   link->TableVersion, NULL);
    if (!NT_SUCCESS(status)) {
        SayStatus(link, "the Notifier does not give out its table", status);
        return status;
    }
    // Size and version asked for are the most that is taken: an older, smaller table is given out too.
    if (link->Table->Size < link->TableSize || link->Table->Version < link->TableVersion) {
        status = STATUS_NOT_SUPPORTED;
        SayStatus(link, "the Notifier is older than this driver", status);
    } else {
        status = link->Connect(link->Device);
    }
    if (!NT_SUCCESS(status)) {
        link->Table->InterfaceDereference(link->Table->Context);
        return status;
    }
    link->Connected = TRUE;
    return STATUS_SUCCESS;
}

static VOID Disconnect(NOTIFIER_LINK* link)
{
    link->Disconnect(link->Device);
    link->Table->InterfaceDereference(link->Table->Context);
    link->Connected = FALSE;
}

// Opens one device by the name of its interface.
static NTSTATUS OpenTarget(NOTIFIER_LINK* link, PCWSTR symbolicLink)
{
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, symbolicLink);
    WDF_IO_TARGET_OPEN_PARAMS parameters;
    WDF_IO_TARGET_OPEN_PARAMS_INIT_OPEN_BY_NAME(&parameters, &name, GENERIC_READ | GENERIC_WRITE);
    parameters.EvtIoTargetQueryRemove = LinkQueryRemove;
    parameters.EvtIoTargetRemoveCanceled = LinkRemoveCanceled;
    parameters.EvtIoTargetRemoveComplete = LinkRemoveComplete;
    return WdfIoTargetOpen(link->Target, &parameters);
}

// ---- Finding ----

// A routine of the plug-and-play manager's: it only starts the work, as it must not wait for anything. Which interface
// has arrived does not matter: there is one Notifier, and the work looks for itself.
static NTSTATUS NTAPI LinkInterfaceChanged(PVOID notificationStructure, PVOID context)
{
    const auto* change = static_cast<const DEVICE_INTERFACE_CHANGE_NOTIFICATION*>(notificationStructure);
    auto* link = static_cast<NOTIFIER_LINK*>(context);
    // A removal is notified through the target too, and in time: nothing to do here.
    if (RtlEqualMemory(&change->Event, &GUID_DEVICE_INTERFACE_ARRIVAL, sizeof(GUID))) {
        WdfWorkItemEnqueue(link->FindWork);
    }
    return STATUS_SUCCESS;
}

static VOID NTAPI LinkFind(WDFWORKITEM workItem)
{
    NOTIFIER_LINK* link = LinkReference(workItem)->Link;
    (void)WdfWaitLockAcquire(link->Lock, NULL);
    PWSTR names = NULL;
    if (!link->Connected && NT_SUCCESS(IoGetDeviceInterfaces(link->InterfaceGuid, NULL, 0, &names))) {
        if (names[0] != 0) {  // the list ends with an empty name; without a Notifier it is nothing else
            NTSTATUS status = OpenTarget(link, names);
            if (NT_SUCCESS(status)) {
                status = Connect(link);
                if (!NT_SUCCESS(status)) {
                    WdfIoTargetClose(link->Target);
                }
            } else {
                SayStatus(link, "the Notifier cannot be opened", status);
            }
        }
        ExFreePool(names);
    }
    WdfWaitLockRelease(link->Lock);
}

// ---- Removal of the Notifier's device: requested, cancelled, complete ----

static NTSTATUS NTAPI LinkQueryRemove(WDFIOTARGET target)
{
    NOTIFIER_LINK* link = LinkReference(target)->Link;
    Say(link, "removal of the Notifier is requested: closing it");
    (void)WdfWaitLockAcquire(link->Lock, NULL);
    if (link->Connected) {
        Disconnect(link);
    }
    WdfIoTargetCloseForQueryRemove(target);
    WdfWaitLockRelease(link->Lock);
    return STATUS_SUCCESS;
}

static VOID NTAPI LinkRemoveCanceled(WDFIOTARGET target)
{
    NOTIFIER_LINK* link = LinkReference(target)->Link;
    Say(link, "removal of the Notifier is cancelled: connecting again");
    WDF_IO_TARGET_OPEN_PARAMS parameters;
    WDF_IO_TARGET_OPEN_PARAMS_INIT_REOPEN(&parameters);
    (void)WdfWaitLockAcquire(link->Lock, NULL);
    NTSTATUS status = WdfIoTargetOpen(target, &parameters);
    if (NT_SUCCESS(status)) {
        status = Connect(link);
    }
    if (!NT_SUCCESS(status)) {
        SayStatus(link, "could not connect again", status);
        WdfIoTargetClose(target);
    }
    WdfWaitLockRelease(link->Lock);
}

static VOID NTAPI LinkRemoveComplete(WDFIOTARGET target)
{
    NOTIFIER_LINK* link = LinkReference(target)->Link;
    Say(link, "the Notifier was removed");
    (void)WdfWaitLockAcquire(link->Lock, NULL);
    if (link->Connected) {
        // Gone without asking. Device and driver stay as long as the target is open: the table is good until then.
        Disconnect(link);
    }
    WdfIoTargetClose(target);
    WdfWaitLockRelease(link->Lock);
}

// ---- What the driver calls ----

NTSTATUS NotifierLinkCreate(NOTIFIER_LINK* link, WDFDEVICE device)
{
    link->Device = device;
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    attributes.ParentObject = device;
    NTSTATUS status = WdfWaitLockCreate(&attributes, &link->Lock);
    if (!NT_SUCCESS(status)) {
        return status;
    }

    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, LINK_REFERENCE);
    attributes.ParentObject = device;
    status = WdfIoTargetCreate(device, &attributes, &link->Target);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    LinkReference(link->Target)->Link = link;

    WDF_WORKITEM_CONFIG config;
    WDF_WORKITEM_CONFIG_INIT(&config, LinkFind);
    config.AutomaticSerialization = FALSE;  // the lock does it
    status = WdfWorkItemCreate(&config, &attributes, &link->FindWork);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    LinkReference(link->FindWork)->Link = link;
    return STATUS_SUCCESS;
}

NTSTATUS NotifierLinkStart(NOTIFIER_LINK* link)
{
    // With existing interfaces: a Notifier that came first is found as one that comes later is.
    return IoRegisterPlugPlayNotification(
        EventCategoryDeviceInterfaceChange, PNPNOTIFY_DEVICE_INTERFACE_INCLUDE_EXISTING_INTERFACES,
        const_cast<GUID*>(link->InterfaceGuid), WdfDriverWdmGetDriverObject(WdfGetDriver()), LinkInterfaceChanged, link,
        &link->Notification);
}

VOID NotifierLinkStop(NOTIFIER_LINK* link)
{
    // First nobody starts the work any more, then the work is through, then what it did is undone.
    if (link->Notification != NULL) {
        (void)IoUnregisterPlugPlayNotificationEx(link->Notification);
        link->Notification = NULL;
    }
    WdfWorkItemFlush(link->FindWork);
    (void)WdfWaitLockAcquire(link->Lock, NULL);
    if (link->Connected) {
        Disconnect(link);
    }
    WdfIoTargetClose(link->Target);
    WdfWaitLockRelease(link->Lock);
}

BOOLEAN NotifierLinkAcquire(NOTIFIER_LINK* link)
{
    (void)WdfWaitLockAcquire(link->Lock, NULL);
    if (!link->Connected) {
        WdfWaitLockRelease(link->Lock);
        return FALSE;
    }
    return TRUE;
}

VOID NotifierLinkRelease(NOTIFIER_LINK* link)
{
    WdfWaitLockRelease(link->Lock);
}
