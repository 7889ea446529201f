// Application state: every client is notified that the system leaves its working state, or that user mode asked, and
// the states that clients choose in answer are posted.
//
// The broadcast has two phases because posting takes the clients lock: under it the answers are collected in a
// temporary collection, without it they are posted. Nothing serialises two broadcasts beyond the first phase.
#include "driver/delivery/delivery.h"

#include "driver/context/driver_context.h"
#include "driver/context/operations.h"
#include "driver/registry/client.h"

// The temporary objects of one broadcast. Failure paths delete the parent, and the collection with it, while both
// phases go on: the broadcast holds a reference on each, deletes the parent at most once and gives both back at its
// end.
struct Answers {
    WDFOBJECT parent;
    WDFCOLLECTION collection;
    bool deleted;
};

static void DeleteParent(Answers& answers)
{
    if (!answers.deleted) {
        answers.deleted = true;
        WdfObjectDelete(answers.parent);
    }
}

static NTSTATUS CreateAnswers(Answers& answers)
{
    answers.deleted = false;
    NTSTATUS status = WdfObjectCreate(WDF_NO_OBJECT_ATTRIBUTES, &answers.parent);
    if (!NT_SUCCESS(status)) {
        return ReportFailure<Site::kAppsStateParent>(status);
    }
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    attributes.ParentObject = answers.parent;
    status = WdfCollectionCreate(&attributes, &answers.collection);
    if (!NT_SUCCESS(status)) {
        Report<Site::kAppsStateCollection>(status);
        WdfObjectDelete(answers.parent);
        return status;
    }
    WdfObjectReference(answers.parent);
    WdfObjectReference(answers.collection);
    return status;
}

// On purpose: without a failure nothing is deleted; the objects stay until the driver object is deleted.
static void ReleaseAnswers(const Answers& answers)
{
    WdfObjectDereference(answers.collection);
    WdfObjectDereference(answers.parent);
}

// Keeps one client's answer for the second phase. Its object is on purpose a child of the driver object, not of the
// temporary parent.
static NTSTATUS CollectAnswer(Answers& answers, const ZEP_NOTIFIER_CLIENT_CONTEXT& client, ULONG wanted)
{
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, ZEP_NOTIFIER_STATE_CONTEXT);
    WDFOBJECT object;
    NTSTATUS status = WdfObjectCreate(&attributes, &object);
    if (!NT_SUCCESS(status)) {
        return ReportFailure<Site::kAppsStateState>(status);
    }
    ZEP_NOTIFIER_STATE_CONTEXT* stateContext = GetStateContext(object);
    if (stateContext == nullptr) {
        // On purpose: the temporary parent is deleted, not the new object.
        Report<Site::kAppsStateStateContext>(object);
        DeleteParent(answers);
        return status;
    }
    stateContext->State = {
        .Size = sizeof(ZepState), .InterfaceGUID = client.InterfaceGUID, .State = wanted, .Reserved = 0};

    status = WdfCollectionAdd(answers.collection, object);
    if (!NT_SUCCESS(status)) {
        Report<Site::kAppsStateAdd>(status);
        DeleteParent(answers);
    }
    return status;
}

// First phase, under the clients lock. No failure stops it. Takes and returns the status of the last framework call.
_Requires_lock_held_(context.wdfWaitLockClientsCollection)
static NTSTATUS AskClients(const ZEP_NOTIFIER_DRIVER_CONTEXT& context, Answers& answers, NTSTATUS status)
{
    const ULONG count = WdfCollectionGetCount(context.wdfCollectionZepClients);
    for (ULONG index = 0; index < count; ++index) {
        WDFOBJECT item;
        const ZEP_NOTIFIER_CLIENT_CONTEXT* client = ClientAt<Site::kAppsStateClientItem, Site::kAppsStateClient>(
            context.wdfCollectionZepClients, index, count, item);
        if (client == nullptr) {
            continue;
        }
        if (client->ActionCallbackTable.AppsStateNotificationCallback == nullptr) {
            Report<Site::kAppsStateNoCallback>(item);
            continue;
        }
        ULONG wanted = ReadULongNoFence(&client->CurrentState);
        (void)client->ActionCallbackTable.AppsStateNotificationCallback(client->CallbackContext,
                                                                        ZEP_APPS_STATE_REASON_CHANGED, &wanted);
        // On purpose: read anew. A post meanwhile makes an answer of the state before it.
        if (wanted != ReadULongNoFence(&client->CurrentState)) {
            status = CollectAnswer(answers, *client, wanted);
        }
    }
    return status;
}

// Second phase, without locks. The post of a client that has deregistered fails; one that deregisters meanwhile is an
// accepted race. No failure stops it.
static NTSTATUS PostAnswers(Answers& answers, NTSTATUS status)
{
    const ULONG count = WdfCollectionGetCount(answers.collection);
    for (ULONG index = 0; index < count; ++index) {
        const WDFOBJECT item = WdfCollectionGetItem(answers.collection, index);
        if (item == nullptr) {
            Report<Site::kAppsStatePostItem>(0u, answers.collection, count);  // On purpose: index 0, whichever it was
            continue;
        }
        const ZEP_NOTIFIER_STATE_CONTEXT* stateContext = GetStateContext(item);
        if (stateContext == nullptr) {
            Report<Site::kAppsStatePostContext>(item);
            DeleteParent(answers);
            continue;
        }
        Report<Site::kAppsStatePosting>(stateContext->State.InterfaceGUID.Data1, stateContext->State.State);
        status = Notifier_HelperSendState(&stateContext->State);
        if (!NT_SUCCESS(status)) {
            Report<Site::kAppsStatePost>(status);
            DeleteParent(answers);
        }
    }
    return status;
}

NTSTATUS Notifier_NotifyAppsState(ULONG)
{
    Report<Site::kAppsStateEntered>();
    const ZEP_NOTIFIER_DRIVER_CONTEXT* context =
        DriverContextOrReport<Site::kAppsStateNoDriver, Site::kAppsStateNoContext>();
    if (context == nullptr) {
        return STATUS_IO_DEVICE_ERROR;
    }
    if (!HasClients(*context)) {
        return STATUS_SUCCESS;
    }
    NTSTATUS status = WdfWaitLockAcquire(context->wdfWaitLockClientsCollection, nullptr);
    if (status != STATUS_SUCCESS) {
        return ReportFailure<Site::kAppsStateLock>(status);
    }
    Answers answers;
    status = CreateAnswers(answers);
    if (!NT_SUCCESS(status)) {
        WdfWaitLockRelease(context->wdfWaitLockClientsCollection);
        return status;
    }

    status = AskClients(*context, answers, status);
    WdfWaitLockRelease(context->wdfWaitLockClientsCollection);
    status = PostAnswers(answers, status);

    ReleaseAnswers(answers);
    Report<Site::kAppsStateDone>(status);
    return status;
}
