// Predictions for states: posting and the work item that delivers them.
#include "tests/fault_injection/reference_model.h"

namespace fault_injection {

void ReferenceModel::Post(const StateRecord& posted)
{
    const std::string in = "Notifier_HelperSendState: ";
    Require(posted.number != 0, "2 " + in + "ZepState is NULL", STATUS_INVALID_PARAMETER);
    FindDriver(in);
    const Ref client = Lookup(posted.number, true);
    Require(client != nullptr, "12 " + in + "Unable to find client with , " + GuidText(posted.number),
            STATUS_INVALID_DEVICE_REQUEST);
    {
        const Lock lock(*this, "general", in);
        client->value = posted.state;  // stays, whatever comes
    }
    if (client->added == 0 || client->refresh != 0) {
        const Lock lock(*this, "clients", in);
        client->refresh = 0;
        Append(addQueue_, client, "1 " + in + "WdfCollectionAdd for wdfCollectionWpcdClientAddQueue");
        Enqueue("add");
    }
    Owned record(*this, Create(kStateContextName, {.kind = "state"}, client, "1 " + in + "WdfObjectCreate",
                               "7 " + in + "Client state context"));
    record->number = posted.number;
    record->value = posted.state;
    record->size = posted.size;
    record->reserved = posted.reserved;
    const Lock lock(*this, "states", in);
    Append(states_, *record, "1 " + in + "WdfCollectionAdd for wdfCollectionZepStates", kExact);
    record.Keep();
    Enqueue("states");
}

// Of a client that was called back.
NTSTATUS ReferenceModel::PostAnswer(const StateRecord& record, const std::string& line)
{
    const NTSTATUS status = StatusOf([&] { Post(record); });
    if (!NT_SUCCESS(status)) {
        Report("- " + line + ": " + Hex(static_cast<std::uint32_t>(status)));
    }
    return status;
}

void ReferenceModel::NotifyStates()
{
    const std::string in = "NotifierEvtWorkItemNotifyStates: ";
    FindDriverOfRun(in);
    const Lock item(*this, "states item", in);
    const Lock clients(*this, "clients", in);
    for (;;) {
        Ref record;
        {
            const Lock lock(*this, "states", in);
            record = FirstItem(states_);
            if (record == nullptr) {
                Report("10 " + in + "<states>");
                return;
            }
            if (!HasContext(kStateContextName)) {
                Report("6/145 " + in + "State context, <state>");
                return;  // it stays first in the queue
            }
            Remove(states_, record);
        }
        DeliverState(*record);
        Delete(record);
    }
}

// Every failure but a refused append of a follow-up ends the run.
void ReferenceModel::DeliverState(const ModelObject& state)
{
    const std::string in = "NotifierEvtWorkItemNotifyStates: ";
    for (std::size_t index = 0; index < clients_->items.size(); ++index) {
        const Ref client = ClientAt(index, in, "Client context", "5/146 ");
        if (client == nullptr) {
            throw Ended{};
        }
        if (client->number == state.number) {
            continue;
        }
        const Ref registrations = client->registrations.lock();
        for (std::size_t at = 0; at < registrations->items.size(); ++at) {
            const Ref registration = SubscriptionAt(registrations, at, in, "5/148 ");
            if (registration == nullptr) {
                throw Ended{};
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
                QueueFollowUp(client, answer);
            }
        }
    }
}

void ReferenceModel::QueueFollowUp(const Ref& subscriber, ULONG state)
{
    const std::string in = "NotifierEvtWorkItemNotifyStates: ";
    (void)Make("WdfObjectCreate", "1 " + in + "WdfObjectCreate for state notification", kStateContextName);
    Owned record(*this, MakeObject({.kind = "state"}, subscriber));
    if (!HasContext(kStateContextName)) {
        Report("6/153 " + in + "State context, <state>");
        throw Ended{};
    }
    record->number = subscriber->number;
    record->value = state;  // and size 0
    const Lock lock(*this, "states", in, "WdfWaitLockAcquire for wdfWaitLockStatesCollection,");
    const NTSTATUS status = Add(states_, *record);
    if (!NT_SUCCESS(status)) {
        Report("1 " + in + "WdfCollectionAdd for wdfCollectionZepStates", status);
        return;
    }
    record.Keep();
    Enqueue("states");
}

}  // namespace fault_injection
