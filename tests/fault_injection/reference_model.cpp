#include "tests/fault_injection/reference_model.h"

#include <algorithm>
#include <string_view>

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
    const NTSTATUS status = StatusOf([&] { Do(operation); });
    constexpr Kind kWithoutStatus[] = {Kind::kSurprise, Kind::kRemove, Kind::kUnload, Kind::kDeliver,
                                       Kind::kClose,    Kind::kSleep,  Kind::kWake};
    const bool hasStatus = std::ranges::find(kWithoutStatus, operation.kind) == std::end(kWithoutStatus);
    step_.status = hasStatus ? Hex(static_cast<std::uint32_t>(status)) : "";
    return step_;
}

void ReferenceModel::Do(const Operation& operation)
{
    const unsigned client = operation.null.empty() || operation.null == "callbacks" ? operation.client : 0;
    switch (operation.kind) {
    case Kind::kLoad:
        return Load();
    case Kind::kAddDevice:
        return AddDevice();
    case Kind::kStart:
        started_ = true;
        return;
    case Kind::kPowerDown:
    case Kind::kPowerUp:
    case Kind::kSurprise:
    case Kind::kWake:
        return;
    case Kind::kRemove:
        return EndDevice();
    case Kind::kUnload:
        return Unload();
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
        return Deliver();
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
        return Close();
    case Kind::kControl:
        return Control(operation.value);
    case Kind::kSleep:
        // A second device registers the routine once more.
        for (unsigned index = 0; index < powerRegistrations_; ++index) {
            LeaveWorkingState();
        }
        return;
    default:
        return Dump(operation);
    }
}

// ---- What exists ----

namespace {

std::string TextWithSubscriptions(const ModelObject& object)
{
    const Ref registrations = object.registrations.lock();
    std::string text = Text(object) + (registrations != nullptr ? ", subscribed" : "");
    for (const Ref& item : registrations != nullptr ? registrations->items : std::vector<Ref>()) {
        text += SubscriptionText(*item);
    }
    return text;
}

}  // namespace

Lines ReferenceModel::Alive() const
{
    if (!loaded_) {
        return {};
    }
    fault_injection::Alive alive;
    for (const auto& weak : objects_) {
        if (const Ref object = weak.lock()) {
            const ModelObject* parent = object->parent;
            const std::string number =
                parent != nullptr && parent->kind == "client" ? " " + std::to_string(parent->number) : "";
            alive.objects.push_back(TextWithSubscriptions(*object) + " of " +
                                    (parent == nullptr ? "nobody" : parent->kind + number));
        }
    }
    for (const auto& [name, count] : others_) {
        const bool isOfDriver = name == "wait lock" || name == "device";
        alive.objects.insert(alive.objects.end(), static_cast<std::size_t>(count),
                             name + (isOfDriver ? " of driver" : " of device"));
    }
    for (const auto& [name, collection] : {std::pair("clients", clients_),
                                           {"add queue", addQueue_},
                                           {"remove queue", removeQueue_},
                                           {"states", states_},
                                           {"commands", commands_}}) {
        std::optional<Lines>& items = alive.collections[name];
        if (collection != nullptr) {
            items.emplace();
            for (const Ref& item : collection->items) {
                items->push_back(TextWithSubscriptions(*item));
            }
        }
    }
    alive.counts = {
        {"attached", wpcd_ != nullptr ? 1 : 0}, {"power callback", powerCallback_ ? 1 : 0},
        {"driver referenced", references_},     {"context fields", static_cast<std::int64_t>(fields_.size())},
        {"second deletes", secondDeletes_},     {"pool", leakedBlocks_ + poolBlocks_}};
    alive.heldLocks = held_;
    alive.queuedItems = {queue_.begin(), queue_.end()};
    return alive.Text();
}

}  // namespace fault_injection
