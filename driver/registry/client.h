// One registered client and one subscription: the typed contexts of their framework objects.
#pragma once

#include <ntddk.h>

#include <wdf.h>

#include "driver/include/zepn_notifier.h"

inline constexpr ULONG kDataEntriesTag = 'aftn';  // "ntfa" in memory

// The clients lock guards the record, with exceptions: CurrentState is written under the general lock by posting and
// without it by delivery, and the two flags are set under the general lock; WpcdRefreshPending is cleared under the
// clients lock. Once a client can be found, all three are read and written through the no-fence accessors. At removal
// the record is copied byte for byte for the crash-dump driver, so it holds no pointer into itself. Its head, up to the
// description, is what that driver may read.
struct _ZEP_NOTIFIER_CLIENT_CONTEXT {
    GUID InterfaceGUID;                                         // identity, unique among the registered
    CHAR SubsystemName[ZEP_SUBSYSTEM_NAME_SIZE];                // zero-terminated
    CHAR SubsystemDescription[ZEP_SUBSYSTEM_DESCRIPTION_SIZE];  // zero-terminated
    ::ActionCallbackTable ActionCallbackTable;
    ZepDataEntry* DataEntries;  // owned, paged pool; null when the client gave none
    UCHAR DataEntryCount;       // modulo 256
    PVOID CallbackContext;      // the client's own
    ULONG AddedToWpcd;          // 1: the crash-dump driver has the client
    ULONG WpcdRefreshPending;   // 1: it was handed over without a state and is announced again with its next one
    ULONG CurrentState;         // 0: none yet
    // Its own subscriptions; a child of the driver object, deleted when the client goes.
    WDFCOLLECTION wdfCollectionStateRegistrations;
};
static_assert(offsetof(ZEP_NOTIFIER_CLIENT_CONTEXT, InterfaceGUID) == 0 &&
              offsetof(ZEP_NOTIFIER_CLIENT_CONTEXT, SubsystemName) == 16 &&
              offsetof(ZEP_NOTIFIER_CLIENT_CONTEXT, SubsystemDescription) == 80);
static_assert(sizeof(ZEP_NOTIFIER_CLIENT_CONTEXT) == 304);

WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(ZEP_NOTIFIER_CLIENT_CONTEXT, GetClientContext)

// A subscription. Its object is a child of the subscriber's client object and stands in the subscriber's
// wdfCollectionStateRegistrations; guarded by the clients lock.
struct ZEP_NOTIFIER_STATE_NOTIFICATION_CONTEXT {
    GUID SubscriberGUID;
    ZepState StateFilter;  // as given: InterfaceGUID the watched client, State the awaited one or ZEP_STATE_ANY
    PZEP_STATE_NOTIFICATION_CALLBACK StateNotificationCallback;
};
static_assert(sizeof(ZEP_NOTIFIER_STATE_NOTIFICATION_CONTEXT) == 56);

WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(ZEP_NOTIFIER_STATE_NOTIFICATION_CONTEXT, GetStateNotificationContext)
