// The model's work items, and the crash-dump driver's side.
#include "tests/model/model.h"

#include <algorithm>

namespace model {

// ---- Queued work ----

void Model::Enqueue(Work work)
{
    if (std::find(work_.begin(), work_.end(), work) == work_.end()) {
        work_.push_back(work);
    }
}

void Model::RunOne()
{
    if (work_.empty()) {
        return;
    }
    const Work work = work_.front();
    work_.pop_front();
    if (work == Work::kStates) {
        RunStates();
    } else if (work == Work::kCommands) {
        RunCommands();
    } else if (work == Work::kAnnounce) {
        RunAnnounce();
    } else {
        RunWithdraw();
    }
}

void Model::RunStates()
{
    while (!states_.empty()) {
        const State state = states_.front();
        states_.pop_front();
        for (Client& client : clients_) {
            if (client.who == state.who && bug_ != ModelBug::kNotifiesOfOwnStates) {
                continue;
            }
            for (const Subscription& subscription : client.subscriptions) {
                if (subscription.target != state.who ||
                    (subscription.state != state.state && subscription.state != ZEP_STATE_ANY)) {
                    continue;
                }
                Calls(lines::State(client.who, ClientName(state.who), state.sizeBytes, state.state, state.reserved, 0));
                const std::uint32_t response = scripts_[client.who].OnState(state.who, state.state).value_or(0);
                if (response != 0) {
                    client.state = response;
                    states_.push_back({client.who, 0, response, 0});
                    Enqueue(Work::kStates);
                }
            }
        }
    }
}

void Model::RunCommands()
{
    if (commands_.empty()) {
        return;
    }
    const Command command = commands_.front();
    commands_.pop_front();
    Client* source = Find(command.source);
    const Client* target = command.source == command.target ? nullptr : Find(command.target);
    if (source == nullptr || target == nullptr) {
        outcome_.hangs = true;
        return;
    }
    source->commandsSent += source->birth == command.sourceBirth ? 1 : 0;
    Calls(lines::Command(target->who, command.id, sizeof(ZepCommandInfo), command.argument, ClientName(source->who),
                         source->state, target->state));
    const std::uint32_t state = scripts_[target->who].OnCommand(command.id).value_or(target->state);
    if (state != target->state) {
        (void)Post({target->who, sizeof(ZepState), state, 0});
    }
}

void Model::Announced(Client& client) const
{
    client.announced = true;
    client.refreshPending = client.refreshPending || client.state == 0;
}

void Model::RunAnnounce()
{
    for (const unsigned who : toAnnounce_) {
        if (table_) {
            Calls(lines::FromTable(*table_, DescriptorOf(who)));
            if (sequence_.addAnswer == STATUS_SUCCESS) {
                Announced(*Find(who));
            }
        }
    }
    toAnnounce_.clear();
}

void Model::RunWithdraw()
{
    if (toWithdraw_.empty()) {
        return;
    }
    const ClientScript& script = sequence_.clients[toWithdraw_.front()];
    if (table_) {
        Calls(lines::FromTable(*table_,
                               lines::Withdrawal(ClientName(toWithdraw_.front()), script.name, script.description)));
    }
    toWithdraw_.pop_front();
}

// ---- The crash-dump driver ----

NTSTATUS Model::Attach(const Operation& operation)
{
    if (table_) {
        return STATUS_OBJECT_NAME_EXISTS;
    }
    table_ = operation.value;
    return STATUS_SUCCESS;
}

NTSTATUS Model::Detach()
{
    if (!table_) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    table_.reset();
    return STATUS_SUCCESS;
}

std::string Model::DescriptorOf(unsigned who) const
{
    const ClientScript& script = sequence_.clients[who];
    return lines::Descriptor(ClientName(who), script.name, script.description, script.wantsAppsState,
                             script.entryCount != 0, script.entryCount % 256);
}

NTSTATUS Model::Describe(const Operation& operation)
{
    if (operation.value < clients_.size()) {
        Calls(lines::Count(clients_.size()));
        return STATUS_BUFFER_TOO_SMALL;
    }
    for (Client& client : clients_) {
        Calls(DescriptorOf(client.who));
        Announced(client);
    }
    Calls(lines::Count(clients_.size()));
    return STATUS_SUCCESS;
}

NTSTATUS Model::Dump(const Operation& operation)
{
    if (!table_) {
        return STATUS_IO_DEVICE_ERROR;
    }
    Calls(lines::FromTable(*table_, lines::Dump(operation.kind, operation.client)));
    return sequence_.dumpAnswer;
}

// ---- Internal state ----

InternalState Model::Internal() const
{
    InternalState state;
    for (const Client& client : clients_) {
        state.AddClient(client.who, client.state, client.announced, client.refreshPending, client.subscriptions.size());
        state.subscriptionObjects += client.subscriptions.size();
        state.commandObjects += client.commandsSent;
        state.entryBytes += sequence_.clients[client.who].entryCount * sizeof(ZepDataEntry);
    }
    state.states = states_.size();
    state.commands = commands_.size();
    state.toAnnounce = toAnnounce_.size();
    state.toWithdraw = toWithdraw_.size();
    state.attached = table_.has_value();
    state.clientObjects = clients_.size() + toWithdraw_.size();
    state.stateObjects = states_.size() + broadcastStates_;
    state.commandObjects += commands_.size();
    return state;
}

Sequence Playable(Sequence sequence)
{
    Sequence playable = sequence;
    playable.operations.clear();
    Model model(sequence);
    std::size_t workItems = 0;
    std::vector<Operation> undelivered;  // commands: as long as one may be, none of its two may leave
    for (const Operation& operation : sequence.operations) {
        const auto concerned = [&](const Operation& command) {
            return command.client == operation.client || command.other == operation.client;
        };
        if (!sequence.mayHang &&
            ((operation.kind == Kind::kCommand && operation.client == operation.other) ||
             (operation.kind == Kind::kDeregister && std::any_of(undelivered.begin(), undelivered.end(), concerned)))) {
            continue;
        }
        const std::size_t before = model.UndeliveredCommands();
        const Outcome outcome = model.Do(operation);
        const std::size_t after = model.UndeliveredCommands();
        if (after > before) {
            undelivered.push_back(operation);
        } else {
            undelivered.erase(undelivered.begin(), undelivered.begin() + static_cast<std::ptrdiff_t>(before - after));
        }
        playable.operations.push_back(operation);
        workItems = outcome.hangs ? 0 : outcome.workItems;
        if (outcome.hangs) {
            break;
        }
    }
    if (workItems != 0) {  // nothing stays queued at the end
        playable.operations.push_back({.kind = Kind::kDeliver});
    }
    return playable;
}

}  // namespace model
