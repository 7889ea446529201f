// What exists, as the host sees it, in the words of the reference model.
#include "tests/fault_injection/observed.h"
#include "tests/kit/one_report.h"

#include <algorithm>
#include <cstring>
#include <optional>

namespace fault_injection {

using host::framework::ObjectSnapshot;
using host::framework::ObjectType;

namespace {

// An object's context of this type; none when it has no such.
template <class T>
std::optional<T> ContextOf(const ObjectSnapshot& object, const char* typeName)
{
    for (const auto& context : object.contexts) {
        if (context.typeName == typeName && context.bytes.size() == sizeof(T)) {
            T copy;
            std::memcpy(&copy, context.bytes.data(), sizeof(T));
            return copy;
        }
    }
    return std::nullopt;
}

// By handle, among objects in the order of their creation, which is that of their handles; null when it is not there.
const ObjectSnapshot* Find(const std::vector<ObjectSnapshot>& all, const void* handle)
{
    const auto found = std::ranges::lower_bound(all, handle, std::less<const void*>(), &ObjectSnapshot::handle);
    return found != all.end() && found->handle == handle ? &*found : nullptr;
}

}  // namespace

std::string ObservedRun::NameOf(std::uint64_t handle)
{
    return tests::NameOfHandle(machine(), harness_.driver, handle,
                               [this](const ObjectSnapshot& object) { return Name(RecordOf(object)); });
}

ObjectRecord ObservedRun::RecordOf(const ObjectSnapshot& object)
{
    ObjectRecord record{.kind = host::framework::Name(object.type), .deleted = object.deleted};
    if (object.type != ObjectType::kGeneral) {
        return record;
    }
    if (const auto client = ContextOf<layout::ClientContext>(object, layout::kClientContextName)) {
        record.kind = "client";
        record.number = client->guid.Data1;
        record.value = client->currentState;
        record.added = client->addedToWpcd;
        record.refresh = client->wpcdRefreshPending;
    } else if (const auto state = ContextOf<ZepState>(object, layout::kStateContextName)) {
        record.kind = "state";
        record.number = state->InterfaceGUID.Data1;
        record.value = state->State;
        record.size = static_cast<ULONG>(state->Size);
    } else if (const auto subscription =
                   ContextOf<layout::RegistrationContext>(object, layout::kRegistrationContextName)) {
        record.kind = "subscription";
        record.number = subscription->subscriber.Data1;
        record.other = subscription->filter.InterfaceGUID.Data1;
        record.value = subscription->filter.State;
    } else if (const auto command = ContextOf<ZepCommand>(object, layout::kCommandContextName)) {
        record.kind = "command";
        record.number = command->SourceGuid.Data1;
        record.other = command->TargetGuid.Data1;
        record.value = command->CommandId;
    } else {
        const bool isCrashDumpDriver = std::ranges::any_of(
            object.contexts, [](const auto& context) { return context.typeName == layout::kWpcdContextName; });
        record.kind = isCrashDumpDriver ? "crash-dump driver" : "general";
    }
    return record;
}

// Without its parent. `all` is every object.
ObjectAlive ObservedRun::Describe(const ObjectSnapshot& object, const std::vector<ObjectSnapshot>& all)
{
    ObjectAlive described{.record = RecordOf(object)};
    const auto client = ContextOf<layout::ClientContext>(object, layout::kClientContextName);
    const ObjectSnapshot* registrations = client ? Find(all, client->registrations) : nullptr;
    if (registrations != nullptr) {
        described.isSubscribed = true;
        for (const WDFOBJECT item : registrations->items) {
            described.subscriptions.push_back(RecordOf(*Find(all, item)));
        }
    }
    return described;
}

Alive ObservedRun::Alive()
{
    if (harness_.driver == nullptr || !harness_.driver->IsLoaded()) {
        return {};
    }
    const auto inspect = machine().inspect();
    const std::vector<ObjectSnapshot> all = inspect.Objects();
    const ObjectSnapshot* driver = Find(all, harness_.driver->Handle());
    const auto context = *inspect.Context<layout::DriverContext>(harness_.driver->Handle(), layout::kDriverContextName);
    fault_injection::Alive alive;
    const auto add = [&](const ObjectSnapshot& object) {
        const ObjectSnapshot* parent = Find(all, object.parent);
        const ObjectRecord of = parent != nullptr ? RecordOf(*parent) : ObjectRecord{.kind = "nobody"};
        ObjectAlive& described = alive.objects.emplace_back(Describe(object, all));
        described.parent = of.kind;
        described.client = of.kind == "client" ? of.number : 0;
    };
    // In the model's order, as long as nothing is wrong: those that it knows one by one, then the others by kind.
    constexpr ObjectType kByKind[] = {ObjectType::kDevice, ObjectType::kFileObject, ObjectType::kQueue,
                                      ObjectType::kWaitLock, ObjectType::kWorkItem};
    for (const ObjectSnapshot& object : all) {
        // The framework's own, as long as the device is started, are not the driver's.
        if (object.type != ObjectType::kDriver && object.type != ObjectType::kResourceList &&
            std::ranges::find(kByKind, object.type) == std::end(kByKind)) {
            add(object);
        }
    }
    for (const ObjectType type : kByKind) {
        for (const ObjectSnapshot& object : all) {
            if (object.type == type) {
                add(object);
            }
        }
    }
    for (const auto& [collection, name] : layout::CollectionsOf(context)) {
        std::optional<std::vector<ObjectAlive>>& items = alive.collections[name];
        if (const ObjectSnapshot* found = Find(all, collection)) {
            items.emplace();
            for (const WDFOBJECT item : found->items) {
                items->push_back(Describe(*Find(all, item), all));
            }
        }
    }
    const auto fields = layout::FieldsOfDeviceAdd(context);
    std::int64_t blocks = 0;
    for (const auto& use : machine().PoolInUse()) {
        blocks += static_cast<std::int64_t>(use.blockCount);
    }
    alive.counts = {{"attached", context.wpcdClient != nullptr ? 1 : 0},
                    {"power callback", context.powerCallbackRegistration != nullptr ? 1 : 0},
                    {"driver referenced", driver->references - driverReferences_},
                    {"context fields", std::ssize(fields) - std::ranges::count(fields, nullptr)},
                    {"second deletes", static_cast<std::int64_t>(machine().SecondDeletes())},
                    {"pool", blocks}};
    for (const auto& [lock, name] : {std::pair(context.clientsLock, "clients"),
                                     {context.commandsLock, "commands"},
                                     {context.notifyCommandsLock, "commands item"},
                                     {context.generalLock, "general"},
                                     {context.statesLock, "states"},
                                     {context.notifyStatesLock, "states item"}}) {
        if (const ObjectSnapshot* found = Find(all, lock); found != nullptr && found->held) {
            alive.heldLocks.insert(name);
        }
    }
    for (const auto& [item, name] : {std::pair(context.addItem, "add"),
                                     {context.notifyCommandsItem, "commands"},
                                     {context.removeItem, "remove"},
                                     {context.notifyStatesItem, "states"}}) {
        if (const ObjectSnapshot* found = Find(all, item); found != nullptr && found->queued) {
            alive.queuedItems.insert(name);
        }
    }
    return alive;
}

}  // namespace fault_injection
