// One registered client and one subscription: the typed contexts of their framework objects.
#pragma once

#include <ntddk.h>

#include <wdf.h>

#include "driver/include/zepn_notifier.h"
#include "driver/trace/report.h"

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
    // Its own subscriptions; a child of the driver object, deleted when the client is removed.
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

// What a client that was called back wants to be posted for it: nothing unless the state is new.
struct ClientAnswer {
    bool isNew;
    ZepState state;
};

// The typed context of the item at an index of a collection, and the item: null when the item or its context is
// missing, which has then been reported. The caller holds the clients lock and has read the count under it. The
// collection is a reference so that no register is spent on it between the look-up and a report.
template <Site kNoItem, Site kNoContext, auto kGetContext>
[[nodiscard]] FORCEINLINE auto ContextAt(const WDFCOLLECTION& collection, ULONG index, ULONG count, WDFOBJECT& item)
{
    item = WdfCollectionGetItem(collection, index);
    if (item == nullptr) {
        Report<kNoItem>(index, collection, count);
        return decltype(kGetContext(item)){};
    }
    const auto context = kGetContext(item);
    if (context == nullptr) {
        Report<kNoContext>(item);
    }
    return context;
}

template <Site kNoItem, Site kNoContext>
[[nodiscard]] FORCEINLINE ZEP_NOTIFIER_CLIENT_CONTEXT* ClientAt(const WDFCOLLECTION& clients, ULONG index, ULONG count,
                                                                WDFOBJECT& item)
{
    return ContextAt<kNoItem, kNoContext, GetClientContext>(clients, index, count, item);
}

template <Site kNoItem, Site kNoContext>
[[nodiscard]] FORCEINLINE ZEP_NOTIFIER_STATE_NOTIFICATION_CONTEXT*
RegistrationAt(const WDFCOLLECTION& registrations, ULONG index, ULONG count, WDFOBJECT& item)
{
    return ContextAt<kNoItem, kNoContext, GetStateNotificationContext>(registrations, index, count, item);
}

// Copies a text into a record's field: cut silently, always terminated; the bytes after the terminator keep what they
// held.
template <ULONG kSize>
void CopyText(CHAR (&destination)[kSize], const CHAR* source)
{
    ULONG length = 0;
    while (length < kSize - 1 && source[length] != '\0') {
        destination[length] = source[length];
        ++length;
    }
    destination[length] = '\0';
}
