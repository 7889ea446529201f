// Predictions for driver entry, device add, clean-up, unload, file handles.
#include "tests/fault_injection/reference_model.h"

namespace fault_injection {

void ReferenceModel::Load()
{
    if (const NTSTATUS bound = Status("WdfVersionBind"); bound != STATUS_SUCCESS) {
        throw Ended{bound};
    }
    const NTSTATUS status = Status("WdfDriverCreate", kMaking);
    if (!NT_SUCCESS(status)) {
        // The trace providers stay registered: a known oddity.
        step_.violations.insert(step_.violations.end(), 2, "registration at unload");
        Fail("1 DriverEntry: WdfDriverCreate", status);
    }
    driver_ = std::make_shared<ModelObject>(ModelObject{{.kind = "driver"}});
    loaded_ = true;
    throw Ended{status};  // as it is
}

void ReferenceModel::AddDevice()
{
    const std::string in = "NotifierEvtDeviceAdd: ";
    if (!HasContext(kDriverContextName)) {
        Report("6 " + in + "Driver object context, <driver>");
        throw Ended{};
    }
    (void)Make("WdfDeviceInitAssignName", "1 " + in + "WdfDeviceInitAssignName");
    (void)Make("WdfDeviceCreate", "1 " + in + "WdfDeviceCreate");
    device_ = true;
    others_["device"] = 1;
    try {
        FillDevice();
    } catch (const Ended&) {
        EndDevice();
        throw;
    }
}

void ReferenceModel::FillDevice()
{
    const std::string in = "1 NotifierEvtDeviceAdd: ";
    (void)Make("WdfDeviceCreateSymbolicLink", in + "WdfDeviceCreateSymbolicLink");
    (void)Make("WdfIoQueueCreate", in + "WdfIoQueueCreate");
    others_["queue"] = 1;
    fields_.insert("queue");
    for (const auto& [text, collection] : {std::pair("wdfCollectionWpcdClientAddQueue", &addQueue_),
                                           {"wdfCollectionWpcdClientRemoveQueue", &removeQueue_},
                                           {"wdfCollectionZepClients", &clients_},
                                           {"wdfCollectionZepStates", &states_},
                                           {"wdfCollectionZepCommands", &commands_}}) {
        // When it fails the framework clears the field, also that of an earlier device.
        *collection = nullptr;
        fields_.erase(text);
        (void)Make("WdfCollectionCreate", in + "WdfCollectionObjectCreate for for " + text);
        *collection = MakeObject({.kind = "collection"}, driver_);
        fields_.insert(text);
    }
    for (const char* text : {"client add", "client remove", "client state notify", "client notify command"}) {
        (void)Make("WdfWorkItemCreate", in + "WdfWorkItemCreate for " + text + " work item");
        ++others_["work item"];
        fields_.insert(text);
    }
    for (const char* text : {"General", "ClientsCollection", "StatesCollection", "CommandsCollection",
                             "NotifyStatesWorkItem", "NotifyCommandsWorkItem", "NotifyAppsStateWorkItem"}) {
        locks_.erase(text);
        fields_.erase(text);
        (void)Make("WdfWaitLockCreate", in + "WdfWaitLockCreate for wdfWaitLock" + text);
        locks_.insert(text);
        fields_.insert(text);
        ++others_["wait lock"];
    }
    for (const char* call : {"WdfDeviceCreateDeviceInterface", "WdfDeviceAddQueryInterface"}) {
        for (const char* text : {"WPCD", "Helper"}) {
            (void)Make(call, in + call + " for " + text + " interface");
        }
    }
    (void)Make("ExCreateCallback", in + "ExCreateCallback for Power state callback");
    powerCallback_ = Gives("ExRegisterCallback");
    powerObject_ = powerCallback_;  // dropped when nothing was registered
    if (!powerCallback_) {
        throw Ended{STATUS_UNSUCCESSFUL};  // silently
    }
    ++powerOpens_;
    ++powerRegistrations_;
    ++references_;
}

// What hangs from the device goes with it; collections and locks are the driver's.
void ReferenceModel::EndDevice()
{
    (void)StatusOf([this] { Cleanup(); });
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
    const std::string in = "NotifierClientCleanup: ";
    FindDriver(in);
    if (!HasClients()) {
        return;
    }
    const Lock lock(*this, "clients", in);
    while (!clients_->items.empty()) {
        const Ref client = FirstItem(clients_);
        if (client == nullptr) {
            break;
        }
        if (!HasContext(kClientContextName)) {
            Report("6 " + in + "Client object context, " + Name(*client));
            break;
        }
        poolBlocks_ -= client->hasEntries ? 1 : 0;
        Remove(clients_, client);
        (void)DropRegistrations(client, in);
        Delete(client);
    }
}

void ReferenceModel::Unload()
{
    if (!HasContext(kDriverContextName)) {
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

void ReferenceModel::Open()
{
    constexpr FaultKind kAllocating[] = {FaultKind::kError, FaultKind::kInforms, FaultKind::kNullOutput};
    const bool isInjected = Injects("WdfObjectAllocateContext", "", kAllocating);
    NTSTATUS status = STATUS_SUCCESS;
    if (isInjected && fault_->form == FaultKind::kNullOutput) {
        Fail("9 NotifierEvtDeviceFileCreate: Received context pointer NULL from WdfObjectAllocateContext, "
             "<file object>",
             STATUS_IO_DEVICE_ERROR);
    } else if (isInjected) {
        status = fault_->Status();
        Require(NT_SUCCESS(status), "1 NotifierEvtDeviceFileCreate: WdfObjectAllocateContext", status);
    }
    file_ = true;
    others_["file object"] = 1;
    throw Ended{status};  // as it is
}

void ReferenceModel::Close()
{
    if (!HasContext(kClientContextName)) {
        Report("6 NotifierEvtDeviceFileClose: File handle context, <file object>");
    }
    file_ = false;
    others_.erase("file object");
}

}  // namespace fault_injection
