#include "tests/fault_injection/reference_model.h"

#include <algorithm>

namespace fault_injection {

ReferenceModel ReferenceModel::Again() const
{
    ReferenceModel again(std::nullopt);
    again.leakedBlocks_ = leakedBlocks_ + poolBlocks_;
    again.secondDeletes_ = secondDeletes_;
    return again;
}

bool ReferenceModel::Allows(Kind kind) const
{
    switch (kind) {
    case Kind::kLoad:
        return !loaded_;
    case Kind::kAddDevice:
        return loaded_ && !device_;
    case Kind::kStart:
        return device_ && !started_;
    case Kind::kUnload:
        return loaded_ && !device_;
    case Kind::kRemove:
        return device_ && !file_;
    case Kind::kClose:
    case Kind::kControl:
        return file_;
    case Kind::kSleep:
    case Kind::kWake:
        return powerRegistrations_ != 0;
    case Kind::kOpen:
        return started_ && !file_;
    default:
        return started_;
    }
}

Step ReferenceModel::Run(const Operation& operation)
{
    step_ = {};
    const std::optional<NTSTATUS> status = Do(operation);
    step_.status = status ? Hex(static_cast<std::uint32_t>(*status)) : "";
    return step_;
}

std::optional<NTSTATUS> ReferenceModel::Do(const Operation& operation)
{
    const unsigned client = operation.null == "guid" || operation.null == "record" ? 0 : operation.client;
    switch (operation.kind) {
    case Kind::kLoad:
        return Load();
    case Kind::kAddDevice:
        return AddDevice();
    case Kind::kStart:
        started_ = true;
        return STATUS_SUCCESS;
    case Kind::kPowerDown:
    case Kind::kPowerUp:
        return STATUS_SUCCESS;
    case Kind::kSurprise:
        return std::nullopt;
    case Kind::kRemove:
        EndDevice();
        return std::nullopt;
    case Kind::kUnload:
        Unload();
        return std::nullopt;
    case Kind::kRegister:
        return Register(client, operation.value, operation.null != "callbacks");
    case Kind::kDeregister:
        return Deregister(client);
    case Kind::kPost:
        return Post({client, tests::kPostedSize, operation.state, tests::kPostedReserved});
    case Kind::kSubscribe:
        return Subscribe(client, operation.other, operation.state);
    case Kind::kUnsubscribe:
        return Unsubscribe(client, operation.other, operation.state);
    case Kind::kCommand:
        return Send(client, operation.other, operation.value);
    case Kind::kDeliver:
        Deliver();
        return std::nullopt;
    case Kind::kAttach:
        return Attach(operation.null.empty());
    case Kind::kDetach:
        return Detach();
    case Kind::kCount:
        return Count(operation.null.empty());
    case Kind::kDescribe:
        return Describe(operation.value, operation.null);
    case Kind::kOpen:
        return Open();
    case Kind::kClose:
        Close();
        return std::nullopt;
    case Kind::kControl:
        return Control(operation.value);
    case Kind::kSleep:
        Sleep();
        return std::nullopt;
    case Kind::kWake:
        return std::nullopt;
    default:
        return Dump(operation);
    }
}

// ---- Calls that can fail ----

bool ReferenceModel::Strikes(const char* function, const std::string& detail, std::vector<FaultKind> forms)
{
    const auto found = counts_.find(std::string_view(function));
    const unsigned number = found == counts_.end() ? counts_.emplace(function, 1).first->second - 1 : found->second++;
    if (!fault_) {
        calls_.push_back({function, detail, std::move(forms)});
    }
    if (std::string_view(function) != "WdfGetDriver") {
        step_.calls.push_back(std::string(function) + (detail.empty() ? "" : " " + detail));
    }
    const bool strikes = fault_ && fault_->function == function &&
                         (number == fault_->index || (fault_->persistent && number > fault_->index));
    struck_ += strikes ? 1 : 0;
    return strikes;
}

NTSTATUS ReferenceModel::Status(const char* function, std::vector<FaultKind> forms)
{
    return Strikes(function, "", std::move(forms)) ? fault_->Status() : STATUS_SUCCESS;
}

bool ReferenceModel::Gives(const char* function, const std::string& detail)
{
    return !Strikes(function, detail, {FaultKind::kNull});
}

NTSTATUS ReferenceModel::Create(const std::string& type)
{
    const bool strikes = Strikes("WdfObjectCreate", type, {FaultKind::kError, FaultKind::kInforms});
    return strikes ? fault_->Status() : STATUS_SUCCESS;
}

// What the caller makes of a status of the success class is the caller's: some go by the sign, some take only 0.
NTSTATUS ReferenceModel::Add(const Ref& collection, const Ref& object, std::vector<FaultKind> forms)
{
    const NTSTATUS status = Status("WdfCollectionAdd", std::move(forms));
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

// ---- Objects ----

Ref ReferenceModel::Make(const std::string& kind, const Ref& parent)
{
    auto object = std::make_shared<ModelObject>();
    object->kind = kind;
    if (parent != nullptr) {
        object->parent = parent.get();
        parent->children.push_back(object);
    }
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

NTSTATUS ReferenceModel::Fails(const std::string& line, NTSTATUS status)
{
    Report(line + ", " + Hex(static_cast<std::uint32_t>(status)));
    return status;
}

// ---- What exists ----

namespace {

std::string Text(const ModelObject& object)
{
    const std::string prefix = object.deleted ? "deleted " : "";
    const std::string number = std::to_string(object.number);
    if (object.kind == "client") {
        std::string text = prefix + "client " + number + " in state " + std::to_string(object.value) + ", announced " +
                           std::to_string(object.added) + std::to_string(object.refresh);
        if (const Ref registrations = object.registrations.lock()) {
            text += ", subscribed";
            for (const Ref& item : registrations->items) {
                text += " " + std::string(item->deleted ? "deleted " : "") + std::to_string(item->other) + "@" +
                        std::to_string(item->value);
            }
        }
        return text;
    }
    if (object.kind == "state") {
        return prefix + "state " + number + "=" + std::to_string(object.value) + " size " + std::to_string(object.size);
    }
    if (object.kind == "subscription") {
        return prefix + "subscription " + number + " to " + std::to_string(object.other) + "@" +
               std::to_string(object.value);
    }
    if (object.kind == "command") {
        return prefix + "command " + number + ">" + std::to_string(object.other) + " " + std::to_string(object.value);
    }
    return prefix + object.kind;
}

std::string Contents(const std::string& name, const Ref& collection)
{
    if (collection == nullptr) {
        return name + " none";
    }
    std::string text = name;
    for (const Ref& item : collection->items) {
        text += " [" + Text(*item) + "]";
    }
    return text;
}

}  // namespace

Lines ReferenceModel::Alive() const
{
    Lines lines;
    if (!loaded_) {
        return lines;
    }
    for (const auto& weak : objects_) {
        const Ref object = weak.lock();
        if (object == nullptr || object == driver_) {
            continue;
        }
        const std::string parent = object->parent == nullptr ? "nobody"
                                   : object->parent->kind == "client"
                                       ? "client " + std::to_string(object->parent->number)
                                       : object->parent->kind;
        lines.push_back(Text(*object) + " of " + parent);
    }
    for (const auto& [name, count] : others_) {
        for (int index = 0; index < count; ++index) {
            lines.push_back(name + (name == "wait lock" || name == "device" ? " of driver" : " of device"));
        }
    }
    std::sort(lines.begin(), lines.end());
    lines.push_back(Contents("clients", clients_));
    lines.push_back(Contents("add queue", addQueue_));
    lines.push_back(Contents("remove queue", removeQueue_));
    lines.push_back(Contents("states", states_));
    lines.push_back(Contents("commands", commands_));
    lines.push_back(std::string("attached ") + (wpcd_ != nullptr ? "1" : "0"));
    lines.push_back(std::string("power callback ") + (powerCallback_ ? "1" : "0"));
    lines.push_back("driver referenced " + std::to_string(references_));
    lines.push_back("context fields " + std::to_string(fields_.size()));
    lines.push_back("second deletes " + std::to_string(secondDeletes_));
    lines.push_back("pool " + std::to_string(leakedBlocks_ + poolBlocks_));
    std::string text = "held";
    for (const std::string& lock : held_) {
        text += " " + lock;
    }
    lines.push_back(text);
    text = "queued";
    std::set<std::string> sorted(queue_.begin(), queue_.end());
    for (const std::string& item : sorted) {
        text += " " + item;
    }
    lines.push_back(text);
    return lines;
}

}  // namespace fault_injection
