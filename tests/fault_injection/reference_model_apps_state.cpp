// Predictions for the application-state broadcast, the power callback and the I/O control.
#include "tests/fault_injection/reference_model.h"

namespace fault_injection {

NTSTATUS ReferenceModel::Broadcast()
{
    const std::string name = "Notifier_NotifyAppsState: ";
    if (!Driver("13 " + name + "WdfGetDriver returned NULL?! Returning NULL",
                "13 " + name + "Driver context is NULL?! Returning NULL")) {
        return STATUS_IO_DEVICE_ERROR;
    }
    if (!HasClients()) {
        return STATUS_SUCCESS;
    }
    NTSTATUS status = Acquire("clients");
    if (status != STATUS_SUCCESS) {
        return Fails("1 " + name + kClientsLock, status);
    }
    status = Create("");
    if (!NT_SUCCESS(status)) {
        Release("clients");
        return Fails("1/186 " + name + "WdfObjectCreate", status);
    }
    const Ref parent = Make("general", driver_);
    status = Status("WdfCollectionCreate", kMaking);
    if (!NT_SUCCESS(status)) {
        Delete(parent);
        Release("clients");
        return Fails("1 " + name + "WdfCollectionObjectCreate for for wdfCollectionAttributes", status);
    }
    const Ref answers = Make("collection", parent);
    const auto deleteParent = [&] {  // once; the loop goes on with the collection
        if (!parent->deleted) {
            Delete(parent);
        }
    };
    const std::size_t count = clients_->items.size();
    for (std::size_t index = 0; index < count; ++index) {
        const Ref client = Item(clients_, index);
        if (client == nullptr) {
            Report("5/188 " + name + "WdfCollectionGetItem, " + std::to_string(index) + ", <clients>, " +
                   std::to_string(count));
            continue;
        }
        if (!HasContext(kClient)) {
            Report("6 " + name + "Client context, " + Named(client));
            continue;
        }
        if ((client->traits & kApps) == 0) {
            Report("6 " + name + "ActionCallbackTable.AppsStateNotificationCallback, " + Named(client));
            continue;
        }
        step_.callbacks.push_back(
            tests::lines::AppsState(client->number, ZEP_APPS_STATE_REASON_CHANGED, client->value));
        const ULONG wanted = AppsStateAnswer(client->number, client->value);
        if (wanted == client->value) {
            continue;
        }
        status = Create(kState);
        if (!NT_SUCCESS(status)) {
            Fails("1/191 " + name + "WdfObjectCreate", status);
            continue;
        }
        const Ref record = Make("state", driver_);
        if (!HasContext(kState)) {
            Report("6/192 " + name + "State notification context, <state>");
            deleteParent();  // not the new object
            continue;
        }
        record->number = client->number;
        record->value = wanted;
        record->size = sizeof(ZepState);
        status = Add(answers, record);
        if (!NT_SUCCESS(status)) {
            Fails("1 " + name + "WdfCollectionAdd for wdfClientCollection", status);
            deleteParent();
        }
    }
    Release("clients");
    const std::size_t answerCount = answers->items.size();
    for (std::size_t index = 0; index < answerCount; ++index) {
        const Ref record = Item(answers, index);
        if (record == nullptr) {
            Report("5/194 " + name + "WdfCollectionGetItem, 0, <collection>, " + std::to_string(answerCount));
            continue;
        }
        if (!HasContext(kState)) {
            Report("6/195 " + name + "State notification context, <state>");
            deleteParent();
            continue;
        }
        status = Post({record->number, record->size, record->value, 0});
        if (!NT_SUCCESS(status)) {
            Report("- " + name + "posting the wanted state failed: " + Hex(static_cast<std::uint32_t>(status)));
            deleteParent();
        }
    }
    return status;
}

void ReferenceModel::Sleep()
{
    // A second device registers the routine once more.
    for (unsigned index = 0; index < powerRegistrations_; ++index) {
        LeaveWorkingState();
    }
}

void ReferenceModel::LeaveWorkingState()
{
    (void)Broadcast();
    const std::string name = "13 ZEPReadRegistry: ";
    if (!Gives("WdfGetDriver")) {
        Report(name + "WdfGetDriver returned NULL?!");
        return;
    }
    if (!NT_SUCCESS(Status("WdfDriverOpenParametersRegistryKey", kMaking))) {
        Report(name + "WdfDriverOpenParametersRegistryKey failed with status NULL?!");
        return;
    }
    if (!NT_SUCCESS(Status("WdfRegistryQueryULong", kMaking))) {
        Report(name + "WdfRegistryQueryULong returned NULL?!");
        return;
    }
    (void)Status("KeDelayExecutionThread");
    step_.callbacks.push_back(tests::lines::Wait(kTimeoutMs));
}

NTSTATUS ReferenceModel::Control(ULONG code)
{
    if (!Gives("WdfIoQueueGetDevice")) {
        return Fails("9 NotifierEvtIoDeviceControl: Received device object NULL for this request's queue, <queue>",
                     STATUS_INVALID_DEVICE_REQUEST);
    }
    if (code != IOCTL_ZEPN_NOTIFY_APPS_STATE) {
        Report("- NotifierEvtIoDeviceControl: I/O control " + Hex(code).substr(2) + " is not supported");
        return STATUS_NOT_SUPPORTED;
    }
    return NT_SUCCESS(Broadcast()) ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
}

}  // namespace fault_injection
