// Predictions for driver entry, device add, clean-up, unload, file handles.
#include "tests/fault_injection/reference_model.h"

namespace fault_injection {

NTSTATUS ReferenceModel::Load()
{
    const NTSTATUS bound = Status("WdfVersionBind");
    if (bound != STATUS_SUCCESS) {
        return bound;
    }
    const NTSTATUS status = Status("WdfDriverCreate", kMaking);
    if (!NT_SUCCESS(status)) {
        // The trace providers stay registered: a known oddity.
        step_.violations.emplace_back("registration at unload");
        step_.violations.emplace_back("registration at unload");
        return Fails("1 DriverEntry: WdfDriverCreate", status);
    }
    driver_ = std::make_shared<ModelObject>();
    driver_->kind = "driver";
    loaded_ = true;
    return status;  // as it is
}

NTSTATUS ReferenceModel::AddDevice()
{
    if (!HasContext("ZEP_NOTIFIER_DRIVER_CONTEXT")) {
        Report("6 NotifierEvtDeviceAdd: Driver object context, <driver>");
        return STATUS_IO_DEVICE_ERROR;
    }
    NTSTATUS status = Status("WdfDeviceInitAssignName", kMaking);
    if (!NT_SUCCESS(status)) {
        return Fails("1 NotifierEvtDeviceAdd: WdfDeviceInitAssignName", status);
    }
    status = Status("WdfDeviceCreate", kMaking);
    if (!NT_SUCCESS(status)) {
        return Fails("1 NotifierEvtDeviceAdd: WdfDeviceCreate", status);
    }
    device_ = true;
    others_["device"] = 1;
    status = FillDevice();
    if (!NT_SUCCESS(status)) {
        EndDevice();
    }
    return status;
}

NTSTATUS ReferenceModel::FillDevice()
{
    const std::string name = "1 NotifierEvtDeviceAdd: ";
    NTSTATUS status = Status("WdfDeviceCreateSymbolicLink", kMaking);
    if (!NT_SUCCESS(status)) {
        return Fails(name + "WdfDeviceCreateSymbolicLink", status);
    }
    status = Status("WdfIoQueueCreate", kMaking);
    if (!NT_SUCCESS(status)) {
        return Fails(name + "WdfIoQueueCreate", status);
    }
    others_["queue"] = 1;
    fields_.insert("queue");
    const std::pair<const char*, Ref*> kCollections[] = {{"wdfCollectionWpcdClientAddQueue", &addQueue_},
                                                         {"wdfCollectionWpcdClientRemoveQueue", &removeQueue_},
                                                         {"wdfCollectionZepClients", &clients_},
                                                         {"wdfCollectionZepStates", &states_},
                                                         {"wdfCollectionZepCommands", &commands_}};
    for (const auto& [text, collection] : kCollections) {
        status = Status("WdfCollectionCreate", kMaking);
        if (!NT_SUCCESS(status)) {
            // The framework clears the field, also that of an earlier device.
            *collection = nullptr;
            fields_.erase(text);
            return Fails(name + "WdfCollectionObjectCreate for for " + text, status);
        }
        *collection = Make("collection", driver_);
        fields_.insert(text);
    }
    for (const char* text : {"client add", "client remove", "client state notify", "client notify command"}) {
        status = Status("WdfWorkItemCreate", kMaking);
        if (!NT_SUCCESS(status)) {
            return Fails(name + "WdfWorkItemCreate for " + text + " work item", status);
        }
        ++others_["work item"];
        fields_.insert(text);
    }
    for (const char* text : {"General", "ClientsCollection", "StatesCollection", "CommandsCollection",
                             "NotifyStatesWorkItem", "NotifyCommandsWorkItem", "NotifyAppsStateWorkItem"}) {
        status = Status("WdfWaitLockCreate", kMaking);
        if (!NT_SUCCESS(status)) {
            locks_.erase(text);
            fields_.erase(text);
            return Fails(name + "WdfWaitLockCreate for wdfWaitLock" + text, status);
        }
        locks_.insert(text);
        fields_.insert(text);
        ++others_["wait lock"];
    }
    for (const char* call : {"WdfDeviceCreateDeviceInterface", "WdfDeviceAddQueryInterface"}) {
        for (const char* text : {"WPCD", "Helper"}) {
            status = Status(call, kMaking);
            if (!NT_SUCCESS(status)) {
                return Fails(name + call + " for " + text + " interface", status);
            }
        }
    }
    status = Status("ExCreateCallback", kMaking);
    if (!NT_SUCCESS(status)) {
        return Fails(name + "ExCreateCallback for Power state callback", status);
    }
    ++powerOpens_;
    powerObject_ = true;
    powerCallback_ = Gives("ExRegisterCallback");
    if (!powerCallback_) {
        --powerOpens_;
        powerObject_ = false;
        return STATUS_UNSUCCESSFUL;  // silently
    }
    ++powerRegistrations_;
    ++references_;
    return STATUS_SUCCESS;
}

// What hangs from the device goes with it; collections and locks are the driver's.
void ReferenceModel::EndDevice()
{
    Cleanup();
    for (const char* name : {"device", "queue", "work item"}) {
        others_.erase(name);
    }
    device_ = false;
    started_ = false;
}

bool ReferenceModel::HasClients() const
{
    return locks_.contains("ClientsCollection") && clients_ != nullptr;
}

void ReferenceModel::Cleanup()
{
    const std::string name = "NotifierClientCleanup: ";
    if (!Driver("2 " + name + "WdfGetDriver returned NULL?!, 0xC0000185",
                "7 " + name + "Driver object context, <driver>, 0xC0000185")) {
        return;
    }
    if (!HasClients()) {
        return;
    }
    const NTSTATUS status = Acquire("clients");
    if (status != STATUS_SUCCESS) {
        Fails("1 " + name + "WdfWaitLockAcquire for wdfWaitLockClientsCollection", status);
        return;
    }
    while (!clients_->items.empty()) {
        const Ref client = FirstItem(clients_);
        if (client == nullptr) {
            break;
        }
        if (!HasContext("ZEP_NOTIFIER_CLIENT_CONTEXT")) {
            Report("6 " + name + "Client object context, <client " + std::to_string(client->number) + ">");
            break;
        }
        poolBlocks_ -= client->hasEntries ? 1 : 0;
        Remove(clients_, client);
        const Ref registrations = client->registrations.lock();
        while (!registrations->items.empty()) {
            const Ref item = FirstItem(registrations);
            if (item == nullptr) {
                Report("5 " + name + "WdfCollectionGetFirstItem, 0, <collection>, " +
                       std::to_string(registrations->items.size()));
                break;
            }
            Remove(registrations, item);
            DeleteRemoved(item);
        }
        Delete(registrations);
        Delete(client);
    }
    Release("clients");
}

void ReferenceModel::Unload()
{
    if (!HasContext("ZEP_NOTIFIER_DRIVER_CONTEXT")) {
        Report("13 NotifierEvtDriverUnload: Driver context is NULL?!");
    } else {
        powerRegistrations_ -= powerCallback_ ? 1 : 0;
        powerOpens_ -= powerObject_ ? 1 : 0;
    }
    // What an earlier device registered, and everything when there is no context to find it in, stays.
    step_.violations.insert(step_.violations.end(), powerRegistrations_, "registration at unload");
    step_.violations.insert(step_.violations.end(), powerOpens_, "reference leak");
    if (references_ == 0) {
        step_.violations.emplace_back("reference underflow");
    } else if (references_ > 1) {
        step_.violations.emplace_back("reference leak");  // of the driver object, which the framework deletes twice
        ++secondDeletes_;
    }
    step_.violations.insert(step_.violations.end(), poolBlocks_, "leak");
    loaded_ = false;
    driver_.reset();
}

NTSTATUS ReferenceModel::Open()
{
    const bool strikes =
        Strikes("WdfObjectAllocateContext", "", {FaultKind::kError, FaultKind::kInforms, FaultKind::kNullOutput});
    NTSTATUS status = STATUS_SUCCESS;
    if (strikes && fault_->form == FaultKind::kError) {
        status = Fails("1 NotifierEvtDeviceFileCreate: WdfObjectAllocateContext", fault_->Status());
    } else if (strikes && fault_->form == FaultKind::kInforms) {
        status = fault_->Status();  // the open succeeds with it
    } else if (strikes) {
        status = Fails("9 NotifierEvtDeviceFileCreate: Received context pointer NULL from WdfObjectAllocateContext, "
                       "<file object>",
                       STATUS_IO_DEVICE_ERROR);
    }
    file_ = NT_SUCCESS(status);
    if (file_) {
        others_["file object"] = 1;
    }
    return status;
}

void ReferenceModel::Close()
{
    if (!HasContext("ZEP_NOTIFIER_CLIENT_CONTEXT")) {
        Report("6 NotifierEvtDeviceFileClose: File handle context, <file object>");
    }
    file_ = false;
    others_.erase("file object");
}

}  // namespace fault_injection
