// A driver's hold on the Notifier: waits for it, opens it, gets one of its tables, and closes it in time. For drivers
// in C and in C++.
//
// The Notifier may start before this driver or after it, and its removal may be requested or be a surprise. What a
// driver does itself is in two callbacks:
//   Connect     the table is filled: register, attach. PASSIVE_LEVEL, the link's lock held.
//   Disconnect  the table is still valid, and no longer after it: deregister, detach. The same.
// They come in pairs: Disconnect for each Connect that succeeded.
//
//     EvtDriverDeviceAdd         NotifierLinkCreate
//     EvtDevicePrepareHardware   NotifierLinkStart
//     EvtDeviceReleaseHardware   NotifierLinkStop
//
// The lock is taken before the Notifier's own locks. So a callback that the Notifier calls must not take it: it notes
// what is to be done and enqueues a work item, which then asks NotifierLinkAcquire.
#pragma once

#include <ntddk.h>

#include <wdf.h>

EXTERN_C_START

typedef NTSTATUS EVT_NOTIFIER_LINK_CONNECT(WDFDEVICE Device);
typedef VOID EVT_NOTIFIER_LINK_DISCONNECT(WDFDEVICE Device);

typedef struct _NOTIFIER_LINK {
    // Filled by the driver before NotifierLinkCreate.
    const GUID* InterfaceGuid;  // names the device interface class and the table
    PINTERFACE Table;           // receives the table
    USHORT TableSize;           // bytes
    USHORT TableVersion;
    const char* Name;  // for what is printed
    EVT_NOTIFIER_LINK_CONNECT* Connect;
    EVT_NOTIFIER_LINK_DISCONNECT* Disconnect;

    // The link's own.
    WDFDEVICE Device;
    WDFWAITLOCK Lock;      // guards Connected and the table
    WDFIOTARGET Target;    // the Notifier's device, open while connected
    WDFWORKITEM FindWork;  // looks for the Notifier, opens it and connects
    PVOID Notification;    // registration for arrivals; NULL while stopped
    BOOLEAN Connected;
} NOTIFIER_LINK;

// Makes the link's objects, all children of the device. The link must exist as long as the device: put it into the
// device's context. Failure statuses are the framework's.
NTSTATUS NotifierLinkCreate(NOTIFIER_LINK* Link, WDFDEVICE Device);

// From now on the link connects whenever the Notifier is there.
NTSTATUS NotifierLinkStart(NOTIFIER_LINK* Link);

// Calls Disconnect and closes the Notifier. When it returns no callback of the Notifier's runs or comes any more.
VOID NotifierLinkStop(NOTIFIER_LINK* Link);

// TRUE: the table may be called until NotifierLinkRelease. FALSE: not connected, nothing to release.
BOOLEAN NotifierLinkAcquire(NOTIFIER_LINK* Link);
VOID NotifierLinkRelease(NOTIFIER_LINK* Link);

EXTERN_C_END
