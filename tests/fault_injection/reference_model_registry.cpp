// Predictions for the client registry: look-up, registration, removal, subscriptions.
#include "tests/fault_injection/reference_model.h"

namespace fault_injection {

// A miss is not reported; the caller cannot distinguish it from a failure.
Ref ReferenceModel::Lookup(ULONG number, bool takesLock)
{
    const std::string in = takesLock ? "_getClientContextByGUID: " : "_getClientContextByGUID_unsafe: ";
    Ref client;
    (void)StatusOf([&] {
        FindDriverOfRun(in, " Returning NULL");
        std::optional<Lock> lock;
        if (takesLock) {
            lock.emplace(*this, "clients", in);
        }
        client = FindClient(number, in);
    });
    return client;
}

void ReferenceModel::Register(ULONG number, ULONG traits, bool callbacks)
{
    const std::string in = "Notifier_HelperInit: ";
    Require(number != 0, "2 " + in + "InterfaceGUID is NULL", STATUS_INVALID_PARAMETER);
    Require(Lookup(number, true) == nullptr, "12 " + in + "InterfaceGUID is already initialized!, " + GuidText(number),
            STATUS_ZEP_NOTIFIER_ALREADY_REGISTERED);
    Require(callbacks, "2 " + in + "ActionCallbackTable is NULL!", STATUS_INVALID_PARAMETER);
    Owned client(*this, Create(kClientContextName, {.kind = "client"}, driver_,
                               "1 " + in + "WdfObjectCreate for client", "7 " + in + "Client context"));
    client->number = number;
    client->traits = traits;
    if ((traits & kEntries) != 0) {
        Require(Gives("ExAllocatePoolWithTag"), "1 " + in + "ExAllocatePoolWithTag failed!",
                STATUS_ZEP_NOTIFIER_NO_MEMORY);
        client->hasEntries = true;
        ++poolBlocks_;
    }
    try {
        AddClient(*client);
    } catch (const Ended& ended) {
        // The entries are freed only for an error.
        poolBlocks_ -= client->hasEntries && !NT_SUCCESS(ended.status) ? 1 : 0;
        throw;
    }
    client.Keep();
}

void ReferenceModel::AddClient(const Ref& client)
{
    const std::string in = "Notifier_HelperInit: ";
    (void)Make("WdfCollectionCreate", "1 " + in + "WdfCollectionObjectCreate for wdfCollectionStateRegistrations");
    // From here on a failure leaves this collection undeleted.
    client->registrations = MakeObject({.kind = "collection"}, driver_);
    FindDriver("2/82 Notifier_WpcdClientInit: WdfGetDriver returned NULL?!, 0xE00A8101",
               "7 " + in + "Driver object context, <driver>, 0xE00A8101", STATUS_ZEP_NOTIFIER_NO_DRIVER);
    const Lock lock(*this, "clients", in);
    Append(clients_, client, "1 " + in + "WdfCollectionAdd for wdfCollectionZepClients");
}

void ReferenceModel::Deregister(ULONG number)
{
    const std::string in = "Notifier_HelperClientDeinit: ";
    Require(number != 0, "2 " + in + "InterfaceGUID is NULL", STATUS_INVALID_PARAMETER);
    FindDriver(in);
    const Lock lock(*this, "clients", in);
    const Ref client = FindClient(number, in, "Client object context");
    if (client == nullptr) {
        throw Ended{STATUS_NOT_FOUND};  // silently
    }
    const Owned removed(*this, client);  // deleted whatever comes
    poolBlocks_ -= client->hasEntries ? 1 : 0;
    Remove(clients_, client);
    // It does not wait for its announcement any longer, however often it stood there. Each entry is asked for.
    for (std::size_t index = addQueue_->items.size(); index > 0; --index) {
        if (Item(addQueue_, index - 1) == client) {
            addQueue_->items.erase(addQueue_->items.begin() + static_cast<std::ptrdiff_t>(index - 1));
        }
    }
    if (client->added != 0) {
        Withdraw(*client);  // a failure leaves its registrations collection neither drained nor deleted
    }
    if (!DropRegistrations(client, in)) {
        Release("clients");  // and once more at the end: the double release
    }
}

// The copy of the client's record for the crash-dump driver.
void ReferenceModel::Withdraw(const ModelObject& client)
{
    const std::string in = "Notifier_HelperClientDeinit: ";
    const NTSTATUS status = Make("WdfObjectCreate", "1 " + in + "WdfObjectCreate for client copy", kClientContextName);
    Owned copy(*this, MakeObject(client, driver_));
    if (!HasContext(kClientContextName)) {
        Report("7 " + in + "Client context, <client 0>", status);  // the status of its creation
        throw Ended{};
    }
    copy->registrations = client.registrations;
    Append(removeQueue_, *copy, "1 " + in + "WdfCollectionAdd for wdfCollectionWpcdClientRemoveQueue");
    copy.Keep();
    Enqueue("remove");
}

// Whether all its subscriptions could be taken out; the collection is deleted in any case.
bool ReferenceModel::DropRegistrations(const Ref& client, const std::string& in)
{
    const Owned registrations(*this, client->registrations.lock());
    while (!registrations->items.empty()) {
        const Ref item = FirstItem(*registrations);
        if (item == nullptr) {
            Report("5 " + in + "WdfCollectionGetFirstItem, 0, <collection>, " +
                   std::to_string(registrations->items.size()));
            return false;
        }
        Remove(*registrations, item);
        DeleteRemoved(item);
    }
    return true;
}

void ReferenceModel::Subscribe(ULONG number, ULONG target, ULONG state)
{
    const std::string in = "Notifier_HelperRegisterForStateNotification: ";
    Require(number != 0 && target != 0, "2 " + in + "One of the parameters is NULL!", STATUS_INVALID_PARAMETER);
    FindDriver(in);
    Lock lock(*this, "clients", in);
    const Ref subscriber = Lookup(number, false);
    Require(subscriber != nullptr, "12/110 " + in + "Unable to find client with , " + GuidText(number),
            STATUS_ZEP_NOTIFIER_NO_DRIVER);
    const Ref watched = Lookup(target, false);
    if (watched == nullptr) {
        Report("12/111 " + in + "Unable to find client with , " + GuidText(number),
               STATUS_SUCCESS);  // the subscriber's
    }
    Owned subscription(*this, Create(kRegistrationContextName, {.kind = "subscription"}, subscriber,
                                     "1 " + in + "WdfObjectCreate for state notification",
                                     "7 " + in + "State notification context"));
    subscription->number = number;
    subscription->other = target;
    subscription->value = state;
    Append(subscriber->registrations.lock(), *subscription,
           "1 " + in + "WdfCollectionAdd for wdfCollectionStateRegistrations", kExact);
    subscription.Keep();
    if (watched == nullptr || (watched->value != state && state != ZEP_STATE_ANY)) {
        return;
    }
    step_.callbacks.push_back(
        tests::lines::State(number, tests::ClientName(target), sizeof(ZepState), watched->value, 0, subscriber->value));
    const ULONG answer = StateAnswer(number, watched->value);
    lock.Release();
    if (answer != 0 && answer != subscriber->value) {
        throw Ended{PostAnswer({number, sizeof(ZepState), answer, 0}, in + "posting the subscriber's answer failed")};
    }
}

void ReferenceModel::Unsubscribe(ULONG number, ULONG target, ULONG state)
{
    const std::string in = "Notifier_HelperDeregisterForStateNotification: ";
    Require(number != 0 && target != 0, "2 " + in + "One of the parameters is NULL!", STATUS_INVALID_PARAMETER);
    FindDriver(in);
    const Lock lock(*this, "clients", in);
    const Ref subscriber = Lookup(number, false);
    Require(subscriber != nullptr,
            "12/121 Notifier_HelperRegisterForStateNotification: Unable to find client with , " + GuidText(number),
            STATUS_ZEP_NOTIFIER_NO_DRIVER);
    const Ref registrations = subscriber->registrations.lock();
    for (std::size_t index = 0; index < registrations->items.size(); ++index) {
        const Ref item = SubscriptionAt(registrations, index, "_getStateNotificationContextByZepState_unsafe: ");
        if (item == nullptr) {
            break;
        }
        if (item->other == target && item->value == state) {
            Remove(registrations, item);
            DeleteRemoved(item);
            return;
        }
    }
    Report("22 " + in + "State notification registration, Client's registrations");
}

}  // namespace fault_injection
