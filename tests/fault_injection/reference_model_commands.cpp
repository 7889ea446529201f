// Predictions for commands: posting, the work item that delivers one, and the order in which work items run.
#include "tests/fault_injection/reference_model.h"

namespace fault_injection {

NTSTATUS ReferenceModel::Send(ULONG sender, ULONG target, ULONG id)
{
    const std::string name = "Notifier_HelperSendCommand: ";
    if (sender == 0) {
        return Fails("2 " + name + "ZepCommand is NULL", STATUS_INVALID_PARAMETER);
    }
    if (!Driver("2 " + name + "WdfGetDriver returned NULL?!, 0xC0000185",
                "7 " + name + "Driver object context, <driver>, 0xC0000185")) {
        return STATUS_IO_DEVICE_ERROR;
    }
    const Ref source = Lookup(sender, true);
    if (source == nullptr) {
        return Fails("12/160 " + name + "Unable to find client with , " + GuidText(sender),
                     STATUS_INVALID_DEVICE_REQUEST);
    }
    const Ref peer = Lookup(target, true);
    if (peer == nullptr) {
        return Fails("12/161 " + name + "Unable to find client with , " + GuidText(target),
                     STATUS_INVALID_DEVICE_REQUEST);
    }
    if ((peer->traits & kCommands) == 0) {
        return Fails("12 " + name + "No command callback function for target client with , " + GuidText(target),
                     STATUS_INVALID_DEVICE_REQUEST);
    }
    QueueCommand(source, target, id);
    return STATUS_SUCCESS;  // whatever became of it
}

void ReferenceModel::QueueCommand(const Ref& client, ULONG target, ULONG id)
{
    const std::string name = "Notifier_HelperSendCommand: ";
    NTSTATUS status = Create(kCommand);
    if (!NT_SUCCESS(status)) {
        Fails("1 " + name + "WdfObjectCreate", status);
        return;
    }
    const Ref command = Make("command", client);
    if (!HasContext(kCommand)) {
        Delete(command);
        Fails("7 Notifier_HelperSendcommand: Client command context, <command>", STATUS_IO_DEVICE_ERROR);
        return;
    }
    command->number = client->number;
    command->other = target;
    command->value = id;
    status = Acquire("commands");
    if (status != STATUS_SUCCESS) {
        Delete(command);
        Fails("1 " + name + "WdfWaitLockAcquire for wdfWaitLockCommandsCollection", status);
        return;
    }
    status = Add(commands_, command);
    if (!NT_SUCCESS(status)) {
        Fails("1 " + name + "WdfCollectionAdd for wdfCollectionZepCommands", status);
        Delete(command);
    } else {
        Enqueue("commands");
    }
    Release("commands");
}

void ReferenceModel::NotifyCommands()
{
    const std::string name = "NotifierEvtWorkItemNotifyCommands: ";
    if (!Driver("13 " + name + "WdfGetDriver returned NULL?!", "13 " + name + "Driver context is NULL?!")) {
        return;
    }
    NTSTATUS status = Acquire("commands item");
    if (status != STATUS_SUCCESS) {
        Fails("1 " + name + "WdfWaitLockAcquire for wdfWaitLockNotifyCommandsWorkItem", status);
        return;
    }
    Ref sender;
    Ref target;
    bool clientsHeld = false;
    do {
        // In a second pass the thread waits for the lock that it holds: the self-wait.
        status = Acquire("clients");
        if (step_.ends) {
            return;
        }
        if (status != STATUS_SUCCESS) {
            Fails("1 " + name + kClientsLock, status);
            Release("commands item");
            return;
        }
        clientsHeld = true;
    } while (DeliverCommand(sender, target, clientsHeld));
    if (clientsHeld) {
        Release("clients");
    }
    Release("commands item");
}

// Whether the run goes back to its beginning: when a party is missing.
bool ReferenceModel::DeliverCommand(Ref& sender, Ref& target, bool& clientsHeld)
{
    const std::string name = "NotifierEvtWorkItemNotifyCommands: ";
    NTSTATUS status = Acquire("commands");
    if (status != STATUS_SUCCESS) {
        Fails("1 " + name + "WdfWaitLockAcquire for wdfWaitLockCommandsCollection", status);
        return false;
    }
    const Ref command = FirstItem(commands_);
    if (command == nullptr) {
        Report("10 " + name + "<commands>");
        Release("commands");
        return false;
    }
    if (!HasContext(kCommand)) {
        Report("6 " + name + "Command context, <command>");
        Remove(commands_, command);
        Delete(command);
        Release("commands");
        return false;
    }
    Remove(commands_, command);
    Release("commands");
    const std::size_t count = clients_->items.size();
    for (std::size_t index = 0; index < count && (sender == nullptr || target == nullptr); ++index) {
        const Ref item = Item(clients_, index);
        if (item == nullptr) {
            Report("5 " + name + "WdfCollectionGetItem, " + std::to_string(index) + ", <clients>, " +
                   std::to_string(count));
            return false;
        }
        if (!HasContext(kClient)) {
            Report("6 " + name + "Client context, " + Named(item));
            return false;
        }
        if (item->number == command->number) {
            sender = item;
        } else if (item->number == command->other) {
            target = item;
        }
    }
    if (sender == nullptr) {
        Fails("12/178 " + name + "Unable to find client with , " + GuidText(command->number), STATUS_UNSUCCESSFUL);
    }
    if (target == nullptr) {
        Fails("12/179 " + name + "Unable to find client with , " + GuidText(command->other), STATUS_UNSUCCESSFUL);
    }
    if (sender == nullptr || target == nullptr) {
        Delete(command);
        return true;
    }
    if ((target->traits & kCommands) == 0) {
        Fails("12 " + name + "Target Client has NULL CommandCallback(), " + GuidText(command->other), STATUS_SUCCESS);
        return false;
    }
    step_.callbacks.push_back(tests::lines::Command(target->number, command->value, sizeof(ZepCommandInfo),
                                                    tests::CommandArgument({}), tests::ClientName(command->number),
                                                    sender->value, target->value));
    const ULONG wanted = CommandAnswer(command->value, target->value);
    const bool posts = wanted != target->value;
    const ULONG number = target->number;
    Release("clients");
    clientsHeld = false;
    if (posts) {
        status = Post({number, sizeof(ZepState), wanted, 0});
        if (!NT_SUCCESS(status)) {
            Report("- " + name + "posting the target's new state failed: " + Hex(static_cast<std::uint32_t>(status)));
        }
    }
    return false;  // the command stays with its sender
}

void ReferenceModel::Deliver()
{
    while (!queue_.empty() && !step_.ends) {
        const std::string item = queue_.front();
        queue_.erase(queue_.begin());
        if (item == "add") {
            AddClients();
        } else if (item == "remove") {
            RemoveClient();
        } else if (item == "states") {
            NotifyStates();
        } else {
            NotifyCommands();
        }
        if (!held_.empty() && !step_.ends) {
            step_.violations.emplace_back("lock kept");
            step_.ends = true;
        }
    }
}

}  // namespace fault_injection
