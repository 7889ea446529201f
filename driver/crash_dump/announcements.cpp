// The work items that announce clients to the crash-dump driver and withdraw them.
//
// Both call it with the clients lock held. Nothing here retries: a client that was refused, or dropped because nobody
// was attached, is queued again by its next state post.
#include "driver/crash_dump/crash_dump.h"

#include "driver/context/driver_context.h"
#include "driver/context/operations.h"
#include "driver/registry/client.h"

// Announcements are handed over in this one buffer. Runs may overlap; the clients lock keeps them apart.
static ZEP_SUBSYSTEM_DESCRIPTOR g_AnnouncedDescriptor;

_Requires_lock_held_(context.wdfWaitLockClientsCollection)
static void EmptyAddQueue(const ZEP_NOTIFIER_DRIVER_CONTEXT& context)
{
    while (WdfCollectionGetFirstItem(context.wdfCollectionWpcdClientAddQueue) != nullptr) {
        WdfCollectionRemoveItem(context.wdfCollectionWpcdClientAddQueue, 0);
    }
}

_Requires_lock_held_(context.wdfWaitLockClientsCollection)
static void Announce(const ZEP_NOTIFIER_DRIVER_CONTEXT& context, const ZEP_NOTIFIER_WPCD_CLIENT_CONTEXT& wpcd,
                     ZEP_NOTIFIER_CLIENT_CONTEXT& client)
{
    _Analysis_assume_same_lock_(context.wdfWaitLockClientsCollection, ClientsLock);
    DescribeClient(client, g_AnnouncedDescriptor);
    const NTSTATUS status = wpcd.ZepClientAdd(&g_AnnouncedDescriptor);
    // On purpose: any answer but 0 is a refusal, while the dump forwarders test NT_SUCCESS.
    if (status != STATUS_SUCCESS) {
        Report<Site::kAnnounceRefused>(status);
        return;
    }
    (void)WdfWaitLockAcquire(context.wdfWaitLockGeneral, nullptr);
    _Analysis_assume_same_lock_(context.wdfWaitLockGeneral, GeneralLock);
    MarkAnnounced(client);
    WdfWaitLockRelease(context.wdfWaitLockGeneral);
}

_Requires_lock_held_(context.wdfWaitLockClientsCollection)
static void AnnounceQueued(const ZEP_NOTIFIER_DRIVER_CONTEXT& context)
{
    const WDFOBJECT object = ReadPointerNoFence(&context.wdfObjectWpcdClient);
    if (object == nullptr) {
        Report<Site::kAnnounceNotAttached>();
        EmptyAddQueue(context);
        return;
    }
    const ZEP_NOTIFIER_WPCD_CLIENT_CONTEXT* wpcd = GetWpcdClientContext(object);
    if (wpcd == nullptr) {
        Report<Site::kAnnounceWpcdContext>(object);
        EmptyAddQueue(context);
        return;
    }

    for (;;) {
        const WDFOBJECT entry = WdfCollectionGetFirstItem(context.wdfCollectionWpcdClientAddQueue);
        if (entry == nullptr) {
            return;
        }
        ZEP_NOTIFIER_CLIENT_CONTEXT* client = GetClientContext(entry);
        if (client == nullptr) {
            Report<Site::kAnnounceClient>(entry);
        } else {
            Announce(context, *wpcd, *client);
        }
        // The client's context may be freed with the queue's reference: it is not touched after this.
        WdfCollectionRemoveItem(context.wdfCollectionWpcdClientAddQueue, 0);
    }
}

void NotifierEvtWorkItemWpcdClientAdd(WDFWORKITEM)
{
    Report<Site::kAnnounceEntered>();
    const ZEP_NOTIFIER_DRIVER_CONTEXT* context =
        DriverContextOrReport<Site::kAnnounceNoDriver, Site::kAnnounceNoContext>();
    if (context == nullptr) {
        return;
    }
    // On purpose: unexamined, here and for the general lock: without time-out an acquire cannot fail.
    (void)WdfWaitLockAcquire(context->wdfWaitLockClientsCollection, nullptr);
    AnnounceQueued(*context);
    WdfWaitLockRelease(context->wdfWaitLockClientsCollection);
}

void NotifierEvtWorkItemWpcdClientRemove(WDFWORKITEM)
{
    Report<Site::kWithdrawEntered>();
    const ZEP_NOTIFIER_DRIVER_CONTEXT* context =
        DriverContextOrReport<Site::kWithdrawNoDriver, Site::kWithdrawNoContext>();
    if (context == nullptr) {
        return;
    }
    NTSTATUS status = WdfWaitLockAcquire(context->wdfWaitLockClientsCollection, nullptr);
    if (status != STATUS_SUCCESS) {
        Report<Site::kWithdrawLock>(status);
        return;
    }

    // On purpose: one entry per run; the others wait for the next removal.
    const WDFOBJECT entry = WdfCollectionGetFirstItem(context->wdfCollectionWpcdClientRemoveQueue);
    if (entry == nullptr) {
        // On purpose: the other queue's handle.
        Report<Site::kWithdrawEmpty>(context->wdfCollectionWpcdClientAddQueue);
        WdfWaitLockRelease(context->wdfWaitLockClientsCollection);
        return;
    }
    const WDFOBJECT wpcdObject = ReadPointerNoFence(&context->wdfObjectWpcdClient);
    if (wpcdObject == nullptr) {
        // On purpose: nobody is notified and nothing is reported.
        WdfCollectionRemove(context->wdfCollectionWpcdClientRemoveQueue, entry);
        WdfObjectDelete(entry);
        WdfWaitLockRelease(context->wdfWaitLockClientsCollection);
        return;
    }
    const ZEP_NOTIFIER_WPCD_CLIENT_CONTEXT* wpcd = GetWpcdClientContext(wpcdObject);
    if (wpcd == nullptr) {
        // On purpose: the lock stays held. Only a framework fault leads here.
        Report<Site::kWithdrawWpcdContext>(wpcdObject);
        return;
    }
    const ZEP_NOTIFIER_CLIENT_CONTEXT* client = GetClientContext(entry);
    if (client == nullptr) {
        // On purpose: the entry stays at the head of the queue.
        Report<Site::kWithdrawClient>(entry);
        WdfWaitLockRelease(context->wdfWaitLockClientsCollection);
        return;
    }

    WdfCollectionRemove(context->wdfCollectionWpcdClientRemoveQueue, entry);
    status = wpcd->ZepClientRemove(client);
    if (status != STATUS_SUCCESS) {
        Report<Site::kWithdrawRefused>(status);
    }
    WdfWaitLockRelease(context->wdfWaitLockClientsCollection);
    WdfObjectDelete(entry);
}
