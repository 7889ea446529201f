// Predictions for states: posting and the work item that delivers them.
#include "tests/fault_injection/reference_model.h"

namespace fault_injection {

NTSTATUS ReferenceModel::Post(const StateRecord& posted)
{
    const std::string name = "Notifier_HelperSendState: ";
    const ULONG number = posted.number;
    if (number == 0) {
        return Fails("2 " + name + "ZepState is NULL", STATUS_INVALID_PARAMETER);
    }
    if (!Driver("2 " + name + "WdfGetDriver returned NULL?!, 0xC0000185",
                "7 " + name + "Driver object context, <driver>, 0xC0000185")) {
        return STATUS_IO_DEVICE_ERROR;
    }
    const Ref client = Lookup(number, true);
    if (client == nullptr) {
        return Fails("12 " + name + "Unable to find client with , " + GuidText(number), STATUS_INVALID_DEVICE_REQUEST);
    }
    NTSTATUS status = Acquire("general");
    if (status != STATUS_SUCCESS) {
        return Fails("1 " + name + "WdfWaitLockAcquire (general lock)", status);
    }
    client->value = posted.state;  // stays, whatever comes
    Release("general");
    if (client->added == 0 || client->refresh != 0) {
        status = Acquire("clients");
        if (status != STATUS_SUCCESS) {
            return Fails("1 " + name + kClientsLock, status);
        }
        client->refresh = 0;
        status = Add(addQueue_, client);
        if (!NT_SUCCESS(status)) {
            Release("clients");
            return Fails("1 " + name + "WdfCollectionAdd for wdfCollectionWpcdClientAddQueue", status);
        }
        Release("clients");
        Enqueue("add");
    }
    status = Create(kState);
    if (!NT_SUCCESS(status)) {
        return Fails("1 " + name + "WdfObjectCreate", status);
    }
    const Ref record = Make("state", client);
    if (!HasContext(kState)) {
        Delete(record);
        return Fails("7 " + name + "Client state context, <state>", STATUS_IO_DEVICE_ERROR);
    }
    record->number = number;
    record->value = posted.state;
    record->size = posted.size;
    record->reserved = posted.reserved;
    status = Acquire("states");
    if (status != STATUS_SUCCESS) {
        Delete(record);
        return Fails("1 " + name + "WdfWaitLockAcquire for wdfWaitLockStatesCollection", status);
    }
    status = Add(states_, record, kExact);
    if (status != STATUS_SUCCESS) {  // exactly
        Delete(record);
        Release("states");
        return Fails("1 " + name + "WdfCollectionAdd for wdfCollectionZepStates", status);
    }
    Enqueue("states");
    Release("states");
    return STATUS_SUCCESS;
}

void ReferenceModel::NotifyStates()
{
    const std::string name = "NotifierEvtWorkItemNotifyStates: ";
    if (!Driver("13 " + name + "WdfGetDriver returned NULL?!", "13 " + name + "Driver context is NULL?!")) {
        return;
    }
    NTSTATUS status = Acquire("states item");
    if (status != STATUS_SUCCESS) {
        Fails("1 " + name + "WdfWaitLockAcquire for wdfWaitLockNotifyStatesWorkItem", status);
        return;
    }
    status = Acquire("clients");
    if (status != STATUS_SUCCESS) {
        Fails("1 " + name + kClientsLock, status);
        Release("states item");
        return;
    }
    for (bool goesOn = true; goesOn;) {
        status = Acquire("states");
        if (status != STATUS_SUCCESS) {
            Fails("1 " + name + "WdfWaitLockAcquire for wdfWaitLockStatesCollection", status);
            break;
        }
        const Ref record = FirstItem(states_);
        if (record == nullptr) {
            Report("10 " + name + "<states>");
            Release("states");
            break;
        }
        if (!HasContext(kState)) {
            Report("6/145 " + name + "State context, <state>");
            Release("states");
            break;  // it stays first in the queue
        }
        Remove(states_, record);
        Release("states");
        goesOn = DeliverState(*record);
        if (goesOn) {
            Delete(record);
        }
    }
    Release("clients");
    Release("states item");
}

// Whether the run goes on: every failure but a refused append of a follow-up ends it.
bool ReferenceModel::DeliverState(const ModelObject& state)
{
    const std::string name = "NotifierEvtWorkItemNotifyStates: ";
    for (std::size_t index = 0; index < clients_->items.size(); ++index) {
        const Ref client = Item(clients_, index);
        if (client == nullptr) {
            Report("5/146 " + name + "WdfCollectionGetItem, " + std::to_string(index) + ", <clients>, " +
                   std::to_string(clients_->items.size()));
            return false;
        }
        if (!HasContext(kClient)) {
            Report("6 " + name + "Client context, " + Named(client));
            return false;
        }
        if (client->number == state.number) {
            continue;
        }
        const Ref registrations = client->registrations.lock();
        for (std::size_t at = 0; at < registrations->items.size(); ++at) {
            const Ref registration = Item(registrations, at);
            if (registration == nullptr) {
                Report("5/148 " + name + "WdfCollectionGetItem, " + std::to_string(at) + ", <collection>, " +
                       std::to_string(registrations->items.size()));
                return false;
            }
            if (!HasContext(kRegistration)) {
                Report("6 " + name + "State notification context, <subscription>");
                return false;
            }
            if (registration->other != state.number ||
                (registration->value != state.value && registration->value != ZEP_STATE_ANY)) {
                continue;
            }
            step_.callbacks.push_back(tests::lines::State(client->number, tests::ClientName(state.number), state.size,
                                                          state.value, state.reserved, 0));
            const ULONG answer = StateAnswer(client->number, state.value);
            if (answer != 0) {
                client->value = answer;
                if (!QueueFollowUp(client, answer)) {
                    return false;
                }
            }
        }
    }
    return true;
}

bool ReferenceModel::QueueFollowUp(const Ref& subscriber, ULONG state)
{
    const std::string name = "NotifierEvtWorkItemNotifyStates: ";
    NTSTATUS status = Create(kState);
    if (!NT_SUCCESS(status)) {
        Fails("1 " + name + "WdfObjectCreate for state notification", status);
        return false;
    }
    const Ref record = Make("state", subscriber);
    if (!HasContext(kState)) {
        Report("6/153 " + name + "State context, <state>");
        Delete(record);
        return false;
    }
    record->number = subscriber->number;
    record->value = state;  // and size 0
    status = Acquire("states");
    if (status != STATUS_SUCCESS) {
        Fails("1 " + name + "WdfWaitLockAcquire for wdfWaitLockStatesCollection,", status);
        Delete(record);
        return false;
    }
    status = Add(states_, record);
    if (!NT_SUCCESS(status)) {
        Fails("1 " + name + "WdfCollectionAdd for wdfCollectionZepStates", status);
        Delete(record);
    } else {
        Enqueue("states");
    }
    Release("states");
    return true;
}

}  // namespace fault_injection
