// Predictions for the client registry: look-up, registration, removal, subscriptions.
#include "tests/fault_injection/reference_model.h"

#include <algorithm>

namespace fault_injection {

bool ReferenceModel::Driver(const std::string& noDriver, const std::string& noContext)
{
    if (!Gives("WdfGetDriver")) {
        Report(noDriver);
        return false;
    }
    if (!HasContext("ZEP_NOTIFIER_DRIVER_CONTEXT")) {
        Report(noContext);
        return false;
    }
    return true;
}

// A miss is not reported; the caller cannot tell it from a failure.
Ref ReferenceModel::Lookup(ULONG number, bool lock)
{
    const std::string name = lock ? "_getClientContextByGUID: " : "_getClientContextByGUID_unsafe: ";
    if (!Driver("13 " + name + "WdfGetDriver returned NULL?! Returning NULL",
                "13 " + name + "Driver context is NULL?! Returning NULL")) {
        return nullptr;
    }
    if (lock) {
        const NTSTATUS status = Acquire("clients");
        if (status != STATUS_SUCCESS) {
            Fails("1 " + name + kClientsLock, status);
            return nullptr;
        }
    }
    Ref found;
    for (std::size_t index = 0; index < clients_->items.size() && found == nullptr; ++index) {
        const Ref item = Item(clients_, index);
        if (item == nullptr) {
            Report("5 " + name + "WdfCollectionGetItem, " + std::to_string(index) + ", <clients>, " +
                   std::to_string(clients_->items.size()));
            break;
        }
        if (!HasContext(kClient)) {
            Report("6 " + name + "Client context, " + Named(item));
            break;
        }
        found = item->number == number ? item : nullptr;
    }
    if (lock) {
        Release("clients");
    }
    return found;
}

NTSTATUS ReferenceModel::Register(ULONG number, ULONG traits, bool callbacks)
{
    const std::string name = "Notifier_HelperInit: ";
    if (number == 0) {
        return Fails("2 " + name + "InterfaceGUID is NULL", STATUS_INVALID_PARAMETER);
    }
    if (Lookup(number, true) != nullptr) {
        return Fails("12 " + name + "InterfaceGUID is already initialized!, " + GuidText(number),
                     STATUS_ZEP_NOTIFIER_ALREADY_REGISTERED);
    }
    if (!callbacks) {
        return Fails("2 " + name + "ActionCallbackTable is NULL!", STATUS_INVALID_PARAMETER);
    }
    NTSTATUS status = Create(kClient);
    if (!NT_SUCCESS(status)) {
        return Fails("1 " + name + "WdfObjectCreate for client", status);
    }
    const Ref client = Make("client", driver_);
    if (!HasContext(kClient)) {
        Delete(client);
        return Fails("7 " + name + "Client context, <client 0>", STATUS_IO_DEVICE_ERROR);
    }
    client->number = number;
    client->traits = traits;
    if ((traits & kEntries) != 0) {
        if (!Gives("ExAllocatePoolWithTag")) {
            Delete(client);
            return Fails("1 " + name + "ExAllocatePoolWithTag failed!", STATUS_ZEP_NOTIFIER_NO_MEMORY);
        }
        client->hasEntries = true;
        ++poolBlocks_;
    }
    status = Status("WdfCollectionCreate", kMaking);
    if (!NT_SUCCESS(status)) {
        DiscardClient(client, true);
        return Fails("1 " + name + "WdfCollectionObjectCreate for wdfCollectionStateRegistrations", status);
    }
    // From here on a failure leaves this collection undeleted.
    client->registrations = Make("collection", driver_);
    if (!Driver("2/82 Notifier_WpcdClientInit: WdfGetDriver returned NULL?!, 0xE00A8101",
                "7 " + name + "Driver object context, <driver>, 0xE00A8101")) {
        DiscardClient(client, true);
        return STATUS_ZEP_NOTIFIER_NO_DRIVER;
    }
    status = Acquire("clients");
    if (status != STATUS_SUCCESS) {
        // The entries are freed only for an error.
        DiscardClient(client, !NT_SUCCESS(status));
        return Fails("1 " + name + kClientsLock, status);
    }
    status = Add(clients_, client);
    if (!NT_SUCCESS(status)) {
        DiscardClient(client, true);
        Release("clients");
        return Fails("1 " + name + "WdfCollectionAdd for wdfCollectionZepClients", status);
    }
    Release("clients");
    return STATUS_SUCCESS;
}

void ReferenceModel::DiscardClient(const Ref& client, bool freeEntries)
{
    poolBlocks_ -= freeEntries && client->hasEntries ? 1 : 0;
    Delete(client);
}

NTSTATUS ReferenceModel::Deregister(ULONG number)
{
    const std::string name = "Notifier_HelperClientDeinit: ";
    if (number == 0) {
        return Fails("2 " + name + "InterfaceGUID is NULL", STATUS_INVALID_PARAMETER);
    }
    if (!Driver("2 " + name + "WdfGetDriver returned NULL?!, 0xC0000185",
                "7 " + name + "Driver object context, <driver>, 0xC0000185")) {
        return STATUS_IO_DEVICE_ERROR;
    }
    NTSTATUS status = Acquire("clients");
    if (status != STATUS_SUCCESS) {
        return Fails("1 " + name + kClientsLock, status);
    }
    Ref client;
    for (std::size_t index = 0; index < clients_->items.size() && client == nullptr; ++index) {
        const Ref item = Item(clients_, index);
        if (item == nullptr) {
            Report("5 " + name + "WdfCollectionGetItem, " + std::to_string(index) + ", <clients>, " +
                   std::to_string(clients_->items.size()));
            Release("clients");
            return STATUS_IO_DEVICE_ERROR;
        }
        if (!HasContext(kClient)) {
            Report("6 " + name + "Client object context, " + Named(item));
            Release("clients");
            return STATUS_IO_DEVICE_ERROR;
        }
        client = item->number == number ? item : nullptr;
    }
    if (client == nullptr) {
        Release("clients");
        return STATUS_NOT_FOUND;  // silently
    }
    poolBlocks_ -= client->hasEntries ? 1 : 0;
    Remove(clients_, client);
    // It does not wait for its announcement any longer, however often it stood there. Each entry is asked for.
    for (std::size_t index = addQueue_->items.size(); index > 0; --index) {
        if (Item(addQueue_, index - 1) == client) {
            addQueue_->items.erase(addQueue_->items.begin() + static_cast<std::ptrdiff_t>(index - 1));
        }
    }
    if (client->added != 0) {
        status = Withdraw(client);
        if (!NT_SUCCESS(status)) {
            // Deleted all the same, its registrations collection neither drained nor deleted.
            Delete(client);
            Release("clients");
            return status;
        }
    }
    const Ref registrations = client->registrations.lock();
    while (!registrations->items.empty()) {
        const Ref item = FirstItem(registrations);
        if (item == nullptr) {
            Report("5 " + name + "WdfCollectionGetFirstItem, 0, <collection>, " +
                   std::to_string(registrations->items.size()));
            Release("clients");  // and once more below: the double release
            break;
        }
        Remove(registrations, item);
        DeleteRemoved(item);
    }
    Delete(registrations);
    Delete(client);
    Release("clients");
    return STATUS_SUCCESS;
}

// The copy of the client's record for the crash-dump driver.
NTSTATUS ReferenceModel::Withdraw(const Ref& client)
{
    const std::string name = "Notifier_HelperClientDeinit: ";
    NTSTATUS status = Create(kClient);
    if (!NT_SUCCESS(status)) {
        return Fails("1 " + name + "WdfObjectCreate for client copy", status);
    }
    const Ref copy = Make("client", driver_);
    if (!HasContext(kClient)) {
        Delete(copy);
        Fails("7 " + name + "Client context, <client 0>", status);  // the status of its creation
        return STATUS_IO_DEVICE_ERROR;
    }
    copy->number = client->number;
    copy->value = client->value;
    copy->added = client->added;
    copy->refresh = client->refresh;
    copy->registrations = client->registrations;
    status = Add(removeQueue_, copy);
    if (!NT_SUCCESS(status)) {
        Delete(copy);
        return Fails("1 " + name + "WdfCollectionAdd for wdfCollectionWpcdClientRemoveQueue", status);
    }
    Enqueue("remove");
    return STATUS_SUCCESS;
}

NTSTATUS ReferenceModel::Subscribe(ULONG number, ULONG target, ULONG state)
{
    const std::string name = "Notifier_HelperRegisterForStateNotification: ";
    if (number == 0 || target == 0) {
        return Fails("2 " + name + "One of the parameters is NULL!", STATUS_INVALID_PARAMETER);
    }
    if (!Driver("2 " + name + "WdfGetDriver returned NULL?!, 0xC0000185",
                "7 " + name + "Driver object context, <driver>, 0xC0000185")) {
        return STATUS_IO_DEVICE_ERROR;
    }
    NTSTATUS status = Acquire("clients");
    if (status != STATUS_SUCCESS) {
        return Fails("1 " + name + kClientsLock, status);
    }
    const Ref subscriber = Lookup(number, false);
    if (subscriber == nullptr) {
        Release("clients");
        return Fails("12/110 " + name + "Unable to find client with , " + GuidText(number),
                     STATUS_ZEP_NOTIFIER_NO_DRIVER);
    }
    const Ref watched = Lookup(target, false);
    if (watched == nullptr) {
        Fails("12/111 " + name + "Unable to find client with , " + GuidText(number),
              STATUS_SUCCESS);  // the subscriber's
    }
    status = Create(kRegistration);
    if (!NT_SUCCESS(status)) {
        Release("clients");
        return Fails("1 " + name + "WdfObjectCreate for state notification", status);
    }
    const Ref registration = Make("subscription", subscriber);
    if (!HasContext(kRegistration)) {
        Delete(registration);
        Release("clients");
        return Fails("7 " + name + "State notification context, <subscription>", STATUS_IO_DEVICE_ERROR);
    }
    registration->number = number;
    registration->other = target;
    registration->value = state;
    status = Add(subscriber->registrations.lock(), registration, kExact);
    if (status != STATUS_SUCCESS) {  // exactly
        Delete(registration);
        Release("clients");
        return Fails("1 " + name + "WdfCollectionAdd for wdfCollectionStateRegistrations", status);
    }
    if (watched == nullptr || (watched->value != state && state != ZEP_STATE_ANY)) {
        Release("clients");
        return STATUS_SUCCESS;
    }
    step_.callbacks.push_back(
        tests::lines::State(number, tests::ClientName(target), sizeof(ZepState), watched->value, 0, subscriber->value));
    const ULONG answer = StateAnswer(number, watched->value);
    Release("clients");
    if (answer == 0 || answer == subscriber->value) {
        return STATUS_SUCCESS;
    }
    status = Post({number, sizeof(ZepState), answer, 0});
    if (!NT_SUCCESS(status)) {
        Report("- Notifier_HelperRegisterForStateNotification: posting the subscriber's answer failed: " +
               Hex(static_cast<std::uint32_t>(status)));
    }
    return status;
}

NTSTATUS ReferenceModel::Unsubscribe(ULONG number, ULONG target, ULONG state)
{
    const std::string name = "Notifier_HelperDeregisterForStateNotification: ";
    if (number == 0 || target == 0) {
        return Fails("2 " + name + "One of the parameters is NULL!", STATUS_INVALID_PARAMETER);
    }
    if (!Driver("2 " + name + "WdfGetDriver returned NULL?!, 0xC0000185",
                "7 " + name + "Driver object context, <driver>, 0xC0000185")) {
        return STATUS_IO_DEVICE_ERROR;
    }
    const NTSTATUS status = Acquire("clients");
    if (status != STATUS_SUCCESS) {
        return Fails("1 " + name + kClientsLock, status);
    }
    const Ref subscriber = Lookup(number, false);
    if (subscriber == nullptr) {
        Release("clients");
        return Fails("12/121 Notifier_HelperRegisterForStateNotification: Unable to find client with , " +
                         GuidText(number),
                     STATUS_ZEP_NOTIFIER_NO_DRIVER);
    }
    const Ref registrations = subscriber->registrations.lock();
    const std::string lookup = "_getStateNotificationContextByZepState_unsafe: ";
    Ref found;
    for (std::size_t index = 0; index < registrations->items.size() && found == nullptr; ++index) {
        const Ref item = Item(registrations, index);
        if (item == nullptr) {
            Report("5 " + lookup + "WdfCollectionGetItem, " + std::to_string(index) + ", <collection>, " +
                   std::to_string(registrations->items.size()));
            break;
        }
        if (!HasContext(kRegistration)) {
            Report("6 " + lookup + "State notification context, <subscription>");
            break;
        }
        found = item->other == target && item->value == state ? item : nullptr;
    }
    if (found != nullptr) {
        Remove(registrations, found);
        DeleteRemoved(found);
    } else {
        Report("22 " + name + "State notification registration, Client's registrations");
    }
    Release("clients");
    return STATUS_SUCCESS;
}

}  // namespace fault_injection
