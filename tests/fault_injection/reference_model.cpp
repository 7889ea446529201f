#include "tests/fault_injection/reference_model.h"

#include <algorithm>
#include <functional>
#include <string_view>

namespace fault_injection {

ReferenceModel ReferenceModel::Again() const
{
    ReferenceModel again(std::nullopt);
    again.leakedBlocks_ = leakedBlocks_ + poolBlocks_;
    again.secondDeletes_ = secondDeletes_;
    return again;
}

ReferenceModel ReferenceModel::With(std::optional<Fault> fault) const
{
    ReferenceModel model = *this;
    model.fault_ = std::move(fault);
    model.calls_ = nullptr;
    std::map<const ModelObject*, Ref> copies;
    const std::function<void(Ref&)> copy = [&](Ref& object) {
        if (object == nullptr) {
            return;
        }
        const auto [found, isNew] = copies.try_emplace(object.get());
        if (isNew) {
            found->second = std::make_shared<ModelObject>(*object);
            ModelObject& made = *found->second;
            std::ranges::for_each(made.children, copy);
            std::ranges::for_each(made.items, copy);
            Ref registrations = made.registrations.lock();
            copy(registrations);
            made.registrations = registrations;
        }
        object = found->second;
    };
    for (std::weak_ptr<ModelObject>& weak : model.objects_) {
        Ref object = weak.lock();
        copy(object);
        weak = object;
    }
    for (Ref* root : {&model.driver_, &model.addQueue_, &model.removeQueue_, &model.clients_, &model.states_,
                      &model.commands_, &model.wpcd_}) {
        copy(*root);
    }
    for (const auto& [original, made] : copies) {
        const auto parent = copies.find(made->parent);
        made->parent = parent != copies.end() ? parent->second.get() : nullptr;
    }
    return model;
}

unsigned ReferenceModel::CallsOf(std::string_view function) const
{
    const auto found = counts_.find(function);
    return found == counts_.end() ? 0 : found->second;
}

bool ReferenceModel::Allows(Kind kind) const
{
    const std::pair<Kind, bool> conditions[] = {{Kind::kLoad, !loaded_},
                                                {Kind::kAddDevice, loaded_ && !device_},
                                                {Kind::kStart, device_ && !started_},
                                                {Kind::kUnload, loaded_ && !device_},
                                                {Kind::kRemove, device_ && !file_},
                                                {Kind::kOpen, started_ && !file_},
                                                {Kind::kClose, file_},
                                                {Kind::kControl, file_},
                                                {Kind::kSleep, powerRegistrations_ != 0},
                                                {Kind::kWake, powerRegistrations_ != 0}};
    const auto* const found = std::ranges::find(conditions, kind, &std::pair<Kind, bool>::first);
    return found == std::end(conditions) ? started_ : found->second;
}

Step ReferenceModel::Run(const Operation& operation)
{
    step_ = {};
    const NTSTATUS status = StatusOf([&] { Do(operation); });
    constexpr Kind kWithoutStatus[] = {Kind::kSurpriseRemoval, Kind::kRemove, Kind::kUnload, Kind::kDeliver,
                                       Kind::kClose,           Kind::kSleep,  Kind::kWake};
    const bool hasStatus = std::ranges::find(kWithoutStatus, operation.kind) == std::end(kWithoutStatus);
    step_.status = hasStatus ? Hex(static_cast<std::uint32_t>(status)) : "";
    return std::move(step_);
}

void ReferenceModel::Do(const Operation& operation)
{
    using Model = ReferenceModel;
    static const std::map<Kind, void (*)(Model&, const Operation&)> kActs = {
        {Kind::kLoad, [](Model& model, const Operation&) { model.Load(); }},
        {Kind::kAddDevice, [](Model& model, const Operation&) { model.AddDevice(); }},
        {Kind::kStart, [](Model& model, const Operation&) { model.started_ = true; }},
        {Kind::kRemove, [](Model& model, const Operation&) { model.EndDevice(); }},
        {Kind::kUnload, [](Model& model, const Operation&) { model.Unload(); }},
        {Kind::kRegister, [](Model& model, const Operation& o) { model.Register(o.client, o.value, o.null.empty()); }},
        {Kind::kDeregister, [](Model& model, const Operation& o) { model.Deregister(o.client); }},
        {Kind::kPost,
         [](Model& model, const Operation& o) {
             model.Post({o.client, tests::kPostedSize, o.state, tests::kPostedReserved});
         }},
        {Kind::kSubscribe, [](Model& model, const Operation& o) { model.Subscribe(o.client, o.other, o.state); }},
        {Kind::kUnsubscribe, [](Model& model, const Operation& o) { model.Unsubscribe(o.client, o.other, o.state); }},
        {Kind::kCommand, [](Model& model, const Operation& o) { model.Send(o.client, o.other, o.value); }},
        {Kind::kDeliver, [](Model& model, const Operation&) { model.Deliver(); }},
        {Kind::kAttach, [](Model& model, const Operation& o) { model.Attach(o.null.empty()); }},
        {Kind::kDetach, [](Model& model, const Operation&) { model.Detach(); }},
        {Kind::kCount, [](Model& model, const Operation& o) { model.Count(o.null.empty()); }},
        {Kind::kDescribe, [](Model& model, const Operation& o) { model.Describe(o.value, o.null); }},
        {Kind::kOpen, [](Model& model, const Operation&) { model.Open(); }},
        {Kind::kClose, [](Model& model, const Operation&) { model.Close(); }},
        {Kind::kControl, [](Model& model, const Operation& o) { model.Control(o.value); }},
        {Kind::kSleep, [](Model& model, const Operation&) { model.Sleep(); }},
    };
    // Without its GUID or record nobody is meant.
    Operation meant = operation;
    meant.client = operation.null.empty() || operation.null == "callbacks" ? operation.client : 0;
    if (const auto act = kActs.find(operation.kind); act != kActs.end()) {
        act->second(*this, meant);
    } else if (IsOfClient(operation.kind)) {
        Dump(operation);
    }
}

// A second device registers the routine once more.
void ReferenceModel::Sleep()
{
    for (unsigned index = 0; index < powerRegistrations_; ++index) {
        LeaveWorkingState();
    }
}

// ---- What exists ----

namespace {

// Without its parent.
ObjectAlive Described(const ModelObject& object)
{
    ObjectAlive described{.record = object};
    if (const Ref registrations = object.registrations.lock()) {
        described.isSubscribed = true;
        for (const Ref& item : registrations->items) {
            described.subscriptions.push_back(*item);
        }
    }
    return described;
}

}  // namespace

Alive ReferenceModel::Alive() const
{
    if (!loaded_) {
        return {};
    }
    fault_injection::Alive alive;
    for (const auto& weak : objects_) {
        if (const Ref object = weak.lock()) {
            const ModelObject* parent = object->parent;
            ObjectAlive& described = alive.objects.emplace_back(Described(*object));
            described.parent = parent == nullptr ? "nobody" : parent->kind;
            described.client = described.parent == "client" ? parent->number : 0;
        }
    }
    for (const auto& [name, count] : others_) {
        const bool isOfDriver = name == "wait lock" || name == "device";
        alive.objects.insert(alive.objects.end(), static_cast<std::size_t>(count),
                             {.record = {.kind = name}, .parent = isOfDriver ? "driver" : "device"});
    }
    for (const auto& [name, collection] : {std::pair("clients", clients_),
                                           {"add queue", addQueue_},
                                           {"remove queue", removeQueue_},
                                           {"states", states_},
                                           {"commands", commands_}}) {
        std::optional<std::vector<ObjectAlive>>& items = alive.collections[name];
        if (collection != nullptr) {
            items.emplace();
            for (const Ref& item : collection->items) {
                items->push_back(Described(*item));
            }
        }
    }
    alive.counts = {
        {"attached", wpcd_ != nullptr ? 1 : 0}, {"power callback", powerCallback_ ? 1 : 0},
        {"driver referenced", references_},     {"context fields", static_cast<std::int64_t>(fields_.size())},
        {"second deletes", secondDeletes_},     {"pool", leakedBlocks_ + poolBlocks_}};
    alive.heldLocks = held_;
    alive.queuedItems = {queue_.begin(), queue_.end()};
    return alive;
}

}  // namespace fault_injection
