// Look-up of clients by GUID and of subscriptions by client and state: walks in collection order, oldest first.
#include "driver/registry/registry.h"

#include "driver/context/driver_context.h"

// The walk that both client look-ups share; they differ in the lock and in the names they report under.
template <Site kNoItem, Site kNoClient>
_Requires_lock_held_(context.wdfWaitLockClientsCollection)
static ZEP_NOTIFIER_CLIENT_CONTEXT* FindClient(const ZEP_NOTIFIER_DRIVER_CONTEXT& context, const GUID& guid,
                                               WDFOBJECT* clientObject)
{
    const ULONG count = WdfCollectionGetCount(context.wdfCollectionZepClients);
    for (ULONG index = 0; index < count; ++index) {
        WDFOBJECT item;
        ZEP_NOTIFIER_CLIENT_CONTEXT* client =
            ClientAt<kNoItem, kNoClient>(context.wdfCollectionZepClients, index, count, item);
        if (client == nullptr) {
            return nullptr;
        }
        if (GuidsEqual(client->InterfaceGUID, guid)) {
            if (clientObject != nullptr) {
                *clientObject = item;
            }
            return client;
        }
    }
    return nullptr;
}

ZEP_NOTIFIER_CLIENT_CONTEXT* _getClientContextByGUID(const GUID* InterfaceGUID, WDFOBJECT* ClientObject)
{
    Report<Site::kLookupEntered>();
    const ZEP_NOTIFIER_DRIVER_CONTEXT* context = DriverContextOrReport<Site::kLookupNoDriver, Site::kLookupNoContext>();
    if (context == nullptr) {
        return nullptr;
    }

    const NTSTATUS status = WdfWaitLockAcquire(context->wdfWaitLockClientsCollection, nullptr);
    if (status != STATUS_SUCCESS) {
        Report<Site::kLookupLock>(status);
        return nullptr;
    }
    ZEP_NOTIFIER_CLIENT_CONTEXT* client =
        FindClient<Site::kLookupItem, Site::kLookupClient>(*context, *InterfaceGUID, ClientObject);
    WdfWaitLockRelease(context->wdfWaitLockClientsCollection);
    return client;
}

_Requires_lock_held_(ClientsLock)
ZEP_NOTIFIER_CLIENT_CONTEXT* _getClientContextByGUID_unsafe(const GUID* InterfaceGUID, WDFOBJECT* ClientObject)
{
    Report<Site::kLookupUnsafeEntered>();
    const ZEP_NOTIFIER_DRIVER_CONTEXT* context =
        DriverContextOrReport<Site::kLookupUnsafeNoDriver, Site::kLookupUnsafeNoContext>();
    if (context == nullptr) {
        return nullptr;
    }
    _Analysis_assume_same_lock_(context->wdfWaitLockClientsCollection, ClientsLock);
    return FindClient<Site::kLookupUnsafeItem, Site::kLookupUnsafeClient>(*context, *InterfaceGUID, ClientObject);
}

_Requires_lock_held_(ClientsLock)
ZEP_NOTIFIER_STATE_NOTIFICATION_CONTEXT* _getStateNotificationContextByZepState_unsafe(const ZepState* Key,
                                                                                       WDFCOLLECTION Registrations,
                                                                                       WDFOBJECT* RegistrationObject)
{
    Report<Site::kFindRegistrationEntered>();
    const ULONG count = WdfCollectionGetCount(Registrations);
    for (ULONG index = 0; index < count; ++index) {
        WDFOBJECT item;
        ZEP_NOTIFIER_STATE_NOTIFICATION_CONTEXT* registration =
            RegistrationAt<Site::kFindRegistrationItem, Site::kFindRegistrationContext>(Registrations, index, count,
                                                                                        item);
        if (registration == nullptr) {
            return nullptr;
        }
        if (GuidsEqual(registration->StateFilter.InterfaceGUID, Key->InterfaceGUID) &&
            registration->StateFilter.State == Key->State) {
            if (RegistrationObject != nullptr) {
                *RegistrationObject = item;
            }
            return registration;
        }
    }
    return nullptr;
}
