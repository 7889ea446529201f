// Registration of a client: its object, its context filled from the caller's arguments, its place among the clients.
//
// Takes the clients lock twice, once to look for the GUID and once to add. On purpose the look-up is not repeated under
// the second hold: two overlapping registrations of one GUID both succeed, and the older one is found.
#include "driver/registry/registry.h"

#include "driver/context/driver_context.h"
#include "driver/context/object_creation.h"
#include "driver/context/operations.h"

// On purpose: every entry is copied, but the count is recorded modulo 256.
static NTSTATUS CopyEntries(ZEP_NOTIFIER_CLIENT_CONTEXT& client, const ZepDataEntry* entries, ULONG entryCount)
{
    if (entryCount == 0 || entries == nullptr) {
        client.DataEntries = nullptr;
        client.DataEntryCount = 0;
        return STATUS_SUCCESS;
    }

    const SIZE_T size = static_cast<SIZE_T>(entryCount) * sizeof(ZepDataEntry);
    PVOID copy = ExAllocatePoolWithTag(PagedPool, size, kDataEntriesTag);
    if (copy == nullptr) {
        return STATUS_ZEP_NOTIFIER_NO_MEMORY;
    }
    (void)memcpy_s(copy, size, entries, size);
    client.DataEntries = static_cast<ZepDataEntry*>(copy);
    client.DataEntryCount = static_cast<UCHAR>(entryCount);
    return STATUS_SUCCESS;
}

// What a filled client needs before it can be added: its registrations collection, and the clients lock, which is held
// when this returns STATUS_SUCCESS. On purpose: a failure after the collection leaves it to its parent, the driver
// object.
_When_(return == STATUS_SUCCESS, _Acquires_lock_(context->wdfWaitLockClientsCollection))
static NTSTATUS PrepareToAdd(ZEP_NOTIFIER_CLIENT_CONTEXT& client, const ZEP_NOTIFIER_DRIVER_CONTEXT*& context)
{
    NTSTATUS status = WdfCollectionCreate(WDF_NO_OBJECT_ATTRIBUTES, &client.wdfCollectionStateRegistrations);
    if (!NT_SUCCESS(status)) {
        return ReportFailure<Site::kInitRegistrations>(status);
    }
    context = DriverContextOrReport<Site::kInitNoDriver, Site::kInitNoContext>(STATUS_ZEP_NOTIFIER_NO_DRIVER);
    if (context == nullptr) {
        return STATUS_ZEP_NOTIFIER_NO_DRIVER;
    }
    status = WdfWaitLockAcquire(context->wdfWaitLockClientsCollection, nullptr);
    if (status != STATUS_SUCCESS) {
        return ReportFailure<Site::kInitLock>(status);
    }
    return STATUS_SUCCESS;
}

// Adds a filled client. On a failure its object is deleted; its entries, which are not part of the context, are left
// to the caller.
static NTSTATUS AddClient(WDFOBJECT clientObject, ZEP_NOTIFIER_CLIENT_CONTEXT& client)
{
    const ZEP_NOTIFIER_DRIVER_CONTEXT* context = nullptr;
    NTSTATUS status = PrepareToAdd(client, context);
    if (status != STATUS_SUCCESS) {
        WdfObjectDelete(clientObject);
        return status;
    }
    status = WdfCollectionAdd(context->wdfCollectionZepClients, clientObject);
    if (!NT_SUCCESS(status)) {
        Report<Site::kInitAdd>(status);
        WdfObjectDelete(clientObject);
        WdfWaitLockRelease(context->wdfWaitLockClientsCollection);
        return status;
    }
    WdfWaitLockRelease(context->wdfWaitLockClientsCollection);
    return STATUS_SUCCESS;
}

void FreeEntries(ZepDataEntry* entries)
{
    if (entries != nullptr) {
        ExFreePoolWithTag(entries, kDataEntriesTag);
    }
}

NTSTATUS Notifier_HelperInit(const GUID* interfaceGuid, const CHAR* name, const CHAR* description,
                             const ActionCallbackTable* callbacks, const ZepDataEntry* entries, ULONG entryCount,
                             PVOID callbackContext)
{
    Report<Site::kInitEntered>();
    if (interfaceGuid == nullptr) {
        return ReportFailure<Site::kInitGuidNull>(STATUS_INVALID_PARAMETER);
    }
    if (_getClientContextByGUID(interfaceGuid, nullptr) != nullptr) {
        return ReportFailure<Site::kInitAlreadyRegistered>(*interfaceGuid, STATUS_ZEP_NOTIFIER_ALREADY_REGISTERED);
    }
    // On purpose: after the look-up: a taken GUID is refused even with a null table.
    if (callbacks == nullptr) {
        return ReportFailure<Site::kInitTableNull>(STATUS_INVALID_PARAMETER);
    }

    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, ZEP_NOTIFIER_CLIENT_CONTEXT);
    WDFOBJECT clientObject;
    ZEP_NOTIFIER_CLIENT_CONTEXT* client;
    NTSTATUS status =
        CreateObject<Site::kInitObject, Site::kInitContext, GetClientContext>(attributes, clientObject, client);
    if (!NT_SUCCESS(status)) {
        return status;
    }

    client->InterfaceGUID = *interfaceGuid;
    CopyText(client->SubsystemName, name);
    CopyText(client->SubsystemDescription, description);
    client->ActionCallbackTable = *callbacks;
    client->AddedToWpcd = 0;
    client->WpcdRefreshPending = 0;
    client->CurrentState = 0;

    status = CopyEntries(*client, entries, entryCount);
    if (!NT_SUCCESS(status)) {
        Report<Site::kInitEntries>(status);
        WdfObjectDelete(clientObject);
        return status;
    }
    if (client->ActionCallbackTable.DescriptorCallbackB != nullptr) {
        // On purpose: such a client's count is kept even when it gave no entries.
        client->DataEntryCount = static_cast<UCHAR>(entryCount);
    }
    client->CallbackContext = callbackContext;

    ZepDataEntry* const ownEntries = client->DataEntries;
    status = AddClient(clientObject, *client);
    if (status != STATUS_SUCCESS) {
        // On purpose: only for an error: a lock that returns another success leaves the entries allocated.
        if (!NT_SUCCESS(status)) {
            FreeEntries(ownEntries);
        }
        return status;
    }
    Report<Site::kInitDone>(interfaceGuid->Data1);
    return STATUS_SUCCESS;
}
