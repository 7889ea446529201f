// The look-ups of the client registry, and what registration and removal share.
#pragma once

#include "driver/context/driver_context.h"
#include "driver/registry/client.h"

// Finds a client by its GUID: its context, or null for a miss and for a failure, which alone is reported. ClientObject
// receives the client's handle on a match and is otherwise left alone; it may be null.
//
// Takes and releases the clients lock. The context may be removed by another thread as soon as this returns: callers
// use it at once and accept that.
[[nodiscard]] ZEP_NOTIFIER_CLIENT_CONTEXT* _getClientContextByGUID(const GUID* InterfaceGUID, WDFOBJECT* ClientObject);

// The same for a caller that holds the clients lock; the result is good for as long as it does.
[[nodiscard]] _Requires_lock_held_(ClientsLock)
ZEP_NOTIFIER_CLIENT_CONTEXT* _getClientContextByGUID_unsafe(const GUID* InterfaceGUID, WDFOBJECT* ClientObject);

// Finds the oldest subscription to exactly the key's client and state; ZEP_STATE_ANY is no wildcard here. The caller
// holds the clients lock. RegistrationObject receives the handle on a match; it may be null.
[[nodiscard]] _Requires_lock_held_(ClientsLock)
ZEP_NOTIFIER_STATE_NOTIFICATION_CONTEXT* _getStateNotificationContextByZepState_unsafe(const ZepState* Key,
                                                                                       WDFCOLLECTION Registrations,
                                                                                       WDFOBJECT* RegistrationObject);

// Frees a client's copy of its data entries, if it has one.
void FreeEntries(ZepDataEntry* entries);
