// Subscriptions of one client to another's states.
//
// A subscription is a child object of the subscriber and stands in the subscriber's own collection; it names the
// watched client by GUID only, so it outlives that client and matches again when the GUID registers anew. Both
// operations hold the clients lock from look-up to change, and the immediate callback runs under it.
#include "driver/registry/registry.h"

#include "driver/context/driver_context.h"
#include "driver/context/object_creation.h"
#include "driver/context/operations.h"

_Requires_lock_held_(ClientsLock)
static NTSTATUS AddRegistration(WDFOBJECT subscriberObject, const ZEP_NOTIFIER_CLIENT_CONTEXT& subscriber,
                                const GUID& subscriberGuid, const ZepState& filter,
                                PZEP_STATE_NOTIFICATION_CALLBACK callback)
{
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, ZEP_NOTIFIER_STATE_NOTIFICATION_CONTEXT);
    attributes.ParentObject = subscriberObject;
    WDFOBJECT object;
    ZEP_NOTIFIER_STATE_NOTIFICATION_CONTEXT* registration;
    NTSTATUS status = CreateObject<Site::kRegisterObject, Site::kRegisterContext, GetStateNotificationContext>(
        attributes, object, registration);
    if (!NT_SUCCESS(status)) {
        return status;
    }

    registration->SubscriberGUID = subscriberGuid;
    registration->StateFilter = filter;
    registration->StateNotificationCallback = callback;

    status = WdfCollectionAdd(subscriber.wdfCollectionStateRegistrations, object);
    if (status != STATUS_SUCCESS) {  // On purpose: any other status, also of the success class
        Report<Site::kRegisterAdd>(status);
        WdfObjectDelete(object);
        return status;
    }
    return STATUS_SUCCESS;
}

// Notifies the subscriber of the state that the watched client is in already.
_Requires_lock_held_(ClientsLock)
static ClientAnswer DeliverCurrentState(const ZEP_NOTIFIER_CLIENT_CONTEXT& subscriber, const GUID& targetGuid,
                                        ULONG targetState, PZEP_STATE_NOTIFICATION_CALLBACK callback)
{
    const ZepState current = {
        .Size = sizeof(ZepState),
        .InterfaceGUID = targetGuid,
        .State = targetState,
        .Reserved = 0,
    };
    ULONG response = ReadULongNoFence(&subscriber.CurrentState);
    (void)callback(subscriber.CallbackContext, &current, &response);
    // On purpose: read anew. A post meanwhile makes an answer of the state before it.
    return {.isNew = response != ReadULongNoFence(&subscriber.CurrentState),
            .state = {
                .Size = sizeof(ZepState),
                .InterfaceGUID = subscriber.InterfaceGUID,
                .State = response,
                .Reserved = 0,
            }};
}

// The part of the operation that runs under the clients lock.
_Requires_lock_held_(ClientsLock)
static NTSTATUS Subscribe(const GUID& subscriberGuid, const ZepState& filter, PZEP_STATE_NOTIFICATION_CALLBACK callback,
                          ClientAnswer& answer)
{
    WDFOBJECT subscriberObject = nullptr;
    const ZEP_NOTIFIER_CLIENT_CONTEXT* subscriber = _getClientContextByGUID_unsafe(&subscriberGuid, &subscriberObject);
    if (subscriber == nullptr) {
        return ReportFailure<Site::kRegisterNoSubscriber>(subscriberGuid, STATUS_ZEP_NOTIFIER_NO_DRIVER);
    }
    const ZEP_NOTIFIER_CLIENT_CONTEXT* target = _getClientContextByGUID_unsafe(&filter.InterfaceGUID, nullptr);
    if (target == nullptr) {
        Report<Site::kRegisterNoTarget>(subscriberGuid, STATUS_SUCCESS);
    }

    const NTSTATUS status = AddRegistration(subscriberObject, *subscriber, subscriberGuid, filter, callback);
    if (status != STATUS_SUCCESS) {
        return status;
    }
    if (target == nullptr) {
        return STATUS_SUCCESS;
    }
    // Read once: a post may change it at any time, and the subscriber must get the state that was compared.
    const ULONG targetState = ReadULongNoFence(&target->CurrentState);
    if (targetState == filter.State || filter.State == ZEP_STATE_ANY) {
        answer = DeliverCurrentState(*subscriber, target->InterfaceGUID, targetState, callback);
    }
    return STATUS_SUCCESS;
}

// Ends the oldest subscription to the filter's client and state.
_Requires_lock_held_(ClientsLock)
static NTSTATUS Unsubscribe(const GUID& subscriberGuid, const ZepState& filter)
{
    const ZEP_NOTIFIER_CLIENT_CONTEXT* subscriber = _getClientContextByGUID_unsafe(&subscriberGuid, nullptr);
    if (subscriber == nullptr) {
        return ReportFailure<Site::kDeregisterNoSubscriber>(subscriberGuid, STATUS_ZEP_NOTIFIER_NO_DRIVER);
    }
    WDFOBJECT registrationObject = nullptr;
    const WDFCOLLECTION registrations = subscriber->wdfCollectionStateRegistrations;
    if (_getStateNotificationContextByZepState_unsafe(&filter, registrations, &registrationObject) != nullptr) {
        // A collection keeps a deleted object: out of it first.
        WdfCollectionRemove(registrations, registrationObject);
        WdfObjectDelete(registrationObject);
    } else {
        Report<Site::kDeregisterNotFound>();
    }
    return STATUS_SUCCESS;
}

NTSTATUS Notifier_HelperRegisterForStateNotification(const GUID* interfaceGuid, const ZepState* state,
                                                     PZEP_STATE_NOTIFICATION_CALLBACK callback)
{
    Report<Site::kRegisterEntered>();
    if (interfaceGuid == nullptr || state == nullptr || callback == nullptr) {
        return ReportFailure<Site::kRegisterNull>(STATUS_INVALID_PARAMETER);
    }
    const ZEP_NOTIFIER_DRIVER_CONTEXT* context =
        DriverContextOrReport<Site::kRegisterNoDriver, Site::kRegisterNoContext>(STATUS_IO_DEVICE_ERROR);
    if (context == nullptr) {
        return STATUS_IO_DEVICE_ERROR;
    }
    NTSTATUS status = WdfWaitLockAcquire(context->wdfWaitLockClientsCollection, nullptr);
    if (status != STATUS_SUCCESS) {
        return ReportFailure<Site::kRegisterLock>(status);
    }

    _Analysis_assume_same_lock_(context->wdfWaitLockClientsCollection, ClientsLock);
    ClientAnswer answer = {};
    status = Subscribe(*interfaceGuid, *state, callback, answer);
    WdfWaitLockRelease(context->wdfWaitLockClientsCollection);

    // Posting takes the clients lock itself.
    if (answer.isNew) {
        status = Notifier_HelperSendState(&answer.state);
        if (!NT_SUCCESS(status)) {
            Report<Site::kRegisterPost>(status);
        }
    }
    return status;
}

NTSTATUS Notifier_HelperDeregisterForStateNotification(const GUID* interfaceGuid, const ZepState* state)
{
    Report<Site::kDeregisterEntered>();
    if (interfaceGuid == nullptr || state == nullptr) {
        return ReportFailure<Site::kDeregisterNull>(STATUS_INVALID_PARAMETER);
    }
    const ZEP_NOTIFIER_DRIVER_CONTEXT* context =
        DriverContextOrReport<Site::kDeregisterNoDriver, Site::kDeregisterNoContext>(STATUS_IO_DEVICE_ERROR);
    if (context == nullptr) {
        return STATUS_IO_DEVICE_ERROR;
    }
    NTSTATUS status = WdfWaitLockAcquire(context->wdfWaitLockClientsCollection, nullptr);
    if (status != STATUS_SUCCESS) {
        return ReportFailure<Site::kDeregisterLock>(status);
    }
    _Analysis_assume_same_lock_(context->wdfWaitLockClientsCollection, ClientsLock);
    status = Unsubscribe(*interfaceGuid, *state);
    WdfWaitLockRelease(context->wdfWaitLockClientsCollection);
    return status;
}
