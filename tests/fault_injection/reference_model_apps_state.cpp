// Predictions for the application-state broadcast, the power callback and the I/O control.
#include "tests/fault_injection/reference_model.h"

namespace fault_injection {

// Failures of single clients do not end it: its status is the last one that it met.
void ReferenceModel::Broadcast()
{
    const std::string in = "Notifier_NotifyAppsState: ";
    FindDriverOfRun(in, " Returning NULL");
    if (!HasClients()) {
        return;
    }
    Lock lock(*this, "clients", in);
    (void)Make("WdfObjectCreate", "1/186 " + in + "WdfObjectCreate");
    Owned parent(*this, MakeObject({.kind = "general"}, driver_));
    (void)Make("WdfCollectionCreate", "1 " + in + "WdfCollectionObjectCreate for for wdfCollectionAttributes");
    parent.Keep();
    const Ref answers = MakeObject({.kind = "collection"}, *parent);
    const auto deleteParent = [&] {  // once; the loop goes on with the collection
        if (!parent->deleted) {
            Delete(*parent);
        }
    };
    NTSTATUS last = STATUS_SUCCESS;
    const std::size_t count = clients_->items.size();
    for (std::size_t index = 0; index < count; ++index) {
        const Ref client = ClientAt(index, in, "Client context", "5/188 ");
        if (client == nullptr) {
            continue;
        }
        if ((client->traits & kApps) == 0) {
            Report("6 " + in + "ActionCallbackTable.AppsStateNotificationCallback, " + Name(*client));
            continue;
        }
        step_.callbacks.push_back(
            tests::lines::AppsState(client->number, ZEP_APPS_STATE_REASON_CHANGED, client->value));
        const ULONG wanted = AppsStateAnswer(client->number, client->value);
        if (wanted == client->value) {
            continue;
        }
        last = StatusOf([&] { (void)Make("WdfObjectCreate", "1/191 " + in + "WdfObjectCreate", kStateContextName); });
        if (!NT_SUCCESS(last)) {
            continue;
        }
        const Ref record = MakeObject({.kind = "state"}, driver_);
        if (!HasContext(kStateContextName)) {
            Report("6/192 " + in + "State notification context, <state>");
            deleteParent();  // not the new object
            continue;
        }
        record->number = client->number;
        record->value = wanted;
        record->size = sizeof(ZepState);
        last = StatusOf([&] { Append(answers, record, "1 " + in + "WdfCollectionAdd for wdfClientCollection"); });
        if (!NT_SUCCESS(last)) {
            deleteParent();
        }
    }
    lock.Release();
    const std::size_t answerCount = answers->items.size();
    for (std::size_t index = 0; index < answerCount; ++index) {
        const Ref record = Item(answers, index);
        if (record == nullptr) {
            Report("5/194 " + in + "WdfCollectionGetItem, 0, <collection>, " + std::to_string(answerCount));
            continue;
        }
        if (!HasContext(kStateContextName)) {
            Report("6/195 " + in + "State notification context, <state>");
            deleteParent();
            continue;
        }
        last = PostAnswer({record->number, record->size, record->value, 0}, in + "posting the wanted state failed");
        if (!NT_SUCCESS(last)) {
            deleteParent();
        }
    }
    throw Ended{last};
}

void ReferenceModel::LeaveWorkingState()
{
    (void)StatusOf([this] { Broadcast(); });
    const std::string in = "13 ZEPReadRegistry: ";
    const auto gives = [&](bool isGood, const char* words) {
        if (!isGood) {
            Report(in + words);
        }
        return isGood;
    };
    if (gives(Gives("WdfGetDriver"), "WdfGetDriver returned NULL?!") &&
        gives(NT_SUCCESS(Status("WdfDriverOpenParametersRegistryKey", kMaking)),
              "WdfDriverOpenParametersRegistryKey failed with status NULL?!") &&
        gives(NT_SUCCESS(Status("WdfRegistryQueryULong", kMaking)), "WdfRegistryQueryULong returned NULL?!")) {
        (void)Status("KeDelayExecutionThread");
        step_.callbacks.push_back(tests::lines::Wait(kTimeoutMs));
    }
}

void ReferenceModel::Control(ULONG code)
{
    Require(Gives("WdfIoQueueGetDevice"),
            "9 NotifierEvtIoDeviceControl: Received device object NULL for this request's queue, <queue>",
            STATUS_INVALID_DEVICE_REQUEST);
    if (code != IOCTL_ZEPN_NOTIFY_APPS_STATE) {
        Report("- NotifierEvtIoDeviceControl: I/O control " + Hex(code).substr(2) + " is not supported");
        throw Ended{STATUS_NOT_SUPPORTED};
    }
    if (!NT_SUCCESS(StatusOf([this] { Broadcast(); }))) {
        throw Ended{STATUS_UNSUCCESSFUL};
    }
}

}  // namespace fault_injection
