// Predictions for the crash-dump bridge.
#include "tests/fault_injection/reference_model.h"

namespace fault_injection {
namespace {

void MarkAnnounced(ModelObject& client)
{
    client.added = 1;
    client.refresh = client.value == 0 ? 1 : client.refresh;
}

}  // namespace

std::string DescriptorOf(const ModelObject& client)
{
    return tests::lines::Descriptor(tests::ClientName(client.number), "name", "description",
                                    (client.traits & kApps) != 0, client.hasEntries,
                                    client.hasEntries ? kEntryCount : 0);
}

void ReferenceModel::Attach(bool record)
{
    const std::string in = "Notifier_WpcdClientInit: ";
    Require(record, "2 " + in + "ZepClientAdd or ZepClientRemove is NULL!", STATUS_INVALID_PARAMETER);
    FindDriver(in, "2/212 ");
    Require(wpcd_ == nullptr, "2 " + in + "WPCD client already registered?!", STATUS_OBJECT_NAME_EXISTS);
    wpcd_ = Create(kWpcdContextName, {.kind = "crash-dump driver"}, driver_, "1 " + in + "WdfObjectCreate",
                   "7 " + in + "WPCD client context");
}

void ReferenceModel::Detach()
{
    const std::string in = "Notifier_WpcdClientDeInit: ";
    FindDriver(in);
    const Lock lock(*this, "clients", in);
    Require(wpcd_ != nullptr, "2 " + in + "CDI client is not already registered?!", STATUS_OBJECT_NAME_NOT_FOUND);
    Delete(wpcd_);
    wpcd_ = nullptr;
}

void ReferenceModel::AddClients()
{
    const std::string in = "NotifierEvtWorkItemWpcdClientAdd: ";
    FindDriverOfRun(in);
    const Lock lock(*this, "clients");  // not examined
    bool isAttached = false;
    if (wpcd_ == nullptr) {
        Report("22 " + in + "Connection to CDI driver is not yet available, will retry later, ZEPN driver");
    } else if (!HasContext(kWpcdContextName)) {
        Report("6 " + in + "WPCD client context, <crash-dump driver>");
    } else {
        isAttached = true;
    }
    for (Ref client = FirstItem(addQueue_); client != nullptr; client = FirstItem(addQueue_)) {
        // With nobody to announce to, the queue is emptied without a word.
        if (isAttached && !HasContext(kClientContextName)) {
            Report("6 " + in + "Client context, " + Name(*client));
        } else if (isAttached) {
            Announce(client);
        }
        addQueue_->items.erase(addQueue_->items.begin());
    }
}

void ReferenceModel::Announce(const Ref& client)
{
    step_.callbacks.push_back(tests::lines::FromTable(0, DescriptorOf(*client)));
    const NTSTATUS answer = AddAnswer(client->number);
    if (answer != STATUS_SUCCESS) {
        Report("3 NotifierEvtWorkItemWpcdClientAdd: Add client call to WPCD failed!", answer);
        return;
    }
    const Lock lock(*this, "general");  // not examined either
    MarkAnnounced(*client);
}

void ReferenceModel::RemoveClient()
{
    const std::string in = "NotifierEvtWorkItemWpcdClientRemove: ";
    FindDriverOfRun(in);
    Lock lock(*this, "clients", in);
    const Ref entry = FirstItem(removeQueue_);
    if (entry == nullptr) {
        Report("10 " + in + "<add queue>");  // the other queue's handle
        return;
    }
    if (wpcd_ == nullptr) {
        Remove(removeQueue_, entry);
        Delete(entry);
        return;
    }
    if (!HasContext(kWpcdContextName)) {
        Report("6 " + in + "WPCD client context, <crash-dump driver>");
        lock.Keep();
        return;
    }
    if (!HasContext(kClientContextName)) {
        Report("6 " + in + "Client context, " + Name(*entry));
        return;
    }
    Remove(removeQueue_, entry);
    step_.callbacks.push_back(
        tests::lines::FromTable(0, tests::lines::Withdrawal(tests::ClientName(entry->number), "name", "description")));
    if (const NTSTATUS answer = RemoveAnswer(entry->number); answer != STATUS_SUCCESS) {
        Report("3 NotifierEvtWorkItemWpcdClientAdd: Remove client call to WPCD failed!", answer);
    }
    Delete(entry);
}

void ReferenceModel::Count(bool pointer)
{
    const std::string in = "Notifier_WpcdGetNumSubsystemDescriptors: ";
    Require(pointer, "2 " + in + "NumberDescriptors is NULL", STATUS_INVALID_PARAMETER);
    std::size_t answer = 0;
    const NTSTATUS status = StatusOf([&] {
        FindDriver(in);
        const Lock lock(*this, "clients", in);
        answer = clients_->items.size();
        for (std::size_t index = 0; index < clients_->items.size() && answer != 0; ++index) {
            answer = ClientAt(index, in, "Client object context") != nullptr ? answer : 0;
        }
    });
    step_.callbacks.push_back(tests::lines::Count(answer));
    throw Ended{status};
}

void ReferenceModel::Describe(ULONG capacity, const std::string& null)
{
    const std::string in = "Notifier_WpcdGetAllSubsystemDescriptors: ";
    Require(null != "descriptors", "2 " + in + "Descriptors is NULL?!", STATUS_INVALID_PARAMETER);
    Require(null != "count", "2 " + in + "NumberDescriptors is NULL?!", STATUS_INVALID_PARAMETER);
    std::size_t answer = capacity;
    const NTSTATUS status = StatusOf([&] { FillDescriptors(capacity, answer); });
    step_.callbacks.push_back(tests::lines::Count(answer));
    throw Ended{status};
}

// After a stop the caller's capacity is left as it was, although records may have been filled.
void ReferenceModel::FillDescriptors(ULONG capacity, std::size_t& answer)
{
    const std::string in = "Notifier_WpcdGetAllSubsystemDescriptors: ";
    FindDriver(in);
    const Lock lock(*this, "clients", in);
    const std::size_t count = clients_->items.size();
    if (capacity < count) {
        answer = count;
        Fail("11 " + in + std::to_string(capacity) + ", " + std::to_string(count), STATUS_BUFFER_TOO_SMALL);
    }
    for (std::size_t index = 0; index < count; ++index) {
        const Ref client = ClientAt(index, in, "Client object context");
        if (client == nullptr) {
            return;
        }
        step_.callbacks.push_back(DescriptorOf(*client));
        const Lock general(*this, "general", in);
        MarkAnnounced(*client);
    }
    answer = count;
}

// The names are fixed, whichever forwarder asks.
void ReferenceModel::FindDumpContext(bool record)
{
    Require(record, "2 Notifier_HelperStartDump: A required parameter is NULL.", STATUS_INVALID_PARAMETER);
    FindDriver("2 Notifier_HelperStartDump: WdfGetDriver returned NULL., 0xC0000185",
               "7 Notifier_HelperDumpStart: Driver object context, <driver>, 0xC0000185", STATUS_IO_DEVICE_ERROR);
    Require(wpcd_ != nullptr, "7 Notifier_HelperDumpStart: WPCD (CDI) driver not yet loaded., <driver>",
            STATUS_IO_DEVICE_ERROR);
    if (!HasContext(kWpcdContextName)) {
        Report("6 GetContext: WPCD client context, <crash-dump driver>");
        throw Ended{};
    }
}

void ReferenceModel::Dump(const Operation& operation)
{
    static const std::map<Kind, std::pair<const char*, const char*>> kNames = {
        {Kind::kStartDump, {"Notifier_HelperStartDump", "ZepDumpStart"}},
        {Kind::kAddDumpData, {"Notifier_HelperAddDumpData", "ZepDumpAddDumpData"}},
        {Kind::kStopDump, {"Notifier_HelperStopDump", "ZepDumpStop"}},
        {Kind::kQueryDump, {"Notifier_HelperDumpQueryParam", "ZepDumpQueryParam"}},
        {Kind::kAddTriageData, {"Notifier_HelperDumpAddTriageData", "ZepDumpAddTriageData"}}};
    const auto& [name, callback] = kNames.at(operation.kind);
    const NTSTATUS status = StatusOf([&] { FindDumpContext(operation.null.empty()); });
    Require(NT_SUCCESS(status), std::string("2 ") + name + ": Retrieving the context information failed.", status);
    step_.callbacks.push_back(tests::lines::FromTable(0, tests::lines::Dump(operation.kind, operation.client)));
    const auto answer = static_cast<NTSTATUS>(operation.value);
    Require(NT_SUCCESS(answer), std::string("1 pWpcdClientContext->") + callback + ": Failed with an error code.",
            answer);
    throw Ended{answer};
}

}  // namespace fault_injection
