// The driver context: every object that the operations share, and below it the order of the locks.
//
// It is the typed context of the framework driver object, zero-filled by the framework and filled by device add. All
// operations reach it through the framework's driver handle.
#pragma once

#include <ntddk.h>
#include <stddef.h>

#include <wdf.h>

#include "driver/trace/report.h"

struct ZEP_NOTIFIER_DRIVER_CONTEXT {
    WDFQUEUE wdfQueueDefault;                          // child of the device; nobody reads it
    WDFCOLLECTION wdfCollectionWpcdClientAddQueue;     // clients to announce; guarded by the clients lock
    WDFCOLLECTION wdfCollectionWpcdClientRemoveQueue;  // client copies to withdraw; guarded by the clients lock
    WDFCOLLECTION wdfCollectionZepClients;             // clients, oldest first; guarded by the clients lock
    WDFCOLLECTION wdfCollectionZepStates;              // undelivered states, oldest first; guarded by the states lock
    WDFCOLLECTION wdfCollectionZepCommands;            // undelivered commands; guarded by the commands lock
    WDFWAITLOCK wdfWaitLockGeneral;                    // the flags and states of clients, where the code says so
    WDFWAITLOCK wdfWaitLockClientsCollection;          // "the clients lock"
    WDFWAITLOCK wdfWaitLockStatesCollection;           //
    WDFWAITLOCK wdfWaitLockCommandsCollection;         //
    WDFOBJECT wdfObjectWpcdClient;         // the attached crash-dump driver or null; see driver/crash_dump/attach.cpp
    WDFWORKITEM wdfWorkItemWpcdClientAdd;  // the work items are children of the device
    WDFWORKITEM wdfWorkItemWpcdClientRemove;         //
    WDFWORKITEM wdfWorkItemNotifyStates;             //
    WDFWORKITEM wdfWorkItemNotifyCommands;           //
    WDFWAITLOCK wdfWaitLockNotifyStatesWorkItem;     // one delivery run at a time
    WDFWAITLOCK wdfWaitLockNotifyCommandsWorkItem;   // one delivery run at a time
    WDFWAITLOCK wdfWaitLockNotifyAppsStateWorkItem;  // On purpose: created and never taken
    PCALLBACK_OBJECT PowerStateCallbackObject;       // \Callback\PowerState, referenced; null when not registered
    PVOID PowerStateCallbackRegistration;            //
};
static_assert(sizeof(ZEP_NOTIFIER_DRIVER_CONTEXT) == 160);
static_assert(offsetof(ZEP_NOTIFIER_DRIVER_CONTEXT, wdfWaitLockGeneral) == 48 &&
              offsetof(ZEP_NOTIFIER_DRIVER_CONTEXT, wdfObjectWpcdClient) == 80 &&
              offsetof(ZEP_NOTIFIER_DRIVER_CONTEXT, PowerStateCallbackRegistration) == 152);

// Lock order, the only place where it stands. A thread takes a lock only while all that it holds are of lower ranks.
// Wait locks are not recursive and all code that takes them runs at PASSIVE_LEVEL. The dump forwarders take none. The
// tests hand this table to what runs the driver, which then reports any other order.
struct ZEP_NOTIFIER_LOCK_RANK {
    ULONG Offset;  // of the lock in the driver context
    ULONG Rank;
};
inline constexpr ZEP_NOTIFIER_LOCK_RANK kLockOrder[] = {
    // For a whole run of their work item.
    {offsetof(ZEP_NOTIFIER_DRIVER_CONTEXT, wdfWaitLockNotifyStatesWorkItem), 1},
    {offsetof(ZEP_NOTIFIER_DRIVER_CONTEXT, wdfWaitLockNotifyCommandsWorkItem), 1},
    // During every callback into a client and every announcement to the crash-dump driver, among others.
    {offsetof(ZEP_NOTIFIER_DRIVER_CONTEXT, wdfWaitLockClientsCollection), 2},
    // For a few calls.
    {offsetof(ZEP_NOTIFIER_DRIVER_CONTEXT, wdfWaitLockGeneral), 3},
    {offsetof(ZEP_NOTIFIER_DRIVER_CONTEXT, wdfWaitLockStatesCollection), 3},
    {offsetof(ZEP_NOTIFIER_DRIVER_CONTEXT, wdfWaitLockCommandsCollection), 3},
};

WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(ZEP_NOTIFIER_DRIVER_CONTEXT, GetDriverContext)

// Two locks for the WDK's analysis, where the driver context is not at hand. Nobody defines or reads them: who holds
// the lock itself states by _Analysis_assume_same_lock_ that it is this one.
extern const WDFWAITLOCK ClientsLock;
extern const WDFWAITLOCK GeneralLock;

// Most operations begin alike: no driver object, or no context on it, is reported and answered with one status. The
// two sites differ from operation to operation. Null when something was missing.
template <Site kNoDriver, Site kNoContext>
[[nodiscard]] FORCEINLINE ZEP_NOTIFIER_DRIVER_CONTEXT* DriverContextOrReport(NTSTATUS status)
{
    const WDFDRIVER driver = WdfGetDriver();
    if (driver == nullptr) {
        Report<kNoDriver>(status);
        return nullptr;
    }
    ZEP_NOTIFIER_DRIVER_CONTEXT* context = GetDriverContext(driver);
    if (context == nullptr) {
        Report<kNoContext>(driver, status);
    }
    return context;
}

// The same for callers that have no status to give: work items, look-ups, the broadcast.
template <Site kNoDriver, Site kNoContext>
[[nodiscard]] FORCEINLINE ZEP_NOTIFIER_DRIVER_CONTEXT* DriverContextOrReport()
{
    const WDFDRIVER driver = WdfGetDriver();
    if (driver == nullptr) {
        Report<kNoDriver>();
        return nullptr;
    }
    ZEP_NOTIFIER_DRIVER_CONTEXT* context = GetDriverContext(driver);
    if (context == nullptr) {
        Report<kNoContext>();
    }
    return context;
}

// Whether the clients' collection and its lock both exist; without either there are no clients. A device add that fails
// is cleaned up too, and the power callback of an earlier device stays registered; and because the framework clears the
// handle of what it cannot create, either may be missing beside the other of that earlier device.
[[nodiscard]] FORCEINLINE bool HasClients(const ZEP_NOTIFIER_DRIVER_CONTEXT& context)
{
    return context.wdfWaitLockClientsCollection != nullptr && context.wdfCollectionZepClients != nullptr;
}

// GUIDs are compared as the 16 bytes they are.
[[nodiscard]] FORCEINLINE bool GuidsEqual(const GUID& first, const GUID& second)
{
    return RtlEqualMemory(&first, &second, sizeof(GUID));
}
