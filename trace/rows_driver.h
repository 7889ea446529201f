// Reporting sites of the driver frame: entry, unload, device, power and file callbacks.
// Messages 10 to 62 and 259 are fixed numbers; tools outside this project know them.
#pragma once

#include "trace/catalogue.h"

inline constexpr Row kDriverRows[] = {
    // DriverEntry
    {Site::kDriverEntryStarted, "DriverEntry", 44, nullptr, nullptr, Values::kBuild,
     {.number = 10, .flag = TraceFlag::kEntry, .level = kLevelInformation, .text = "built %10!s! %11!s!"}},
    CallFailed(Site::kDriverEntryCreate, "DriverEntry", "WdfDriverCreate", 11),

    // NotifierEvtDriverUnload
    {Site::kDriverUnloadEntered, "NotifierEvtDriverUnload", 41, "Driver object", nullptr, Values::kObject,
     {.number = 55, .flag = TraceFlag::kEntry, .level = kLevelInformation, .text = "driver %10!p! unloads"}, true},
    Failed(Site::kDriverUnloadNoContext, "NotifierEvtDriverUnload", "Driver context is NULL?!", 56),
    Traced(Site::kDriverUnloadUnregister, "NotifierEvtDriverUnload", 57, kLevelVerbose, Values::kNone, "unregistering the power-state callback"),
    Traced(Site::kDriverUnloadDereference, "NotifierEvtDriverUnload", 58, kLevelVerbose, Values::kNone, "dropping the power-state callback object"),

    // NotifierEvtDeviceAdd
    {Site::kDeviceAddEntered, "NotifierEvtDeviceAdd", 41, "Driver object", nullptr, Values::kObject,
     {.number = 12, .flag = TraceFlag::kEntry, .level = kLevelInformation, .text = "device of driver %10!p!"}, true},
    {Site::kDeviceAddNoContext, "NotifierEvtDeviceAdd", 6, "Driver object context", nullptr, Values::kObject,
     {.number = 13, .bare = true, .text = "no driver context"}},
    CallFailed(Site::kDeviceAddAssignName, "NotifierEvtDeviceAdd", "WdfDeviceInitAssignName", 14),
    CallFailed(Site::kDeviceAddCreate, "NotifierEvtDeviceAdd", "WdfDeviceCreate", 15),
    {Site::kDeviceAddCreated, "NotifierEvtDeviceAdd", 43, nullptr, nullptr, Values::kObject,
     {.number = 16, .level = kLevelInformation, .bare = true, .text = "device created"}},
    CallFailed(Site::kDeviceAddSymbolicLink, "NotifierEvtDeviceAdd", "WdfDeviceCreateSymbolicLink", 17),
    CallFailed(Site::kDeviceAddQueue, "NotifierEvtDeviceAdd", "WdfIoQueueCreate", 18),
    // The doubled "for" is how these texts have always read; tools search for them.
    CallFailed(Site::kDeviceAddClientAddQueue, "NotifierEvtDeviceAdd", "WdfCollectionObjectCreate for for wdfCollectionWpcdClientAddQueue", 19),
    CallFailed(Site::kDeviceAddClientRemoveQueue, "NotifierEvtDeviceAdd", "WdfCollectionObjectCreate for for wdfCollectionWpcdClientRemoveQueue", 20),
    CallFailed(Site::kDeviceAddClients, "NotifierEvtDeviceAdd", "WdfCollectionObjectCreate for for wdfCollectionZepClients", 21),
    CallFailed(Site::kDeviceAddStates, "NotifierEvtDeviceAdd", "WdfCollectionObjectCreate for for wdfCollectionZepStates", 22),
    CallFailed(Site::kDeviceAddCommands, "NotifierEvtDeviceAdd", "WdfCollectionObjectCreate for for wdfCollectionZepCommands", 23),
    CallFailed(Site::kDeviceAddClientAddItem, "NotifierEvtDeviceAdd", "WdfWorkItemCreate for client add work item", 24),
    CallFailed(Site::kDeviceAddClientRemoveItem, "NotifierEvtDeviceAdd", "WdfWorkItemCreate for client remove work item", 25),
    CallFailed(Site::kDeviceAddNotifyStatesItem, "NotifierEvtDeviceAdd", "WdfWorkItemCreate for client state notify work item", 26),
    CallFailed(Site::kDeviceAddNotifyCommandsItem, "NotifierEvtDeviceAdd", "WdfWorkItemCreate for client notify command work item", 27),
    CallFailed(Site::kDeviceAddLockGeneral, "NotifierEvtDeviceAdd", "WdfWaitLockCreate for wdfWaitLockGeneral", 31),
    CallFailed(Site::kDeviceAddLockClients, "NotifierEvtDeviceAdd", "WdfWaitLockCreate for wdfWaitLockClientsCollection", 32),
    CallFailed(Site::kDeviceAddLockStates, "NotifierEvtDeviceAdd", "WdfWaitLockCreate for wdfWaitLockStatesCollection", 33),
    CallFailed(Site::kDeviceAddLockCommands, "NotifierEvtDeviceAdd", "WdfWaitLockCreate for wdfWaitLockCommandsCollection", 34),
    CallFailed(Site::kDeviceAddLockNotifyStates, "NotifierEvtDeviceAdd", "WdfWaitLockCreate for wdfWaitLockNotifyStatesWorkItem", 35),
    CallFailed(Site::kDeviceAddLockNotifyCommands, "NotifierEvtDeviceAdd", "WdfWaitLockCreate for wdfWaitLockNotifyCommandsWorkItem", 36),
    CallFailed(Site::kDeviceAddLockNotifyAppsState, "NotifierEvtDeviceAdd", "WdfWaitLockCreate for wdfWaitLockNotifyAppsStateWorkItem", 37),
    CallFailed(Site::kDeviceAddWpcdInterface, "NotifierEvtDeviceAdd", "WdfDeviceCreateDeviceInterface for WPCD interface", 38),
    CallFailed(Site::kDeviceAddHelperInterface, "NotifierEvtDeviceAdd", "WdfDeviceCreateDeviceInterface for Helper interface", 39),
    CallFailed(Site::kDeviceAddWpcdQuery, "NotifierEvtDeviceAdd", "WdfDeviceAddQueryInterface for WPCD interface", 40),
    CallFailed(Site::kDeviceAddHelperQuery, "NotifierEvtDeviceAdd", "WdfDeviceAddQueryInterface for Helper interface", 41),
    CallFailed(Site::kDeviceAddPowerCallback, "NotifierEvtDeviceAdd", "ExCreateCallback for Power state callback", 42),

    // NotifierEvtDeviceFileCreate
    {Site::kFileCreateEntered, "NotifierEvtDeviceFileCreate", 45, nullptr, nullptr, Values::kOpen,
     {.number = 49, .flag = TraceFlag::kEntry, .level = kLevelInformation, .text = "device %10!p!, file object %11!p!"},
     true},
    CallFailed(Site::kFileCreateAllocateContext, "NotifierEvtDeviceFileCreate", "WdfObjectAllocateContext", 50),
    {Site::kFileCreateNoContext, "NotifierEvtDeviceFileCreate", 9,
     "Received context pointer NULL from WdfObjectAllocateContext", nullptr, Values::kObjectStatus,
     {.number = 51, .bare = true, .text = "context allocated, but its pointer is null"}},

    // NotifierEvtDeviceFileClose
    {Site::kFileCloseEntered, "NotifierEvtDeviceFileClose", 45, nullptr, nullptr, Values::kObject,
     {.number = 52, .flag = TraceFlag::kEntry, .level = kLevelInformation, .text = "file object %10!p! closes"}, true},
    {Site::kFileCloseNoContext, "NotifierEvtDeviceFileClose", 6, "File handle context", nullptr, Values::kObject,
     {.number = 53, .bare = true, .text = "no file handle context"}},

    // Device callbacks
    {Site::kDeviceCleanupEntered, "NotifierEvtDeviceContextCleanup", 43, nullptr, nullptr, Values::kObject,
     {.number = 54, .flag = TraceFlag::kEntry, .level = kLevelInformation, .text = "device %10!p! cleans up"}, true},
    {Site::kPrepareHardwareEntered, "NotifierEvtDevicePrepareHardware", 43, nullptr, nullptr, Values::kObject,
     {.number = 59, .flag = TraceFlag::kEntry, .level = kLevelInformation, .text = "device %10!p! prepares hardware"}, true},
    {Site::kReleaseHardwareEntered, "NotifierEvtDeviceReleaseHardware", 43, nullptr, nullptr, Values::kObject,
     {.number = 60, .flag = TraceFlag::kEntry, .level = kLevelInformation, .text = "device %10!p! releases hardware"}, true},
    {Site::kD0EntryEntered, "NotifierEvtDeviceD0Entry", 43, nullptr, nullptr, Values::kObject,
     {.number = 61, .flag = TraceFlag::kEntry, .level = kLevelInformation, .text = "device %10!p! enters D0"}, true},
    {Site::kD0ExitEntered, "NotifierEvtDeviceD0Exit", 43, nullptr, nullptr, Values::kObject,
     {.number = 62, .flag = TraceFlag::kEntry, .level = kLevelInformation, .text = "device %10!p! leaves D0"}, true},
    {Site::kSurpriseRemovalEntered, "NotifierEvtDeviceSurpriseRemoval", 0, nullptr, nullptr, Values::kObject,
     {.number = 259, .flag = TraceFlag::kEntry, .level = kLevelInformation, .text = "device %10!p! has gone"}},
};
