// The least that the platform permits: a driver which makes the framework calls that posting and delivering a state
// require, acts on their results, and does nothing else. It reports nothing.
//
// It answers the Notifier's client interface as far as the benchmark uses it: registering, subscribing, posting.
#include <ntddk.h>

#include <wdf.h>

#include <initguid.h>

#include "driver/include/zepn_notifier.h"

struct MinimalContext {
    WDFCOLLECTION clients;
    WDFCOLLECTION states;
    WDFWAITLOCK general;
    WDFWAITLOCK clientsLock;
    WDFWAITLOCK statesLock;
    WDFWAITLOCK runLock;
    WDFWORKITEM notifyStates;
};
WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(MinimalContext, GetMinimalContext)

struct MinimalClient {
    GUID guid;
    PVOID callbackContext;
    ULONG isAnnounced;
    ULONG isAnnouncedAgain;
    ULONG state;
    WDFCOLLECTION subscriptions;
};
WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(MinimalClient, GetMinimalClient)

struct MinimalSubscription {
    ZepState filter;
    PZEP_STATE_NOTIFICATION_CALLBACK callback;
};
WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(MinimalSubscription, GetMinimalSubscription)

struct MinimalState {
    ZepState state;
};
WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(MinimalState, GetMinimalState)

static bool SameGuid(const GUID& first, const GUID& second)
{
    return RtlEqualMemory(&first, &second, sizeof(GUID));
}

static MinimalClient* FindLocked(const MinimalContext& context, const GUID& guid, WDFOBJECT& object)
{
    const ULONG count = WdfCollectionGetCount(context.clients);
    for (ULONG index = 0; index < count; ++index) {
        const WDFOBJECT item = WdfCollectionGetItem(context.clients, index);
        MinimalClient* client = item == nullptr ? nullptr : GetMinimalClient(item);
        if (client == nullptr) {
            return nullptr;
        }
        if (SameGuid(client->guid, guid)) {
            object = item;
            return client;
        }
    }
    return nullptr;
}

// The look-up finds the driver's context for itself, as the Notifier's must: peers may call when it is gone.
static MinimalClient* Find(const GUID& guid, WDFOBJECT& object)
{
    const MinimalContext* context = GetMinimalContext(WdfGetDriver());
    if (context == nullptr || WdfWaitLockAcquire(context->clientsLock, nullptr) != STATUS_SUCCESS) {
        return nullptr;
    }
    MinimalClient* client = FindLocked(*context, guid, object);
    WdfWaitLockRelease(context->clientsLock);
    return client;
}

static NTSTATUS NTAPI Post(const ZepState* state)
{
    const MinimalContext* context = GetMinimalContext(WdfGetDriver());
    if (context == nullptr) {
        return STATUS_IO_DEVICE_ERROR;
    }
    WDFOBJECT clientObject = nullptr;
    MinimalClient* client = Find(state->InterfaceGUID, clientObject);
    if (client == nullptr) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    NTSTATUS status = WdfWaitLockAcquire(context->general, nullptr);
    if (status != STATUS_SUCCESS) {
        return status;
    }
    WriteULongNoFence(&client->state, state->State);
    WdfWaitLockRelease(context->general);
    if (ReadULongNoFence(&client->isAnnounced) == 0 || ReadULongNoFence(&client->isAnnouncedAgain) != 0) {
        return STATUS_NOT_IMPLEMENTED;
    }

    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, MinimalState);
    attributes.ParentObject = clientObject;
    WDFOBJECT object;
    status = WdfObjectCreate(&attributes, &object);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    MinimalState* queued = GetMinimalState(object);
    if (queued == nullptr) {
        WdfObjectDelete(object);
        return STATUS_IO_DEVICE_ERROR;
    }
    queued->state = *state;
    status = WdfWaitLockAcquire(context->statesLock, nullptr);
    if (status != STATUS_SUCCESS) {
        WdfObjectDelete(object);
        return status;
    }
    status = WdfCollectionAdd(context->states, object);
    if (status != STATUS_SUCCESS) {
        WdfObjectDelete(object);
    } else {
        WdfWorkItemEnqueue(context->notifyStates);
    }
    WdfWaitLockRelease(context->statesLock);
    return status;
}

static bool DeliverTo(const MinimalClient& client, const ZepState& state)
{
    const ULONG count = WdfCollectionGetCount(client.subscriptions);
    for (ULONG index = 0; index < count; ++index) {
        const WDFOBJECT item = WdfCollectionGetItem(client.subscriptions, index);
        const MinimalSubscription* subscription = item == nullptr ? nullptr : GetMinimalSubscription(item);
        if (subscription == nullptr) {
            return false;
        }
        // Copied before it is compared, as the Notifier's behaviour asks.
        const ZepState filter = subscription->filter;
        if (!SameGuid(filter.InterfaceGUID, state.InterfaceGUID) ||
            (filter.State != state.State && filter.State != ZEP_STATE_ANY)) {
            continue;
        }
        ULONG answer = 0;
        (void)subscription->callback(client.callbackContext, &state, &answer);
        if (answer != 0) {
            return false;  // the benchmark's subscribers do not answer
        }
    }
    return true;
}

static bool DeliverToAll(const MinimalContext& context, const ZepState& state)
{
    const ULONG count = WdfCollectionGetCount(context.clients);
    for (ULONG index = 0; index < count; ++index) {
        const WDFOBJECT item = WdfCollectionGetItem(context.clients, index);
        const MinimalClient* client = item == nullptr ? nullptr : GetMinimalClient(item);
        if (client == nullptr) {
            return false;
        }
        if (!SameGuid(client->guid, state.InterfaceGUID) && !DeliverTo(*client, state)) {
            return false;
        }
    }
    return true;
}

static void Drain(const MinimalContext& context)
{
    for (;;) {
        if (WdfWaitLockAcquire(context.statesLock, nullptr) != STATUS_SUCCESS) {
            return;
        }
        const WDFOBJECT object = WdfCollectionGetFirstItem(context.states);
        const MinimalState* queued = object == nullptr ? nullptr : GetMinimalState(object);
        if (queued == nullptr) {
            WdfWaitLockRelease(context.statesLock);
            return;
        }
        const ZepState state = queued->state;
        WdfObjectReference(object);
        WdfCollectionRemove(context.states, object);
        WdfWaitLockRelease(context.statesLock);
        const bool isDone = DeliverToAll(context, state);
        if (isDone) {
            WdfObjectDelete(object);
        }
        WdfObjectDereference(object);
        if (!isDone) {
            return;
        }
    }
}

static void NTAPI Deliver(WDFWORKITEM)
{
    const MinimalContext* context = GetMinimalContext(WdfGetDriver());
    if (context == nullptr || WdfWaitLockAcquire(context->runLock, nullptr) != STATUS_SUCCESS) {
        return;
    }
    if (WdfWaitLockAcquire(context->clientsLock, nullptr) == STATUS_SUCCESS) {
        Drain(*context);
        WdfWaitLockRelease(context->clientsLock);
    }
    WdfWaitLockRelease(context->runLock);
}

// ---- Not measured ----

static NTSTATUS NTAPI RegisterClient(const GUID* guid, const CHAR*, const CHAR*, const ActionCallbackTable*,
                                     const ZepDataEntry*, ULONG, PVOID callbackContext)
{
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, MinimalClient);
    WDFOBJECT object;
    NTSTATUS status = WdfObjectCreate(&attributes, &object);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    MinimalClient* client = GetMinimalClient(object);
    client->guid = *guid;
    client->callbackContext = callbackContext;
    client->isAnnounced = 1;
    status = WdfCollectionCreate(WDF_NO_OBJECT_ATTRIBUTES, &client->subscriptions);
    return NT_SUCCESS(status) ? WdfCollectionAdd(GetMinimalContext(WdfGetDriver())->clients, object) : status;
}

static NTSTATUS NTAPI Subscribe(const GUID* guid, const ZepState* filter, PZEP_STATE_NOTIFICATION_CALLBACK callback)
{
    WDFOBJECT clientObject = nullptr;
    const MinimalClient* client = Find(*guid, clientObject);
    if (client == nullptr) {
        return STATUS_ZEP_NOTIFIER_NO_DRIVER;
    }
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, MinimalSubscription);
    attributes.ParentObject = clientObject;
    WDFOBJECT object;
    const NTSTATUS status = WdfObjectCreate(&attributes, &object);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    *GetMinimalSubscription(object) = {.filter = *filter, .callback = callback};
    return WdfCollectionAdd(client->subscriptions, object);
}

static void NTAPI NoReference(PVOID)
{
}

static NTSTATUS NTAPI DeviceAdd(WDFDRIVER driver, PWDFDEVICE_INIT deviceInit)
{
    MinimalContext& context = *GetMinimalContext(driver);
    WDFDEVICE device;
    NTSTATUS status = WdfDeviceCreate(&deviceInit, WDF_NO_OBJECT_ATTRIBUTES, &device);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    WDF_WORKITEM_CONFIG config;
    WDF_WORKITEM_CONFIG_INIT(&config, Deliver);
    config.AutomaticSerialization = FALSE;
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    attributes.ParentObject = device;
    status = WdfWorkItemCreate(&config, &attributes, &context.notifyStates);
    WDFCOLLECTION* const collections[] = {&context.clients, &context.states};
    for (WDFCOLLECTION* collection : collections) {
        status = NT_SUCCESS(status) ? WdfCollectionCreate(WDF_NO_OBJECT_ATTRIBUTES, collection) : status;
    }
    WDFWAITLOCK* const locks[] = {&context.general, &context.clientsLock, &context.statesLock, &context.runLock};
    for (WDFWAITLOCK* lock : locks) {
        status = NT_SUCCESS(status) ? WdfWaitLockCreate(WDF_NO_OBJECT_ATTRIBUTES, lock) : status;
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    ZEP_NOTIFIER_HELPER_INTERFACE table;
    RtlZeroMemory(&table, sizeof(table));
    table.InterfaceHeader.Size = sizeof(table);
    table.InterfaceHeader.Version = ZEP_NOTIFIER_INTERFACE_VERSION;
    table.InterfaceHeader.Context = device;
    table.InterfaceHeader.InterfaceReference = NoReference;
    table.InterfaceHeader.InterfaceDereference = NoReference;
    table.Notifier_HelperInit = RegisterClient;
    table.Notifier_HelperSendState = Post;
    table.Notifier_HelperRegisterForStateNotification = Subscribe;
    WDF_QUERY_INTERFACE_CONFIG query;
    WDF_QUERY_INTERFACE_CONFIG_INIT(&query, &table.InterfaceHeader, &GUID_ZEP_NOTIFIER_HELPER_INTERFACE, nullptr);
    return WdfDeviceAddQueryInterface(device, &query);
}

EXTERN_C DRIVER_INITIALIZE DriverEntry;
NTSTATUS DriverEntry(PDRIVER_OBJECT driverObject, PUNICODE_STRING registryPath)
{
    WDF_DRIVER_CONFIG config;
    WDF_DRIVER_CONFIG_INIT(&config, DeviceAdd);
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, MinimalContext);
    return WdfDriverCreate(driverObject, registryPath, &attributes, &config, WDF_NO_HANDLE);
}
