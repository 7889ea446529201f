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

// Deletes a client that was not added; its registrations collection, if it has one, is left to the driver object.
// Returns the entries, which the caller frees: they are not part of the context.
[[nodiscard]] static ZepDataEntry* DeleteClient(WDFOBJECT clientObject, const ZEP_NOTIFIER_CLIENT_CONTEXT& client)
{
    ZepDataEntry* entries = client.DataEntries;
    WdfObjectDelete(clientObject);
    return entries;
}

// On purpose: from here on a failure leaves the registrations collection to its parent, the driver object.
static NTSTATUS AddClient(WDFOBJECT clientObject, const ZEP_NOTIFIER_CLIENT_CONTEXT& client)
{
    const ZEP_NOTIFIER_DRIVER_CONTEXT* context =
        DriverContextOrReport<Site::kInitNoDriver, Site::kInitNoContext>(STATUS_ZEP_NOTIFIER_NO_DRIVER);
    if (context == nullptr) {
        FreeEntries(DeleteClient(clientObject, client));
        return STATUS_ZEP_NOTIFIER_NO_DRIVER;
    }

    NTSTATUS status = WdfWaitLockAcquire(context->wdfWaitLockClientsCollection, nullptr);
    if (status != STATUS_SUCCESS) {
        Report<Site::kInitLock>(status);
        ZepDataEntry* entries = DeleteClient(clientObject, client);
        // On purpose: only for an error: a lock that returns another success leaves the entries allocated.
        if (!NT_SUCCESS(status)) {
            FreeEntries(entries);
        }
        return status;
    }

    status = WdfCollectionAdd(context->wdfCollectionZepClients, clientObject);
    if (!NT_SUCCESS(status)) {
        Report<Site::kInitAdd>(status);
        ZepDataEntry* entries = DeleteClient(clientObject, client);
        WdfWaitLockRelease(context->wdfWaitLockClientsCollection);
        FreeEntries(entries);
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

    status = WdfCollectionCreate(WDF_NO_OBJECT_ATTRIBUTES, &client->wdfCollectionStateRegistrations);
    if (!NT_SUCCESS(status)) {
        Report<Site::kInitRegistrations>(status);
        FreeEntries(DeleteClient(clientObject, *client));
        return status;
    }

    status = AddClient(clientObject, *client);
    if (status != STATUS_SUCCESS) {
        return status;
    }
    Report<Site::kInitDone>(interfaceGuid->Data1);
    return STATUS_SUCCESS;
}
