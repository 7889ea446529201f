// Device add: the one device and every object that the operations share, in a fixed order.
//
// On purpose: nothing created before a failing step is deleted here: the framework deletes the device and its children,
// and the collections and locks, children of the driver object, stay until unload. Runs before any interface is
// published, so it takes no lock.
#include "driver/entry/driver_private.h"

#include "driver/context/driver_context.h"
#include "driver/context/operations.h"

constexpr WCHAR kDeviceNameText[] = L"\\Device\\ZEPN";
constexpr WCHAR kSymbolicLinkText[] = L"\\DosDevices\\ZEPN";

const UNICODE_STRING kDeviceName = RTL_CONSTANT_STRING(kDeviceNameText);
const UNICODE_STRING kSymbolicLink = RTL_CONSTANT_STRING(kSymbolicLinkText);
static_assert(sizeof(kDeviceNameText) == 26 && sizeof(kSymbolicLinkText) == 34);

static NTSTATUS PrepareInit(PWDFDEVICE_INIT deviceInit)
{
    WdfDeviceInitSetIoType(deviceInit, WdfDeviceIoBuffered);

    const NTSTATUS status = WdfDeviceInitAssignName(deviceInit, &kDeviceName);
    if (!NT_SUCCESS(status)) {
        return ReportFailure<Site::kDeviceAddAssignName>(status);
    }

    WDF_PNPPOWER_EVENT_CALLBACKS callbacks;
    WDF_PNPPOWER_EVENT_CALLBACKS_INIT(&callbacks);
    callbacks.EvtDeviceD0Entry = NotifierEvtDeviceD0Entry;
    callbacks.EvtDeviceD0Exit = NotifierEvtDeviceD0Exit;
    callbacks.EvtDevicePrepareHardware = NotifierEvtDevicePrepareHardware;
    callbacks.EvtDeviceReleaseHardware = NotifierEvtDeviceReleaseHardware;
    callbacks.EvtDeviceSurpriseRemoval = NotifierEvtDeviceSurpriseRemoval;
    WdfDeviceInitSetPnpPowerEventCallbacks(deviceInit, &callbacks);

    // The context of a file object is attached when it is opened.
    WDF_FILEOBJECT_CONFIG fileConfig;
    WDF_FILEOBJECT_CONFIG_INIT(&fileConfig, NotifierEvtDeviceFileCreate, NotifierEvtDeviceFileClose, nullptr);
    WdfDeviceInitSetFileObjectConfig(deviceInit, &fileConfig, WDF_NO_OBJECT_ATTRIBUTES);
    return STATUS_SUCCESS;
}

template <Site kFailure>
static NTSTATUS CreateCollection(WDFCOLLECTION& collection)
{
    const NTSTATUS status = WdfCollectionCreate(WDF_NO_OBJECT_ATTRIBUTES, &collection);
    if (!NT_SUCCESS(status)) {
        return ReportFailure<kFailure>(status);
    }
    return STATUS_SUCCESS;
}

static NTSTATUS CreateCollections(ZEP_NOTIFIER_DRIVER_CONTEXT& context)
{
    NTSTATUS status = CreateCollection<Site::kDeviceAddClientAddQueue>(context.wdfCollectionWpcdClientAddQueue);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = CreateCollection<Site::kDeviceAddClientRemoveQueue>(context.wdfCollectionWpcdClientRemoveQueue);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = CreateCollection<Site::kDeviceAddClients>(context.wdfCollectionZepClients);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = CreateCollection<Site::kDeviceAddStates>(context.wdfCollectionZepStates);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    return CreateCollection<Site::kDeviceAddCommands>(context.wdfCollectionZepCommands);
}

template <Site kFailure>
static NTSTATUS CreateWorkItem(WDFDEVICE device, PFN_WDF_WORKITEM routine, WDFWORKITEM& workItem)
{
    WDF_WORKITEM_CONFIG config;
    WDF_WORKITEM_CONFIG_INIT(&config, routine);
    config.AutomaticSerialization = FALSE;  // the framework's default is TRUE; the runs have locks of their own

    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    attributes.ParentObject = device;

    const NTSTATUS status = WdfWorkItemCreate(&config, &attributes, &workItem);
    if (!NT_SUCCESS(status)) {
        return ReportFailure<kFailure>(status);
    }
    return STATUS_SUCCESS;
}

static NTSTATUS CreateWorkItems(WDFDEVICE device, ZEP_NOTIFIER_DRIVER_CONTEXT& context)
{
    NTSTATUS status = CreateWorkItem<Site::kDeviceAddClientAddItem>(device, NotifierEvtWorkItemWpcdClientAdd,
                                                                    context.wdfWorkItemWpcdClientAdd);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = CreateWorkItem<Site::kDeviceAddClientRemoveItem>(device, NotifierEvtWorkItemWpcdClientRemove,
                                                              context.wdfWorkItemWpcdClientRemove);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = CreateWorkItem<Site::kDeviceAddNotifyStatesItem>(device, NotifierEvtWorkItemNotifyStates,
                                                              context.wdfWorkItemNotifyStates);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    return CreateWorkItem<Site::kDeviceAddNotifyCommandsItem>(device, NotifierEvtWorkItemNotifyCommands,
                                                              context.wdfWorkItemNotifyCommands);
}

template <Site kFailure>
static NTSTATUS CreateWaitLock(WDFWAITLOCK& lock)
{
    const NTSTATUS status = WdfWaitLockCreate(WDF_NO_OBJECT_ATTRIBUTES, &lock);
    if (!NT_SUCCESS(status)) {
        return ReportFailure<kFailure>(status);
    }
    return STATUS_SUCCESS;
}

static NTSTATUS CreateWaitLocks(ZEP_NOTIFIER_DRIVER_CONTEXT& context)
{
    NTSTATUS status = CreateWaitLock<Site::kDeviceAddLockGeneral>(context.wdfWaitLockGeneral);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = CreateWaitLock<Site::kDeviceAddLockClients>(context.wdfWaitLockClientsCollection);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = CreateWaitLock<Site::kDeviceAddLockStates>(context.wdfWaitLockStatesCollection);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = CreateWaitLock<Site::kDeviceAddLockCommands>(context.wdfWaitLockCommandsCollection);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = CreateWaitLock<Site::kDeviceAddLockNotifyStates>(context.wdfWaitLockNotifyStatesWorkItem);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = CreateWaitLock<Site::kDeviceAddLockNotifyCommands>(context.wdfWaitLockNotifyCommandsWorkItem);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    return CreateWaitLock<Site::kDeviceAddLockNotifyAppsState>(context.wdfWaitLockNotifyAppsStateWorkItem);
}

NTSTATUS NotifierEvtDeviceAdd(WDFDRIVER driver, PWDFDEVICE_INIT deviceInit)
{
    Report<Site::kDeviceAddEntered>(driver);

    ZEP_NOTIFIER_DRIVER_CONTEXT* context = GetDriverContext(driver);
    if (context == nullptr) {
        Report<Site::kDeviceAddNoContext>(driver);
        return STATUS_IO_DEVICE_ERROR;
    }

    NTSTATUS status = PrepareInit(deviceInit);
    if (!NT_SUCCESS(status)) {
        return status;
    }

    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    attributes.EvtCleanupCallback = NotifierEvtDeviceContextCleanup;
    WDFDEVICE device;
    status = WdfDeviceCreate(&deviceInit, &attributes, &device);
    if (!NT_SUCCESS(status)) {
        return ReportFailure<Site::kDeviceAddCreate>(status);
    }
    Report<Site::kDeviceAddCreated>(device);

    // Refuses stop and remove requests: peers hold function pointers into this driver.
    WdfDeviceSetStaticStopRemove(device, FALSE);

    status = WdfDeviceCreateSymbolicLink(device, &kSymbolicLink);
    if (!NT_SUCCESS(status)) {
        return ReportFailure<Site::kDeviceAddSymbolicLink>(status);
    }

    status = CreateDefaultQueue(device, *context);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = CreateCollections(*context);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = CreateWorkItems(device, *context);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = CreateWaitLocks(*context);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = PublishInterfaces(device);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    return RegisterPowerStateCallback(driver, *context);
}

void NotifierEvtDeviceContextCleanup(WDFOBJECT device)
{
    Report<Site::kDeviceCleanupEntered>(device);
    (void)NotifierClientCleanup();
}
