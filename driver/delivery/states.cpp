// The state work item: drains the queued states, oldest first, and calls every matching subscription of every other
// client, client by client in order of registration.
//
// A run holds its own lock and the clients lock from beginning to end, callbacks included, and the states lock only for
// a moment around the queue; so the counts read at the start of each walk stay valid while posts go on. A subscriber's
// answer is queued after all others and delivered in the same run.
#include "driver/delivery/delivery.h"

#include "driver/context/driver_context.h"
#include "driver/context/operations.h"
#include "driver/registry/client.h"

// Every failure but a refused follow-up ends the run.

// Takes the oldest state off its queue. The object carries a reference of the driver's own from before the removal: its
// client may have been removed meanwhile, and with it the object's only other reference.
_Requires_lock_held_(context.wdfWaitLockClientsCollection)
static Run TakeState(const ZEP_NOTIFIER_DRIVER_CONTEXT& context, ZepState& state, WDFOBJECT& object)
{
    const NTSTATUS status = WdfWaitLockAcquire(context.wdfWaitLockStatesCollection, nullptr);
    if (status != STATUS_SUCCESS) {
        Report<Site::kNotifyStatesStatesLock>(status);
        return Run::kEnds;
    }
    object = WdfCollectionGetFirstItem(context.wdfCollectionZepStates);
    if (object == nullptr) {
        // On purpose: at error level, although every run ends so.
        Report<Site::kNotifyStatesEmpty>(context.wdfCollectionZepStates);
        WdfWaitLockRelease(context.wdfWaitLockStatesCollection);
        return Run::kEnds;
    }
    const ZEP_NOTIFIER_STATE_CONTEXT* stateContext = GetStateContext(object);
    if (stateContext == nullptr) {
        // On purpose: it stays first in the queue.
        Report<Site::kNotifyStatesState>(object);
        WdfWaitLockRelease(context.wdfWaitLockStatesCollection);
        return Run::kEnds;
    }
    state = stateContext->State;
    WdfObjectReference(object);
    WdfCollectionRemove(context.wdfCollectionZepStates, object);
    WdfWaitLockRelease(context.wdfWaitLockStatesCollection);
    return Run::kGoesOn;
}

// Queues the state that a subscriber answered with. It does not go through posting: the crash-dump driver is not
// notified, and on purpose the record's Size stays 0.
_Requires_lock_held_(context.wdfWaitLockClientsCollection)
static Run QueueFollowUp(const ZEP_NOTIFIER_DRIVER_CONTEXT& context, WDFOBJECT subscriberObject,
                         const ZEP_NOTIFIER_CLIENT_CONTEXT& subscriber, ULONG state)
{
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, ZEP_NOTIFIER_STATE_CONTEXT);
    attributes.ParentObject = subscriberObject;
    WDFOBJECT object;
    NTSTATUS status = WdfObjectCreate(&attributes, &object);
    if (!NT_SUCCESS(status)) {
        Report<Site::kNotifyStatesFollowUpObject>(status);
        return Run::kEnds;
    }
    ZEP_NOTIFIER_STATE_CONTEXT* stateContext = GetStateContext(object);
    if (stateContext == nullptr) {
        Report<Site::kNotifyStatesFollowUpContext>(object);
        WdfObjectDelete(object);
        return Run::kEnds;
    }
    stateContext->State.InterfaceGUID = subscriber.InterfaceGUID;
    stateContext->State.State = state;

    status = WdfWaitLockAcquire(context.wdfWaitLockStatesCollection, nullptr);
    if (status != STATUS_SUCCESS) {
        Report<Site::kNotifyStatesFollowUpLock>(status);
        WdfObjectDelete(object);
        return Run::kEnds;
    }
    status = WdfCollectionAdd(context.wdfCollectionZepStates, object);
    if (!NT_SUCCESS(status)) {
        Report<Site::kNotifyStatesFollowUpAdd>(status);
        WdfObjectDelete(object);
    } else {
        WdfWorkItemEnqueue(context.wdfWorkItemNotifyStates);
    }
    WdfWaitLockRelease(context.wdfWaitLockStatesCollection);
    return Run::kGoesOn;
}

static bool IsMatch(const ZepState& filter, const ZepState& state)
{
    return GuidsEqual(filter.InterfaceGUID, state.InterfaceGUID) &&
           (filter.State == state.State || filter.State == ZEP_STATE_ANY);
}

// Offers a state to every subscription of one client.
_Requires_lock_held_(context.wdfWaitLockClientsCollection)
static Run DeliverToClient(const ZEP_NOTIFIER_DRIVER_CONTEXT& context, WDFOBJECT subscriberObject,
                           ZEP_NOTIFIER_CLIENT_CONTEXT& subscriber, const ZepState& state)
{
    const WDFCOLLECTION registrations = subscriber.wdfCollectionStateRegistrations;
    const ULONG count = WdfCollectionGetCount(registrations);
    for (ULONG index = 0; index < count; ++index) {
        WDFOBJECT item;
        const ZEP_NOTIFIER_STATE_NOTIFICATION_CONTEXT* registration =
            RegistrationAt<Site::kNotifyStatesRegistrationItem, Site::kNotifyStatesRegistration>(registrations, index,
                                                                                                 count, item);
        if (registration == nullptr) {
            return Run::kEnds;
        }
        const ZepState filter = registration->StateFilter;
        if (!IsMatch(filter, state)) {
            continue;
        }

        Report<Site::kNotifyStatesDelivering>(state.InterfaceGUID.Data1, state.State, subscriber.InterfaceGUID.Data1);
        ULONG answer = 0;
        (void)registration->StateNotificationCallback(subscriber.CallbackContext, &state, &answer);
        if (answer == 0) {
            continue;
        }
        // On purpose: without the general lock, unlike a post.
        WriteULongNoFence(&subscriber.CurrentState, answer);
        Report<Site::kNotifyStatesAnswered>(subscriber.InterfaceGUID.Data1, answer);
        if (QueueFollowUp(context, subscriberObject, subscriber, answer) == Run::kEnds) {
            return Run::kEnds;
        }
    }
    return Run::kGoesOn;
}

// Offers a state to every client but the one whose state it is.
_Requires_lock_held_(context.wdfWaitLockClientsCollection)
static Run DeliverState(const ZEP_NOTIFIER_DRIVER_CONTEXT& context, const ZepState& state)
{
    const ULONG count = WdfCollectionGetCount(context.wdfCollectionZepClients);
    for (ULONG index = 0; index < count; ++index) {
        WDFOBJECT item;
        ZEP_NOTIFIER_CLIENT_CONTEXT* client = ClientAt<Site::kNotifyStatesClientItem, Site::kNotifyStatesClient>(
            context.wdfCollectionZepClients, index, count, item);
        if (client == nullptr) {
            return Run::kEnds;
        }
        if (GuidsEqual(client->InterfaceGUID, state.InterfaceGUID)) {
            continue;
        }
        if (DeliverToClient(context, item, *client, state) == Run::kEnds) {
            return Run::kEnds;
        }
    }
    return Run::kGoesOn;
}

_Requires_lock_held_(context.wdfWaitLockClientsCollection)
static void DrainStates(const ZEP_NOTIFIER_DRIVER_CONTEXT& context)
{
    for (;;) {
        ZepState state;
        WDFOBJECT object;
        if (TakeState(context, state, object) == Run::kEnds) {
            return;
        }
        const Run run = DeliverState(context, state);
        if (run == Run::kGoesOn) {
            WdfObjectDelete(object);
        }
        // A state whose delivery failed stays, undeleted, with its client.
        WdfObjectDereference(object);
        if (run == Run::kEnds) {
            return;
        }
    }
}

void NotifierEvtWorkItemNotifyStates(WDFWORKITEM)
{
    Report<Site::kNotifyStatesEntered>();
    const ZEP_NOTIFIER_DRIVER_CONTEXT* context =
        DriverContextOrReport<Site::kNotifyStatesNoDriver, Site::kNotifyStatesNoContext>();
    if (context == nullptr) {
        return;
    }
    NTSTATUS status = WdfWaitLockAcquire(context->wdfWaitLockNotifyStatesWorkItem, nullptr);
    if (status != STATUS_SUCCESS) {
        Report<Site::kNotifyStatesItemLock>(status);
        return;
    }
    status = WdfWaitLockAcquire(context->wdfWaitLockClientsCollection, nullptr);
    if (status != STATUS_SUCCESS) {
        Report<Site::kNotifyStatesClientsLock>(status);
        WdfWaitLockRelease(context->wdfWaitLockNotifyStatesWorkItem);
        return;
    }

    DrainStates(*context);

    WdfWaitLockRelease(context->wdfWaitLockClientsCollection);
    WdfWaitLockRelease(context->wdfWaitLockNotifyStatesWorkItem);
}
