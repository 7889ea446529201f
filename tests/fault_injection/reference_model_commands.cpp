// Predictions for commands: posting, the work item that delivers one, and the order in which work items run.
#include "tests/fault_injection/reference_model.h"

namespace fault_injection {

void ReferenceModel::Send(ULONG sender, ULONG target, ULONG id)
{
    const std::string in = "Notifier_HelperSendCommand: ";
    Require(sender != 0, "2 " + in + "ZepCommand is NULL", STATUS_INVALID_PARAMETER);
    FindDriver(in);
    const Ref source = Lookup(sender, true);
    Require(source != nullptr, "12/160 " + in + "Unable to find client with , " + GuidText(sender),
            STATUS_INVALID_DEVICE_REQUEST);
    const Ref peer = Lookup(target, true);
    Require(peer != nullptr, "12/161 " + in + "Unable to find client with , " + GuidText(target),
            STATUS_INVALID_DEVICE_REQUEST);
    Require((peer->traits & kCommands) != 0,
            "12 " + in + "No command callback function for target client with , " + GuidText(target),
            STATUS_INVALID_DEVICE_REQUEST);
    (void)StatusOf([&] { QueueCommand(source, target, id); });  // succeeds, whatever became of it
}

void ReferenceModel::QueueCommand(const Ref& client, ULONG target, ULONG id)
{
    const std::string in = "Notifier_HelperSendCommand: ";
    Owned command(*this, Create(kCommandContextName, {.kind = "command"}, client, "1 " + in + "WdfObjectCreate",
                                "7 Notifier_HelperSendcommand: Client command context"));
    command->number = client->number;
    command->other = target;
    command->value = id;
    const Lock lock(*this, "commands", in);
    Append(commands_, *command, "1 " + in + "WdfCollectionAdd for wdfCollectionZepCommands");
    command.Keep();
    Enqueue("commands");
}

void ReferenceModel::NotifyCommands()
{
    const std::string in = "NotifierEvtWorkItemNotifyCommands: ";
    FindDriverOfRun(in);
    const Lock item(*this, "commands item", in);
    Lock clients(*this, "clients", in);
    Ref command;
    {
        const Lock lock(*this, "commands", in);
        command = FirstItem(commands_);
        if (command == nullptr) {
            Report("10 " + in + "<commands>");
            return;
        }
        const bool hasContext = HasContext(kCommandContextName);
        Remove(commands_, command);
        if (!hasContext) {
            Report("6 " + in + "Command context, <command>");
            Delete(command);
            return;
        }
    }
    DeliverCommand(command, clients);
}

void ReferenceModel::DeliverCommand(const Ref& command, Lock& clients)
{
    const std::string in = "NotifierEvtWorkItemNotifyCommands: ";
    Ref sender;
    Ref target;
    const std::size_t count = clients_->items.size();
    for (std::size_t index = 0; index < count && (sender == nullptr || target == nullptr); ++index) {
        const Ref client = ClientAt(index, in);
        if (client == nullptr) {
            return;
        }
        if (client->number == command->number) {
            sender = client;
        } else if (client->number == command->other) {
            target = client;
        }
    }
    if (sender == nullptr) {
        Report("12/178 " + in + "Unable to find client with , " + GuidText(command->number), STATUS_UNSUCCESSFUL);
    }
    if (target == nullptr) {
        Report("12/179 " + in + "Unable to find client with , " + GuidText(command->other), STATUS_UNSUCCESSFUL);
    }
    if (sender == nullptr || target == nullptr) {
        Delete(command);
        // The run begins anew with the lock held: the thread waits for itself, unless the lock is refused.
        clients.Keep();
        const Lock again(*this, "clients", in);
        return;
    }
    if ((target->traits & kCommands) == 0) {
        Report("12 " + in + "Target Client has NULL CommandCallback(), " + GuidText(command->other), STATUS_SUCCESS);
        return;
    }
    step_.callbacks.push_back(tests::lines::Command(target->number, command->value, sizeof(ZepCommandInfo),
                                                    tests::CommandArgument({}), tests::ClientName(command->number),
                                                    sender->value, target->value));
    const ULONG wanted = CommandAnswer(command->value, target->value);
    const bool posts = wanted != target->value;
    const ULONG number = target->number;
    clients.Release();
    if (posts) {
        (void)PostAnswer({number, sizeof(ZepState), wanted, 0}, in + "posting the target's new state failed");
    }
    // The command stays with its sender.
}

void ReferenceModel::Deliver()
{
    while (!queue_.empty() && !step_.ends) {
        const std::string item = queue_.front();
        queue_.erase(queue_.begin());
        (void)StatusOf([&] {
            if (item == "add") {
                AddClients();
            } else if (item == "remove") {
                RemoveClient();
            } else if (item == "states") {
                NotifyStates();
            } else {
                NotifyCommands();
            }
        });
        if (!held_.empty() && !step_.ends) {
            step_.violations.emplace_back("lock kept");
            step_.ends = true;
        }
    }
}

}  // namespace fault_injection
