// Commands from one client to another: posting, and the work item that hands one command to its target per run.
//
// Posting accepts a command once sender and target are known; what fails after that is only reported. A run holds its
// own lock throughout and the clients lock until the target has answered; the answer is posted without it.
#include "driver/delivery/delivery.h"

#include "driver/context/driver_context.h"
#include "driver/context/object_creation.h"
#include "driver/context/operations.h"
#include "driver/registry/registry.h"

static void QueueCommand(const ZEP_NOTIFIER_DRIVER_CONTEXT& context, WDFOBJECT senderObject, const ZepCommand& command)
{
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, ZEP_NOTIFIER_COMMAND_CONTEXT);
    attributes.ParentObject = senderObject;
    WDFOBJECT object;
    ZEP_NOTIFIER_COMMAND_CONTEXT* commandContext;
    NTSTATUS status = CreateObject<Site::kSendCommandObject, Site::kSendCommandContext, GetCommandContext>(
        attributes, object, commandContext);
    if (!NT_SUCCESS(status)) {
        return;
    }
    commandContext->Command = command;
    Report<Site::kSendCommandPosted>(command.SourceGuid.Data1, command.TargetGuid.Data1, command.CommandId,
                                     command.CommandArgument);

    status = WdfWaitLockAcquire(context.wdfWaitLockCommandsCollection, nullptr);
    if (status != STATUS_SUCCESS) {
        Report<Site::kSendCommandLock>(status);
        WdfObjectDelete(object);
        return;
    }
    status = WdfCollectionAdd(context.wdfCollectionZepCommands, object);
    if (!NT_SUCCESS(status)) {
        Report<Site::kSendCommandAdd>(status);
        WdfObjectDelete(object);
    } else {
        WdfWorkItemEnqueue(context.wdfWorkItemNotifyCommands);
    }
    WdfWaitLockRelease(context.wdfWaitLockCommandsCollection);
}

// Takes the oldest command off its queue, with a reference of the driver's own on its object: the sender may have been
// removed, and with it the object's only other reference.
_Requires_lock_held_(context.wdfWaitLockClientsCollection)
static Run TakeCommand(const ZEP_NOTIFIER_DRIVER_CONTEXT& context, ZepCommand& command, WDFOBJECT& object)
{
    const NTSTATUS status = WdfWaitLockAcquire(context.wdfWaitLockCommandsCollection, nullptr);
    if (status != STATUS_SUCCESS) {
        Report<Site::kNotifyCommandsCommandsLock>(status);
        return Run::kEnds;
    }
    object = WdfCollectionGetFirstItem(context.wdfCollectionZepCommands);
    if (object == nullptr) {
        Report<Site::kNotifyCommandsEmpty>(context.wdfCollectionZepCommands);
        WdfWaitLockRelease(context.wdfWaitLockCommandsCollection);
        return Run::kEnds;
    }
    const ZEP_NOTIFIER_COMMAND_CONTEXT* commandContext = GetCommandContext(object);
    if (commandContext == nullptr) {
        Report<Site::kNotifyCommandsCommand>(object);
        // Out of the queue before it is deleted: it would otherwise stay first for ever.
        WdfObjectReference(object);
        WdfCollectionRemove(context.wdfCollectionZepCommands, object);
        WdfObjectDelete(object);
        WdfObjectDereference(object);
        WdfWaitLockRelease(context.wdfWaitLockCommandsCollection);
        return Run::kEnds;
    }
    command = commandContext->Command;
    WdfObjectReference(object);
    WdfCollectionRemove(context.wdfCollectionZepCommands, object);
    WdfWaitLockRelease(context.wdfWaitLockCommandsCollection);
    return Run::kGoesOn;
}

struct Parties {
    const ZEP_NOTIFIER_CLIENT_CONTEXT* sender;
    const ZEP_NOTIFIER_CLIENT_CONTEXT* target;
};

// Looks for both at once and stops when both are known. On purpose a client that is the sender is not looked at as the
// target: a command to oneself never finds its target.
_Requires_lock_held_(context.wdfWaitLockClientsCollection)
static Run FindParties(const ZEP_NOTIFIER_DRIVER_CONTEXT& context, const ZepCommand& command, Parties& parties)
{
    const ULONG count = WdfCollectionGetCount(context.wdfCollectionZepClients);
    for (ULONG index = 0; index < count && (parties.sender == nullptr || parties.target == nullptr); ++index) {
        WDFOBJECT item;
        const ZEP_NOTIFIER_CLIENT_CONTEXT* client = ClientAt<Site::kNotifyCommandsItem, Site::kNotifyCommandsClient>(
            context.wdfCollectionZepClients, index, count, item);
        if (client == nullptr) {
            return Run::kEnds;
        }
        if (GuidsEqual(client->InterfaceGUID, command.SourceGuid)) {
            parties.sender = client;
        } else if (GuidsEqual(client->InterfaceGUID, command.TargetGuid)) {
            parties.target = client;
        }
    }
    return Run::kGoesOn;
}

static void ReportMissingParties(const ZepCommand& command, const Parties& parties)
{
    if (parties.sender == nullptr) {
        Report<Site::kNotifyCommandsNoSource>(command.SourceGuid, STATUS_UNSUCCESSFUL);
    }
    if (parties.target == nullptr) {
        Report<Site::kNotifyCommandsNoTarget>(command.TargetGuid, STATUS_UNSUCCESSFUL);
    }
}

static ClientAnswer CallTarget(const ZepCommand& command, const Parties& parties)
{
    ClientAnswer answer = {};
    const ZEP_NOTIFIER_CLIENT_CONTEXT& target = *parties.target;
    if (target.ActionCallbackTable.CommandCallback == nullptr) {
        Report<Site::kNotifyCommandsNoCallback>(command.TargetGuid, STATUS_SUCCESS);  // On purpose: status 0
        return answer;
    }

    const ZepCommandInfo info = {
        .Size = sizeof(ZepCommandInfo),
        .CommandArgument = command.CommandArgument,
        .SourceGuid = command.SourceGuid,
        .SourceState = ReadULongNoFence(&parties.sender->CurrentState),
    };
    const ULONG before = ReadULongNoFence(&target.CurrentState);
    ULONG wanted = before;
    (void)target.ActionCallbackTable.CommandCallback(target.CallbackContext, command.CommandId, &info, &wanted);
    answer.isNew = wanted != before;
    answer.state = {.Size = sizeof(ZepState), .InterfaceGUID = command.TargetGuid, .State = wanted, .Reserved = 0};
    return answer;
}

// Hands the oldest command to its target, under the clients lock. The run goes on only when a party is missing.
_Requires_lock_held_(context.wdfWaitLockClientsCollection)
static Run DeliverCommand(const ZEP_NOTIFIER_DRIVER_CONTEXT& context, Parties& parties, ClientAnswer& answer)
{
    ZepCommand command;
    WDFOBJECT object;
    if (TakeCommand(context, command, object) == Run::kEnds) {
        return Run::kEnds;
    }

    Run run = FindParties(context, command, parties);
    if (run == Run::kGoesOn) {
        if (parties.sender == nullptr || parties.target == nullptr) {
            ReportMissingParties(command, parties);
            WdfObjectDelete(object);
        } else {
            // On purpose: a command whose parties are both known, delivered or not, stays with its sender, undeleted.
            answer = CallTarget(command, parties);
            run = Run::kEnds;
        }
    }
    WdfObjectDereference(object);
    return run;
}

NTSTATUS Notifier_HelperSendCommand(const ZepCommand* command)
{
    Report<Site::kSendCommandEntered>();
    if (command == nullptr) {
        return ReportFailure<Site::kSendCommandNull>(STATUS_INVALID_PARAMETER);
    }
    const ZEP_NOTIFIER_DRIVER_CONTEXT* context =
        DriverContextOrReport<Site::kSendCommandNoDriver, Site::kSendCommandNoContext>(STATUS_IO_DEVICE_ERROR);
    if (context == nullptr) {
        return STATUS_IO_DEVICE_ERROR;
    }
    WDFOBJECT senderObject = nullptr;
    if (_getClientContextByGUID(&command->SourceGuid, &senderObject) == nullptr) {
        return ReportFailure<Site::kSendCommandNoSource>(command->SourceGuid, STATUS_INVALID_DEVICE_REQUEST);
    }
    const ZEP_NOTIFIER_CLIENT_CONTEXT* target = _getClientContextByGUID(&command->TargetGuid, nullptr);
    if (target == nullptr) {
        return ReportFailure<Site::kSendCommandNoTarget>(command->TargetGuid, STATUS_INVALID_DEVICE_REQUEST);
    }
    if (target->ActionCallbackTable.CommandCallback == nullptr) {
        return ReportFailure<Site::kSendCommandNoCallback>(command->TargetGuid, STATUS_INVALID_DEVICE_REQUEST);
    }

    // On purpose: accepted from here on, whatever becomes of it.
    QueueCommand(*context, senderObject, *command);
    return STATUS_SUCCESS;
}

void NotifierEvtWorkItemNotifyCommands(WDFWORKITEM)
{
    Report<Site::kNotifyCommandsEntered>();
    const ZEP_NOTIFIER_DRIVER_CONTEXT* context =
        DriverContextOrReport<Site::kNotifyCommandsNoDriver, Site::kNotifyCommandsNoContext>();
    if (context == nullptr) {
        return;
    }
    NTSTATUS status = WdfWaitLockAcquire(context->wdfWaitLockNotifyCommandsWorkItem, nullptr);
    if (status != STATUS_SUCCESS) {
        Report<Site::kNotifyCommandsItemLock>(status);
        return;
    }

    // On purpose: one command a run; and the parties are found once for the run, not anew for each pass.
    Parties parties = {.sender = nullptr, .target = nullptr};
    ClientAnswer answer = {};
    Run run;
    do {
        status = WdfWaitLockAcquire(context->wdfWaitLockClientsCollection, nullptr);
        if (status != STATUS_SUCCESS) {
            // On purpose: a hold of the pass before is not given back. Only a framework fault leads here then.
            Report<Site::kNotifyCommandsClientsLock>(status);
            WdfWaitLockRelease(context->wdfWaitLockNotifyCommandsWorkItem);
            return;
        }
        run = DeliverCommand(*context, parties, answer);
        // On purpose: with a party missing the next pass waits for the clients lock that this thread holds. A client
        // that is removed with commands under way, or commands itself, stops command delivery for good.
    } while (run == Run::kGoesOn);
    WdfWaitLockRelease(context->wdfWaitLockClientsCollection);

    // Posting takes the clients lock itself.
    if (answer.isNew) {
        status = Notifier_HelperSendState(&answer.state);
        if (!NT_SUCCESS(status)) {
            Report<Site::kNotifyCommandsPost>(status);
        }
    }
    WdfWaitLockRelease(context->wdfWaitLockNotifyCommandsWorkItem);
}
