// A driver's hold on the Notifier: waits for it, opens it, gets one of its tables, and closes it in time. For drivers in
// C and in C++.
//
// The Notifier may start before this driver or after it, and its removal may be requested or be a surprise. What a
// driver does itself is in two callbacks:
//   Join   the table is filled: register, attach.  PASSIVE_LEVEL, the link's lock held.
//   Leave  the table is still valid: deregister, detach. PASSIVE_LEVEL, the link's lock held. After it the table isn't.
// They come in pairs: Leave for each Join that succeeded.
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

typedef NTSTATUS EVT_NOTIFIER_LINK_JOIN(WDFDEVICE Device);
typedef VOID EVT_NOTIFIER_LINK_LEAVE(WDFDEVICE Device);

typedef struct _NOTIFIER_LINK {
    // Filled by the driver before NotifierLinkCreate.
    const GUID* InterfaceGuid;  // names the device interface class and the table
    PINTERFACE Table;           // receives the table
    USHORT TableSize;           // bytes
    USHORT TableVersion;
    const char* Name;  // for what is printed
    EVT_NOTIFIER_LINK_JOIN* Join;
    EVT_NOTIFIER_LINK_LEAVE* Leave;

    // The link's own.
    WDFDEVICE Device;
    WDFWAITLOCK Lock;      // guards Joined and the table
    WDFIOTARGET Target;    // the Notifier's device, open while joined
    WDFWORKITEM FindWork;  // looks for the Notifier, opens it and joins
    PVOID Notification;    // registration for arrivals; NULL while stopped
    BOOLEAN Joined;
} NOTIFIER_LINK;

// Makes the link's objects, all children of the device. The link must exist as long as the device: put it into the
// device's context. Failure statuses are the framework's.
NTSTATUS NotifierLinkCreate(NOTIFIER_LINK* Link, WDFDEVICE Device);

// From now on the link joins whenever the Notifier is there.
NTSTATUS NotifierLinkStart(NOTIFIER_LINK* Link);

// Calls Leave and closes the Notifier. When it returns no callback of the Notifier's runs or comes any more.
VOID NotifierLinkStop(NOTIFIER_LINK* Link);

// TRUE: the table may be called until NotifierLinkRelease. FALSE: not joined, nothing to release.
BOOLEAN NotifierLinkAcquire(NOTIFIER_LINK* Link);
VOID NotifierLinkRelease(NOTIFIER_LINK* Link);

EXTERN_C_END
