// What the operations of the reference model are made of: fallible calls, checks, and the objects that they leave.
#include "tests/fault_injection/reference_model.h"

#include <algorithm>

namespace fault_injection {

// ---- Calls that can fail ----

bool ReferenceModel::Injects(const char* function, std::string_view detail, Forms forms)
{
    const auto found = counts_.find(std::string_view(function));
    const unsigned number = found == counts_.end() ? counts_.emplace(function, 1).first->second - 1 : found->second++;
    if (calls_ != nullptr) {
        calls_->push_back({function, std::string(detail), {forms.begin(), forms.end()}});
    }
    if (std::string_view(function) != "WdfGetDriver") {
        std::string& call = step_.calls.emplace_back(function);
        if (!detail.empty()) {
            call.append(" ").append(detail);
        }
    }
    const bool isInjected = fault_ && fault_->function == function &&
                            (number == fault_->index || (fault_->persistent && number > fault_->index));
    injected_ += isInjected ? 1 : 0;
    return isInjected;
}

NTSTATUS ReferenceModel::Status(const char* function, Forms forms)
{
    return Injects(function, "", forms) ? fault_->Status() : STATUS_SUCCESS;
}

bool ReferenceModel::Gives(const char* function, std::string_view detail)
{
    return !Injects(function, detail, kGiving);
}

// What the caller makes of a status of the success class is the caller's: some go by the sign, some take only 0.
NTSTATUS ReferenceModel::Add(const Ref& collection, const Ref& object, Forms forms)
{
    const NTSTATUS status = Status("WdfCollectionAdd", forms);
    if (status == STATUS_SUCCESS || fault_->form == FaultKind::kInforms) {
        collection->items.push_back(object);
    }
    return status;
}

// Every acquire is judged by exactly STATUS_SUCCESS.
NTSTATUS ReferenceModel::Acquire(const char* lock)
{
    const NTSTATUS status = Status("WdfWaitLockAcquire", kExact);
    if (status == STATUS_SUCCESS) {
        if (held_.contains(lock)) {
            step_.violations.emplace_back("self-wait");
            step_.ends = true;
        }
        held_.insert(lock);
    }
    return status;
}

void ReferenceModel::Release(const char* lock)
{
    if (held_.erase(lock) == 0) {
        step_.violations.emplace_back("lock not owned");
    }
}

Ref ReferenceModel::Item(const Ref& collection, std::size_t index)
{
    const bool gives = Gives("WdfCollectionGetItem");
    return gives && index < collection->items.size() ? collection->items[index] : nullptr;
}

Ref ReferenceModel::FirstItem(const Ref& collection)
{
    const bool gives = Gives("WdfCollectionGetFirstItem");
    return gives && !collection->items.empty() ? collection->items.front() : nullptr;
}

void ReferenceModel::Report(const std::string& line, NTSTATUS status)
{
    Report(line + ", " + Hex(static_cast<std::uint32_t>(status)));
}

// ---- Steps ----

ReferenceModel::Lock::Lock(ReferenceModel& model, const char* name, const std::string& in, const char* words)
    : model_(model), name_(name)
{
    static const std::map<std::string_view, const char*> kWords = {
        {"clients", "WdfWaitLockAcquire for wdfWaitLockClientsCollection"},
        {"general", "WdfWaitLockAcquire (general lock)"},
        {"states", "WdfWaitLockAcquire for wdfWaitLockStatesCollection"},
        {"states item", "WdfWaitLockAcquire for wdfWaitLockNotifyStatesWorkItem"},
        {"commands", "WdfWaitLockAcquire for wdfWaitLockCommandsCollection"},
        {"commands item", "WdfWaitLockAcquire for wdfWaitLockNotifyCommandsWorkItem"}};
    const NTSTATUS status = model.Acquire(name);
    model.Require(status == STATUS_SUCCESS, "1 " + in + (words != nullptr ? words : kWords.at(name)), status);
}

ReferenceModel::Lock::~Lock()
{
    if (!isKept_ && !model_.step_.ends) {
        model_.Release(name_);
    }
}

void ReferenceModel::Lock::Release()
{
    model_.Release(name_);
    isKept_ = true;
}

ReferenceModel::Owned::~Owned()
{
    if (!isKept_) {
        model_.Delete(object_);
    }
}

void ReferenceModel::Fail(const std::string& line, NTSTATUS status)
{
    Report(line, status);
    throw Ended{status};
}

void ReferenceModel::Require(bool isGood, const std::string& line, NTSTATUS status)
{
    if (!isGood) {
        Fail(line, status);
    }
}

void ReferenceModel::FindDriver(const std::string& noDriver, const std::string& noContext, NTSTATUS status)
{
    const bool hasDriver = Gives("WdfGetDriver");
    if (!hasDriver || !HasContext(kDriverContextName)) {
        Report(hasDriver ? noContext : noDriver);
        throw Ended{status};
    }
}

void ReferenceModel::FindDriver(const std::string& in, const char* event)
{
    FindDriver(event + in + "WdfGetDriver returned NULL?!, 0xC0000185",
               "7 " + in + "Driver object context, <driver>, 0xC0000185", STATUS_IO_DEVICE_ERROR);
}

void ReferenceModel::FindDriverOfRun(const std::string& in, const std::string& words)
{
    FindDriver("13 " + in + "WdfGetDriver returned NULL?!" + words, "13 " + in + "Driver context is NULL?!" + words,
               STATUS_IO_DEVICE_ERROR);
}

NTSTATUS ReferenceModel::Make(const char* function, const std::string& line, const std::string& detail)
{
    const NTSTATUS status = Injects(function, detail, kMaking) ? fault_->Status() : STATUS_SUCCESS;
    Require(NT_SUCCESS(status), line, status);
    return status;
}

Ref ReferenceModel::Create(const char* type, const ObjectRecord& object, const Ref& parent, const std::string& noObject,
                           const std::string& noContext)
{
    (void)Make("WdfObjectCreate", noObject, type);
    Owned made(*this, MakeObject(object, parent));
    Require(HasContext(type), noContext + ", " + Name({.kind = object.kind}), STATUS_IO_DEVICE_ERROR);
    made.Keep();
    return *made;
}

void ReferenceModel::Append(const Ref& collection, const Ref& object, const std::string& line, Forms forms)
{
    const NTSTATUS status = Add(collection, object, forms);
    Require(forms.data() == kExact ? status == STATUS_SUCCESS : NT_SUCCESS(status), line, status);
}

Ref ReferenceModel::At(const Ref& collection, std::size_t index, const std::string& noItem,
                       const std::string& noContext)
{
    const Ref item = Item(collection, index);
    if (item == nullptr) {
        Report(noItem + "WdfCollectionGetItem, " + std::to_string(index) +
               (collection == clients_ ? ", <clients>, " : ", <collection>, ") +
               std::to_string(collection->items.size()));
        return nullptr;
    }
    const bool isClient = collection == clients_;
    if (!HasContext(isClient ? kClientContextName : kRegistrationContextName)) {
        Report(noContext + ", " + Name(*item));
        return nullptr;
    }
    return item;
}

Ref ReferenceModel::ClientAt(std::size_t index, const std::string& in, const char* words, const char* event)
{
    return At(clients_, index, event + in, "6 " + in + words);
}

Ref ReferenceModel::SubscriptionAt(const Ref& registrations, std::size_t index, const std::string& in,
                                   const char* event)
{
    return At(registrations, index, event + in, "6 " + in + "State notification context");
}

Ref ReferenceModel::FindClient(ULONG number, const std::string& in, const char* words)
{
    for (std::size_t index = 0; index < clients_->items.size(); ++index) {
        const Ref client = ClientAt(index, in, words);
        if (client == nullptr) {
            throw Ended{};
        }
        if (client->number == number) {
            return client;
        }
    }
    return nullptr;
}

// ---- Objects ----

Ref ReferenceModel::MakeObject(const ObjectRecord& record, const Ref& parent)
{
    auto object = std::make_shared<ModelObject>(ModelObject{record});
    object->parent = parent.get();
    parent->children.push_back(object);
    objects_.push_back(object);
    return object;
}

void ReferenceModel::Delete(const Ref& object)
{
    const Ref keep = object;
    if (keep->deleted) {
        ++secondDeletes_;
        return;
    }
    keep->deleted = true;
    if (keep->parent != nullptr) {
        std::erase(keep->parent->children, keep);
        keep->parent = nullptr;
    }
    const std::vector<Ref> children = keep->children;
    for (const Ref& child : children) {
        if (!child->deleted) {
            Delete(child);
        }
    }
}

// A subscription that was deleted while its collection kept it (an add that did its work and was taken for a failure)
// is no more once it is taken out. No real collection answers so.
void ReferenceModel::DeleteRemoved(const Ref& object)
{
    if (object->deleted) {
        step_.violations.emplace_back("dead handle");
    } else {
        Delete(object);
    }
}

void ReferenceModel::Remove(const Ref& collection, const Ref& object)
{
    const auto found = std::find(collection->items.begin(), collection->items.end(), object);
    if (found != collection->items.end()) {
        collection->items.erase(found);
    }
}

void ReferenceModel::Enqueue(const std::string& item)
{
    if (std::find(queue_.begin(), queue_.end(), item) == queue_.end()) {
        queue_.push_back(item);
    }
}

}  // namespace fault_injection
