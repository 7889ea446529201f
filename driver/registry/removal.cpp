// Removal of clients: on its own call, or with all others when the device is cleaned up.
//
// Both hold the clients lock for the whole removal, so no look-up, registration or subscription change happens
// meanwhile. Only a client's own call notifies the crash-dump driver. What the client queued for others stays queued.
#include "driver/registry/registry.h"

#include "driver/context/driver_context.h"
#include "driver/context/operations.h"

// On purpose: a client that is removed is taken off the announcement queue, where it stands as often as it posted
// before the announcing run. The queue's references would keep its object alive, and the run would announce a client
// that is removed, with entries that are freed.
_Requires_lock_held_(context.wdfWaitLockClientsCollection)
static void RemoveFromAddQueue(const ZEP_NOTIFIER_DRIVER_CONTEXT& context, WDFOBJECT clientObject)
{
    for (ULONG index = WdfCollectionGetCount(context.wdfCollectionWpcdClientAddQueue); index > 0; --index) {
        if (WdfCollectionGetItem(context.wdfCollectionWpcdClientAddQueue, index - 1) == clientObject) {
            WdfCollectionRemoveItem(context.wdfCollectionWpcdClientAddQueue, index - 1);
        }
    }
}

// Queues a copy of the client's context for the crash-dump driver. On a failure the client is removed all the same and
// the crash-dump driver is not notified.
_Requires_lock_held_(context.wdfWaitLockClientsCollection)
static NTSTATUS QueueWithdrawal(const ZEP_NOTIFIER_DRIVER_CONTEXT& context, const ZEP_NOTIFIER_CLIENT_CONTEXT& client)
{
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, ZEP_NOTIFIER_CLIENT_CONTEXT);
    WDFOBJECT copyObject;
    NTSTATUS status = WdfObjectCreate(&attributes, &copyObject);
    if (!NT_SUCCESS(status)) {
        return ReportFailure<Site::kDeinitCopy>(status);
    }
    ZEP_NOTIFIER_CLIENT_CONTEXT* copy = GetClientContext(copyObject);
    if (copy == nullptr) {
        // On purpose: the event carries the status of the creation, a success.
        Report<Site::kDeinitCopyContext>(copyObject, status);
        WdfObjectDelete(copyObject);
        return STATUS_IO_DEVICE_ERROR;
    }
    (void)memcpy_s(copy, sizeof(*copy), &client, sizeof(client));

    status = WdfCollectionAdd(context.wdfCollectionWpcdClientRemoveQueue, copyObject);
    if (!NT_SUCCESS(status)) {
        Report<Site::kDeinitCopyAdd>(status);
        WdfObjectDelete(copyObject);
        return status;
    }
    WdfWorkItemEnqueue(context.wdfWorkItemWpcdClientRemove);
    return STATUS_SUCCESS;
}

// Ends every subscription that the client made. A collection removes no deleted object by itself, so each is taken out
// first. False when the collection counts items that it cannot give; that has then been reported.
template <Site kNoItem>
_Requires_lock_held_(ClientsLock)
static bool DrainRegistrations(WDFCOLLECTION registrations)
{
    ULONG count = WdfCollectionGetCount(registrations);
    while (count != 0) {
        const WDFOBJECT registration = WdfCollectionGetFirstItem(registrations);
        if (registration == nullptr) {
            Report<kNoItem>(0u, registrations, count);
            return false;
        }
        WdfCollectionRemove(registrations, registration);
        WdfObjectDelete(registration);
        count = WdfCollectionGetCount(registrations);
    }
    return true;
}

// Finds the client to remove.
_Requires_lock_held_(context.wdfWaitLockClientsCollection)
static NTSTATUS FindClientToRemove(const ZEP_NOTIFIER_DRIVER_CONTEXT& context, const GUID& guid,
                                   WDFOBJECT& clientObject, ZEP_NOTIFIER_CLIENT_CONTEXT*& client)
{
    const ULONG count = WdfCollectionGetCount(context.wdfCollectionZepClients);
    for (ULONG index = 0; index < count; ++index) {
        client = ClientAt<Site::kDeinitItem, Site::kDeinitClient>(context.wdfCollectionZepClients, index, count,
                                                                  clientObject);
        if (client == nullptr) {
            return STATUS_IO_DEVICE_ERROR;
        }
        if (GuidsEqual(client->InterfaceGUID, guid)) {
            return STATUS_SUCCESS;
        }
    }
    return STATUS_NOT_FOUND;
}

NTSTATUS Notifier_HelperClientDeinit(const GUID* interfaceGuid)
{
    Report<Site::kDeinitEntered>();
    if (interfaceGuid == nullptr) {
        return ReportFailure<Site::kDeinitGuidNull>(STATUS_INVALID_PARAMETER);
    }
    const ZEP_NOTIFIER_DRIVER_CONTEXT* context =
        DriverContextOrReport<Site::kDeinitNoDriver, Site::kDeinitNoContext>(STATUS_IO_DEVICE_ERROR);
    if (context == nullptr) {
        return STATUS_IO_DEVICE_ERROR;
    }
    NTSTATUS status = WdfWaitLockAcquire(context->wdfWaitLockClientsCollection, nullptr);
    if (status != STATUS_SUCCESS) {
        return ReportFailure<Site::kDeinitLock>(status);
    }

    _Analysis_assume_same_lock_(context->wdfWaitLockClientsCollection, ClientsLock);
    WDFOBJECT clientObject = nullptr;
    ZEP_NOTIFIER_CLIENT_CONTEXT* client = nullptr;
    status = FindClientToRemove(*context, *interfaceGuid, clientObject, client);
    if (!NT_SUCCESS(status)) {
        WdfWaitLockRelease(context->wdfWaitLockClientsCollection);
        return status;
    }
    Report<Site::kDeinitFound>(interfaceGuid->Data1);

    // On purpose: the field is not cleared: the context is deleted at once, and nobody reads the field in the copy.
    FreeEntries(client->DataEntries);
    WdfCollectionRemove(context->wdfCollectionZepClients, clientObject);
    RemoveFromAddQueue(*context, clientObject);

    if (ReadULongNoFence(&client->AddedToWpcd) != 0) {
        status = QueueWithdrawal(*context, *client);
        if (!NT_SUCCESS(status)) {
            // On purpose: the registrations collection is neither drained nor deleted. It stays with the driver object
            // and keeps the subscriptions, which are deleted with the client.
            WdfObjectDelete(clientObject);
            WdfWaitLockRelease(context->wdfWaitLockClientsCollection);
            return status;
        }
    }

    if (!DrainRegistrations<Site::kDeinitDrain>(client->wdfCollectionStateRegistrations)) {
        // On purpose: released here and once more below. Only a framework fault leads here.
        WdfWaitLockRelease(context->wdfWaitLockClientsCollection);
    }
    WdfObjectDelete(client->wdfCollectionStateRegistrations);
    WdfObjectDelete(clientObject);
    WdfWaitLockRelease(context->wdfWaitLockClientsCollection);
    return STATUS_SUCCESS;
}

NTSTATUS NotifierClientCleanup(void)
{
    Report<Site::kCleanupEntered>();
    const ZEP_NOTIFIER_DRIVER_CONTEXT* context =
        DriverContextOrReport<Site::kCleanupNoDriver, Site::kCleanupNoContext>(STATUS_IO_DEVICE_ERROR);
    if (context == nullptr) {
        return STATUS_IO_DEVICE_ERROR;
    }
    if (!HasClients(*context)) {
        return STATUS_SUCCESS;
    }
    const NTSTATUS status = WdfWaitLockAcquire(context->wdfWaitLockClientsCollection, nullptr);
    if (status != STATUS_SUCCESS) {
        return ReportFailure<Site::kCleanupLock>(status);
    }
    _Analysis_assume_same_lock_(context->wdfWaitLockClientsCollection, ClientsLock);
    while (WdfCollectionGetCount(context->wdfCollectionZepClients) != 0) {
        const WDFOBJECT clientObject = WdfCollectionGetFirstItem(context->wdfCollectionZepClients);
        if (clientObject == nullptr) {
            break;
        }
        const ZEP_NOTIFIER_CLIENT_CONTEXT* client = GetClientContext(clientObject);
        if (client == nullptr) {
            Report<Site::kCleanupClient>(clientObject);
            break;
        }
        FreeEntries(client->DataEntries);
        WdfCollectionRemove(context->wdfCollectionZepClients, clientObject);
        (void)DrainRegistrations<Site::kCleanupDrain>(client->wdfCollectionStateRegistrations);
        WdfObjectDelete(client->wdfCollectionStateRegistrations);
        WdfObjectDelete(clientObject);
    }

    WdfWaitLockRelease(context->wdfWaitLockClientsCollection);
    return STATUS_SUCCESS;
}
