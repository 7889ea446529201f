#include "tests/model/model.h"

#include <algorithm>

namespace model {
Model::Model(const Sequence& sequence, ModelBug bug) : sequence_(sequence), bug_(bug)
{
    for (const ClientScript& script : sequence.clients) {
        scripts_.emplace_back(script);
    }
}

Outcome Model::Do(const Operation& operation)
{
    outcome_ = {};
    outcome_.status = StatusOf(operation);
    outcome_.workItems = work_.size();
    return outcome_;
}

NTSTATUS Model::StatusOf(const Operation& operation)
{
    // Refused before all else; only a client's callbacks are looked at after its GUID, which may be taken.
    if (!operation.null.empty() && operation.null != "callbacks") {
        return STATUS_INVALID_PARAMETER;
    }
    switch (operation.kind) {
    case Kind::kRegister:
        return Register(operation);
    case Kind::kDeregister:
        return Deregister(operation);
    case Kind::kSubscribe:
        return Subscribe(operation);
    case Kind::kUnsubscribe:
        return Unsubscribe(operation);
    case Kind::kPost:
        return Post({operation.client, tests::kPostedSize, operation.state, tests::kPostedReserved});
    case Kind::kCommand:
        return Send(operation);
    case Kind::kRunOne:
        RunOne();
        return STATUS_SUCCESS;
    case Kind::kDeliver:
        while (!work_.empty() && !outcome_.hangs) {
            RunOne();
        }
        return STATUS_SUCCESS;
    case Kind::kAttach:
        return Attach(operation);
    case Kind::kDetach:
        return Detach();
    case Kind::kCount:
        Calls(lines::Count(clients_.size()));
        return STATUS_SUCCESS;
    case Kind::kDescribe:
        return Describe(operation);
    case Kind::kControl:
        if (operation.value != IOCTL_ZEPN_NOTIFY_APPS_STATE) {
            return STATUS_NOT_SUPPORTED;
        }
        Broadcast();
        return STATUS_SUCCESS;
    case Kind::kTimeout:
        timeoutMs_ = operation.value;
        return STATUS_SUCCESS;
    case Kind::kSleep:
        Broadcast();
        if (timeoutMs_ != 0) {
            Calls(lines::Wait(timeoutMs_));
        }
        return STATUS_SUCCESS;
    case Kind::kWake:
        return STATUS_SUCCESS;
    default:
        return Dump(operation);
    }
}

// ---- The registry ----

Model::Client* Model::Find(unsigned who)
{
    const auto found = std::find_if(clients_.begin(), clients_.end(), [&](const Client& c) { return c.who == who; });
    return found == clients_.end() ? nullptr : &*found;
}

NTSTATUS Model::Register(const Operation& operation)
{
    if (Find(operation.client) != nullptr) {
        return STATUS_ZEP_NOTIFIER_ALREADY_REGISTERED;
    }
    if (operation.null == "callbacks") {
        return STATUS_INVALID_PARAMETER;
    }
    Client client;
    client.who = operation.client;
    client.birth = ++births_;
    clients_.push_back(client);
    return STATUS_SUCCESS;
}

NTSTATUS Model::Deregister(const Operation& operation)
{
    const Client* client = Find(operation.client);
    if (client == nullptr) {
        return STATUS_NOT_FOUND;
    }
    if (client->announced && bug_ != ModelBug::kForgetsWithdrawals) {
        toWithdraw_.push_back(client->who);
        Enqueue(Work::kWithdraw);
    }
    std::erase(toAnnounce_, client->who);  // a removed client is not announced; states and commands stay queued
    clients_.erase(clients_.begin() + (client - clients_.data()));
    return STATUS_SUCCESS;
}

NTSTATUS Model::Subscribe(const Operation& operation)
{
    Client* subscriber = Find(operation.client);
    if (subscriber == nullptr) {
        return STATUS_ZEP_NOTIFIER_NO_DRIVER;
    }
    subscriber->subscriptions.push_back({operation.other, operation.state});
    const Client* target = Find(operation.other);
    if (target == nullptr || (target->state != operation.state && operation.state != ZEP_STATE_ANY)) {
        return STATUS_SUCCESS;
    }
    // Notified at once, of itself too. The response enters as the subscriber's own state.
    Calls(
        lines::State(subscriber->who, ClientName(target->who), sizeof(ZepState), target->state, 0, subscriber->state));
    const std::uint32_t response =
        scripts_[subscriber->who].OnState(target->who, target->state).value_or(subscriber->state);
    if (response == subscriber->state) {
        return STATUS_SUCCESS;
    }
    return Post({subscriber->who, sizeof(ZepState), response, 0});
}

NTSTATUS Model::Unsubscribe(const Operation& operation)
{
    Client* subscriber = Find(operation.client);
    if (subscriber == nullptr) {
        return STATUS_ZEP_NOTIFIER_NO_DRIVER;
    }
    auto& list = subscriber->subscriptions;
    const auto found = std::find_if(list.begin(), list.end(), [&](const Subscription& subscription) {
        return subscription.target == operation.other && subscription.state == operation.state;
    });
    if (found != list.end()) {
        list.erase(found);
    }
    return STATUS_SUCCESS;
}

// ---- States, commands, broadcasts ----

NTSTATUS Model::Post(const State& state)
{
    Client* client = Find(state.who);
    if (client == nullptr) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    client->state = state.state;
    if (!client->announced || client->refreshPending) {
        client->refreshPending = false;
        toAnnounce_.push_back(client->who);
        Enqueue(Work::kAnnounce);
    }
    states_.push_back(state);
    Enqueue(Work::kStates);
    return STATUS_SUCCESS;
}

NTSTATUS Model::Send(const Operation& operation)
{
    const Client* source = Find(operation.client);
    const Client* target = Find(operation.other);
    if (source == nullptr || target == nullptr || !sequence_.clients[target->who].takesCommands) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    commands_.push_back({source->who, source->birth, target->who, operation.value, tests::CommandArgument(operation)});
    Enqueue(Work::kCommands);
    return STATUS_SUCCESS;
}

void Model::Broadcast()
{
    std::vector<State> wanted;
    for (const Client& client : clients_) {
        if (!sequence_.clients[client.who].wantsAppsState) {
            continue;
        }
        Calls(lines::AppsState(client.who, ZEP_APPS_STATE_REASON_CHANGED, client.state));
        const std::uint32_t state = scripts_[client.who].OnAppsState().value_or(client.state);
        if (state != client.state) {
            wanted.push_back({client.who, sizeof(ZepState), state, 0});
        }
    }
    broadcastStates_ += wanted.size();
    for (const State& state : wanted) {
        (void)Post(state);
    }
}

// ---- The words in which model and driver are compared ----

std::string Outcome::Text() const
{
    std::string text = "  " + tests::Hex(static_cast<std::uint32_t>(status)) + ", " + std::to_string(workItems) +
                       " work items queued" + (hangs ? ", a thread hangs" : "") + "\n";
    for (const std::string& line : called) {
        text += "  " + line + "\n";
    }
    return text;
}

void InternalState::AddClient(unsigned who, std::uint32_t state, bool announced, bool refreshPending,
                              std::size_t subscriptions)
{
    clients += "  " + ClientName(who) + ": state " + std::to_string(state) + (announced ? ", announced" : "") +
               (refreshPending ? ", refresh pending" : "") + ", " + std::to_string(subscriptions) + " subscriptions\n";
}

std::string InternalState::Text() const
{
    return "  queued: " + std::to_string(states) + " states, " + std::to_string(commands) + " commands, " +
           std::to_string(toAnnounce) + " to announce, " + std::to_string(toWithdraw) + " to withdraw; " +
           (attached ? "attached" : "detached") + "\n  alive: " + std::to_string(clientObjects) + " clients, " +
           std::to_string(subscriptionObjects) + " subscriptions, " + std::to_string(stateObjects) + " states, " +
           std::to_string(commandObjects) + " commands, " + std::to_string(entryBytes) + " bytes of entries\n" +
           clients;
}

}  // namespace model
