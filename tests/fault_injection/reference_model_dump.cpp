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

NTSTATUS ReferenceModel::Attach(bool record)
{
    const std::string name = "Notifier_WpcdClientInit: ";
    if (!record) {
        return Fails("2 " + name + "ZepClientAdd or ZepClientRemove is NULL!", STATUS_INVALID_PARAMETER);
    }
    if (!Driver("2/212 " + name + "WdfGetDriver returned NULL?!, 0xC0000185",
                "7 " + name + "Driver object context, <driver>, 0xC0000185")) {
        return STATUS_IO_DEVICE_ERROR;
    }
    if (wpcd_ != nullptr) {
        return Fails("2 " + name + "WPCD client already registered?!", STATUS_OBJECT_NAME_EXISTS);
    }
    const NTSTATUS status = Create(kWpcd);
    if (!NT_SUCCESS(status)) {
        return Fails("1 " + name + "WdfObjectCreate", status);
    }
    wpcd_ = Make("crash-dump driver", driver_);
    if (!HasContext(kWpcd)) {
        Delete(wpcd_);
        wpcd_ = nullptr;
        return Fails("7 " + name + "WPCD client context, <crash-dump driver>", STATUS_IO_DEVICE_ERROR);
    }
    return STATUS_SUCCESS;
}

NTSTATUS ReferenceModel::Detach()
{
    const std::string name = "Notifier_WpcdClientDeInit: ";
    if (!Driver("2 " + name + "WdfGetDriver returned NULL?!, 0xC0000185",
                "7 " + name + "Driver object context, <driver>, 0xC0000185")) {
        return STATUS_IO_DEVICE_ERROR;
    }
    NTSTATUS status = Acquire("clients");
    if (status != STATUS_SUCCESS) {
        return Fails("1 " + name + kClientsLock, status);
    }
    if (wpcd_ != nullptr) {
        Delete(wpcd_);
        wpcd_ = nullptr;
    } else {
        status = Fails("2 " + name + "CDI client is not already registered?!", STATUS_OBJECT_NAME_NOT_FOUND);
    }
    Release("clients");
    return status;
}

void ReferenceModel::AddClients()
{
    const std::string name = "NotifierEvtWorkItemWpcdClientAdd: ";
    if (!Driver("13 " + name + "WdfGetDriver returned NULL?!", "13 " + name + "Driver context is NULL?!")) {
        return;
    }
    (void)Acquire("clients");  // not examined: a refused lock is released all the same
    AnnounceQueued();
    Release("clients");
}

void ReferenceModel::AnnounceQueued()
{
    const std::string name = "NotifierEvtWorkItemWpcdClientAdd: ";
    bool drops = false;
    if (wpcd_ == nullptr) {
        Report("22 " + name + "Connection to CDI driver is not yet available, will retry later, ZEPN driver");
        drops = true;
    } else if (!HasContext(kWpcd)) {
        Report("6 " + name + "WPCD client context, <crash-dump driver>");
        drops = true;
    }
    for (Ref entry = FirstItem(addQueue_); entry != nullptr; entry = FirstItem(addQueue_)) {
        if (drops) {
            // Nobody to announce to: the queue is emptied without a word.
        } else if (!HasContext(kClient)) {
            Report("6 " + name + "Client context, " + Named(entry));
        } else {
            step_.callbacks.push_back(tests::lines::FromTable(0, DescriptorOf(*entry)));
            const NTSTATUS answer = AddAnswer(entry->number);
            if (answer != STATUS_SUCCESS) {
                Fails("3 " + name + "Add client call to WPCD failed!", answer);
            } else {
                (void)Acquire("general");  // not examined either
                MarkAnnounced(*entry);
                Release("general");
            }
        }
        addQueue_->items.erase(addQueue_->items.begin());
    }
}

void ReferenceModel::RemoveClient()
{
    const std::string name = "NotifierEvtWorkItemWpcdClientRemove: ";
    if (!Driver("13 " + name + "WdfGetDriver returned NULL?!", "13 " + name + "Driver context is NULL?!")) {
        return;
    }
    const NTSTATUS status = Acquire("clients");
    if (status != STATUS_SUCCESS) {
        Fails("1 " + name + kClientsLock, status);
        return;
    }
    const Ref entry = FirstItem(removeQueue_);
    if (entry == nullptr) {
        Report("10 " + name + "<add queue>");  // the other queue's handle
        Release("clients");
        return;
    }
    if (wpcd_ == nullptr) {
        Remove(removeQueue_, entry);
        Delete(entry);
        Release("clients");
        return;
    }
    if (!HasContext(kWpcd)) {
        Report("6 " + name + "WPCD client context, <crash-dump driver>");
        return;  // with the lock held
    }
    if (!HasContext(kClient)) {
        Report("6 " + name + "Client context, " + Named(entry));
        Release("clients");
        return;
    }
    Remove(removeQueue_, entry);
    step_.callbacks.push_back(
        tests::lines::FromTable(0, tests::lines::Withdrawal(tests::ClientName(entry->number), "name", "description")));
    if (RemoveAnswer(entry->number) != STATUS_SUCCESS) {
        Fails("3 NotifierEvtWorkItemWpcdClientAdd: Remove client call to WPCD failed!", RemoveAnswer(entry->number));
    }
    Release("clients");
    Delete(entry);
}

NTSTATUS ReferenceModel::Count(bool pointer)
{
    const std::string name = "Notifier_WpcdGetNumSubsystemDescriptors: ";
    if (!pointer) {
        return Fails("2 " + name + "NumberDescriptors is NULL", STATUS_INVALID_PARAMETER);
    }
    std::size_t answer = 0;
    NTSTATUS status = STATUS_IO_DEVICE_ERROR;
    if (Driver("2 " + name + "WdfGetDriver returned NULL?!, 0xC0000185",
               "7 " + name + "Driver object context, <driver>, 0xC0000185")) {
        status = Acquire("clients");
        if (status != STATUS_SUCCESS) {
            Fails("1 " + name + kClientsLock, status);
        } else {
            const std::size_t count = clients_->items.size();
            answer = count;
            for (std::size_t index = 0; index < count; ++index) {
                const Ref item = Item(clients_, index);
                if (item == nullptr) {
                    Report("5 " + name + "WdfCollectionGetItem, " + std::to_string(index) + ", <clients>, " +
                           std::to_string(count));
                    answer = 0;
                    break;
                }
                if (!HasContext(kClient)) {
                    Report("6 " + name + "Client object context, " + Named(item));
                    answer = 0;
                    break;
                }
            }
            Release("clients");
        }
    }
    step_.callbacks.push_back(tests::lines::Count(answer));
    return status;
}

NTSTATUS ReferenceModel::Describe(ULONG capacity, std::string_view null)
{
    const std::string name = "Notifier_WpcdGetAllSubsystemDescriptors: ";
    if (null == "descriptors") {
        return Fails("2 " + name + "Descriptors is NULL?!", STATUS_INVALID_PARAMETER);
    }
    if (null == "count") {
        return Fails("2 " + name + "NumberDescriptors is NULL?!", STATUS_INVALID_PARAMETER);
    }
    std::size_t answer = capacity;
    const auto ends = [&](NTSTATUS status) {
        step_.callbacks.push_back(tests::lines::Count(answer));
        return status;
    };
    if (!Driver("2 " + name + "WdfGetDriver returned NULL?!, 0xC0000185",
                "7 " + name + "Driver object context, <driver>, 0xC0000185")) {
        return ends(STATUS_IO_DEVICE_ERROR);
    }
    NTSTATUS status = Acquire("clients");
    if (status != STATUS_SUCCESS) {
        return ends(Fails("1 " + name + kClientsLock, status));
    }
    const std::size_t count = clients_->items.size();
    if (capacity < count) {
        answer = count;
        Release("clients");
        return ends(
            Fails("11 " + name + std::to_string(capacity) + ", " + std::to_string(count), STATUS_BUFFER_TOO_SMALL));
    }
    // After a stop the caller's capacity is left as it was, although records may have been filled.
    bool stopped = false;
    for (std::size_t index = 0; index < count && !stopped; ++index) {
        const Ref item = Item(clients_, index);
        if (item == nullptr) {
            Report("5 " + name + "WdfCollectionGetItem, " + std::to_string(index) + ", <clients>, " +
                   std::to_string(count));
            stopped = true;
        } else if (!HasContext(kClient)) {
            Report("6 " + name + "Client object context, " + Named(item));
            stopped = true;
        } else {
            step_.callbacks.push_back(DescriptorOf(*item));
            status = Acquire("general");
            if (status != STATUS_SUCCESS) {
                Fails("1 " + name + "WdfWaitLockAcquire (general lock)", status);
                stopped = true;
            } else {
                MarkAnnounced(*item);
                Release("general");
            }
        }
    }
    answer = stopped ? capacity : count;
    Release("clients");
    return ends(status);
}

NTSTATUS ReferenceModel::DumpContext(bool record)
{
    // These names are fixed, whichever forwarder asks.
    if (!record) {
        return Fails("2 Notifier_HelperStartDump: A required parameter is NULL.", STATUS_INVALID_PARAMETER);
    }
    if (!Driver("2 Notifier_HelperStartDump: WdfGetDriver returned NULL., 0xC0000185",
                "7 Notifier_HelperDumpStart: Driver object context, <driver>, 0xC0000185")) {
        return STATUS_IO_DEVICE_ERROR;
    }
    if (wpcd_ == nullptr) {
        return Fails("7 Notifier_HelperDumpStart: WPCD (CDI) driver not yet loaded., <driver>", STATUS_IO_DEVICE_ERROR);
    }
    if (!HasContext(kWpcd)) {
        Report("6 GetContext: WPCD client context, <crash-dump driver>");
        return STATUS_IO_DEVICE_ERROR;
    }
    return STATUS_SUCCESS;
}

NTSTATUS ReferenceModel::Dump(const Operation& operation)
{
    static const std::map<Kind, std::pair<const char*, const char*>> kNames = {
        {Kind::kStartDump, {"Notifier_HelperStartDump", "ZepDumpStart"}},
        {Kind::kAddDumpData, {"Notifier_HelperAddDumpData", "ZepDumpAddDumpData"}},
        {Kind::kStopDump, {"Notifier_HelperStopDump", "ZepDumpStop"}},
        {Kind::kQueryDump, {"Notifier_HelperDumpQueryParam", "ZepDumpQueryParam"}},
        {Kind::kAddTriageData, {"Notifier_HelperDumpAddTriageData", "ZepDumpAddTriageData"}}};
    const auto& [name, callback] = kNames.at(operation.kind);
    const NTSTATUS status = DumpContext(operation.null.empty());
    if (!NT_SUCCESS(status)) {
        return Fails(std::string("2 ") + name + ": Retrieving the context information failed.", status);
    }
    step_.callbacks.push_back(tests::lines::FromTable(0, tests::lines::Dump(operation.kind, operation.client)));
    const auto answer = static_cast<NTSTATUS>(operation.value);
    if (!NT_SUCCESS(answer)) {
        Fails(std::string("1 pWpcdClientContext->") + callback + ": Failed with an error code.", answer);
    }
    return answer;
}

}  // namespace fault_injection
