// Subsystem descriptors: how many clients there are, and a description of each.
//
// Taking all descriptors counts as announcing every client. Both operations hold the clients lock throughout, so count
// and copies agree; the general lock is taken inside for each client's flags.
#include "driver/crash_dump/crash_dump.h"

#include "driver/context/driver_context.h"
#include "driver/context/operations.h"
#include "driver/registry/client.h"

// Fills one record for each client. completed: whether every client was described.
// On purpose: a stop on a missing item is no failure.
_Requires_lock_held_(context.wdfWaitLockClientsCollection)
static NTSTATUS DescribeAll(const ZEP_NOTIFIER_DRIVER_CONTEXT& context, ULONG count,
                            ZEP_SUBSYSTEM_DESCRIPTOR* descriptors, bool& completed)
{
    completed = false;
    for (ULONG index = 0; index < count; ++index) {
        WDFOBJECT item;
        ZEP_NOTIFIER_CLIENT_CONTEXT* client =
            ClientAt<Site::kDescribeItem, Site::kDescribeClient>(context.wdfCollectionZepClients, index, count, item);
        if (client == nullptr) {
            return STATUS_SUCCESS;
        }
        _Analysis_assume_same_lock_(context.wdfWaitLockClientsCollection, ClientsLock);
        DescribeClient(*client, descriptors[index]);

        const NTSTATUS status = WdfWaitLockAcquire(context.wdfWaitLockGeneral, nullptr);
        if (status != STATUS_SUCCESS) {
            return ReportFailure<Site::kDescribeGeneralLock>(status);
        }
        _Analysis_assume_same_lock_(context.wdfWaitLockGeneral, GeneralLock);
        MarkAnnounced(*client);
        WdfWaitLockRelease(context.wdfWaitLockGeneral);
    }
    completed = true;
    return STATUS_SUCCESS;
}

// Counts the clients that are really there.
// On purpose: a stop is a success that leaves the number at 0.
_Requires_lock_held_(context.wdfWaitLockClientsCollection)
static void CountClients(const ZEP_NOTIFIER_DRIVER_CONTEXT& context, ULONG& number)
{
    const ULONG count = WdfCollectionGetCount(context.wdfCollectionZepClients);
    for (ULONG index = 0; index < count; ++index) {
        WDFOBJECT item;
        if (ClientAt<Site::kCountItem, Site::kCountClient>(context.wdfCollectionZepClients, index, count, item) ==
            nullptr) {
            return;
        }
    }
    number = count;
}

_Requires_lock_held_(ClientsLock)
void DescribeClient(const ZEP_NOTIFIER_CLIENT_CONTEXT& client, ZEP_SUBSYSTEM_DESCRIPTOR& descriptor)
{
    descriptor.InterfaceGUID = client.InterfaceGUID;
    CopyText(descriptor.SubsystemName, client.SubsystemName);
    CopyText(descriptor.SubsystemDescription, client.SubsystemDescription);
    descriptor.AppsStateNotificationCallback = client.ActionCallbackTable.AppsStateNotificationCallback;
    descriptor.DescriptorCallbackA = client.ActionCallbackTable.DescriptorCallbackA;
    descriptor.DescriptorCallbackB = client.ActionCallbackTable.DescriptorCallbackB;
    descriptor.DescriptorCallbackC = client.ActionCallbackTable.DescriptorCallbackC;
    descriptor.DataEntries = client.DataEntries;
    descriptor.DataEntryCount = client.DataEntryCount;
    descriptor.CallbackContext = client.CallbackContext;
    descriptor.Reserved1 = 0;
    descriptor.Reserved2 = 0;
}

_Requires_lock_held_(GeneralLock)
void MarkAnnounced(ZEP_NOTIFIER_CLIENT_CONTEXT& client)
{
    WriteULongNoFence(&client.AddedToWpcd, 1);
    if (ReadULongNoFence(&client.CurrentState) == 0) {
        WriteULongNoFence(&client.WpcdRefreshPending, 1);
    }
}

NTSTATUS Notifier_WpcdGetNumSubsystemDescriptors(PULONG numberDescriptors)
{
    Report<Site::kCountEntered>();
    if (numberDescriptors == nullptr) {
        return ReportFailure<Site::kCountNull>(STATUS_INVALID_PARAMETER);
    }
    *numberDescriptors = 0;
    const ZEP_NOTIFIER_DRIVER_CONTEXT* context =
        DriverContextOrReport<Site::kCountNoDriver, Site::kCountNoContext>(STATUS_IO_DEVICE_ERROR);
    if (context == nullptr) {
        return STATUS_IO_DEVICE_ERROR;
    }
    const NTSTATUS status = WdfWaitLockAcquire(context->wdfWaitLockClientsCollection, nullptr);
    if (status != STATUS_SUCCESS) {
        return ReportFailure<Site::kCountLock>(status);
    }
    CountClients(*context, *numberDescriptors);
    WdfWaitLockRelease(context->wdfWaitLockClientsCollection);
    return STATUS_SUCCESS;
}

NTSTATUS Notifier_WpcdGetAllSubsystemDescriptors(ZEP_SUBSYSTEM_DESCRIPTOR* descriptors, PULONG numberDescriptors)
{
    Report<Site::kDescribeEntered>();
    if (descriptors == nullptr) {
        return ReportFailure<Site::kDescribeArrayNull>(STATUS_INVALID_PARAMETER);
    }
    if (numberDescriptors == nullptr) {
        return ReportFailure<Site::kDescribeCountNull>(STATUS_INVALID_PARAMETER);
    }
    const ZEP_NOTIFIER_DRIVER_CONTEXT* context =
        DriverContextOrReport<Site::kDescribeNoDriver, Site::kDescribeNoContext>(STATUS_IO_DEVICE_ERROR);
    if (context == nullptr) {
        return STATUS_IO_DEVICE_ERROR;
    }
    NTSTATUS status = WdfWaitLockAcquire(context->wdfWaitLockClientsCollection, nullptr);
    if (status != STATUS_SUCCESS) {
        return ReportFailure<Site::kDescribeLock>(status);
    }

    const ULONG count = WdfCollectionGetCount(context->wdfCollectionZepClients);
    const ULONG capacity = *numberDescriptors;
    if (capacity < count) {
        status = STATUS_BUFFER_TOO_SMALL;
        Report<Site::kDescribeTooSmall>(capacity, count, status);
        *numberDescriptors = count;
    } else {
        bool completed;
        status = DescribeAll(*context, count, descriptors, completed);
        if (completed) {
            *numberDescriptors = count;
        }
    }
    WdfWaitLockRelease(context->wdfWaitLockClientsCollection);
    return status;
}
