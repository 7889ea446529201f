// Posting a state: recorded as the client's current one, announced if the crash-dump driver lacks it, queued for the
// subscribers. The caller never waits for delivery.
//
// Three locks are taken, one after the other and never nested: clients (to find the client), general, clients again if
// it has to be announced, states. So a post may come from anywhere that holds none of them: client threads, a
// subscription after its first callback, the broadcast after its first phase, and command delivery, which still holds
// the lock of its own run.
#include "driver/delivery/delivery.h"

#include "driver/context/driver_context.h"
#include "driver/context/object_creation.h"
#include "driver/context/operations.h"
#include "driver/registry/registry.h"

// The crash-dump driver learns a client's state only when the client is handed to it: a client that it does not have,
// or got without a state, is queued (again). A failure leaves the state recorded but undelivered.
_Requires_lock_not_held_(context.wdfWaitLockClientsCollection)
static NTSTATUS QueueAnnouncement(const ZEP_NOTIFIER_DRIVER_CONTEXT& context, WDFOBJECT clientObject,
                                  ZEP_NOTIFIER_CLIENT_CONTEXT& client)
{
    NTSTATUS status = WdfWaitLockAcquire(context.wdfWaitLockClientsCollection, nullptr);
    if (status != STATUS_SUCCESS) {
        return ReportFailure<Site::kSendStateClientsLock>(status);
    }
    // On purpose: before the add, whatever becomes of it.
    WriteULongNoFence(&client.WpcdRefreshPending, 0);
    status = WdfCollectionAdd(context.wdfCollectionWpcdClientAddQueue, clientObject);
    if (!NT_SUCCESS(status)) {
        Report<Site::kSendStateAddQueue>(status);
        WdfWaitLockRelease(context.wdfWaitLockClientsCollection);
        return status;
    }
    WdfWaitLockRelease(context.wdfWaitLockClientsCollection);
    WdfWorkItemEnqueue(context.wdfWorkItemWpcdClientAdd);
    return STATUS_SUCCESS;
}

// The client's context is not touched here: while it waits for the lock the client may be removed.
static NTSTATUS QueueState(const ZEP_NOTIFIER_DRIVER_CONTEXT& context, WDFOBJECT clientObject, const ZepState& state,
                           ULONG currentState)
{
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, ZEP_NOTIFIER_STATE_CONTEXT);
    attributes.ParentObject = clientObject;
    WDFOBJECT object;
    ZEP_NOTIFIER_STATE_CONTEXT* stateContext;
    NTSTATUS status = CreateObject<Site::kSendStateObject, Site::kSendStateContext, GetStateContext>(attributes, object,
                                                                                                     stateContext);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    stateContext->State = state;

    status = WdfWaitLockAcquire(context.wdfWaitLockStatesCollection, nullptr);
    if (status != STATUS_SUCCESS) {
        Report<Site::kSendStateStatesLock>(status);
        WdfObjectDelete(object);
        return status;
    }
    status = WdfCollectionAdd(context.wdfCollectionZepStates, object);
    if (status != STATUS_SUCCESS) {  // On purpose: any other status, while the add queue tests NT_SUCCESS
        Report<Site::kSendStateAdd>(status);
        WdfObjectDelete(object);
        WdfWaitLockRelease(context.wdfWaitLockStatesCollection);
        return status;
    }
    Report<Site::kSendStatePosted>(state.InterfaceGUID.Data1, currentState);
    WdfWorkItemEnqueue(context.wdfWorkItemNotifyStates);
    WdfWaitLockRelease(context.wdfWaitLockStatesCollection);
    return STATUS_SUCCESS;
}

NTSTATUS Notifier_HelperSendState(const ZepState* state)
{
    Report<Site::kSendStateEntered>();
    if (state == nullptr) {
        return ReportFailure<Site::kSendStateNull>(STATUS_INVALID_PARAMETER);
    }
    const ZEP_NOTIFIER_DRIVER_CONTEXT* context =
        DriverContextOrReport<Site::kSendStateNoDriver, Site::kSendStateNoContext>(STATUS_IO_DEVICE_ERROR);
    if (context == nullptr) {
        return STATUS_IO_DEVICE_ERROR;
    }
    WDFOBJECT clientObject = nullptr;
    ZEP_NOTIFIER_CLIENT_CONTEXT* client = _getClientContextByGUID(&state->InterfaceGUID, &clientObject);
    if (client == nullptr) {
        return ReportFailure<Site::kSendStateNoClient>(state->InterfaceGUID, STATUS_INVALID_DEVICE_REQUEST);
    }

    NTSTATUS status = WdfWaitLockAcquire(context->wdfWaitLockGeneral, nullptr);
    if (status != STATUS_SUCCESS) {
        return ReportFailure<Site::kSendStateGeneralLock>(status);
    }
    WriteULongNoFence(&client->CurrentState, state->State);
    WdfWaitLockRelease(context->wdfWaitLockGeneral);

    // For the trace message, together with what is read anyway: an enabled report must not lengthen the use of a
    // context that another thread may remove.
    const ULONG currentState = ReadULongNoFence(&client->CurrentState);
    if (ReadULongNoFence(&client->AddedToWpcd) == 0 || ReadULongNoFence(&client->WpcdRefreshPending) != 0) {
        status = QueueAnnouncement(*context, clientObject, *client);
        if (status != STATUS_SUCCESS) {
            return status;
        }
    }
    return QueueState(*context, clientObject, *state, currentState);
}
