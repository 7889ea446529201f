// Collections: ordered, with duplicates, one reference for each entry; deleted items stay until they are removed.
#include "host/armed.h"
#include "host/framework/functions.h"

#include <algorithm>

namespace host::framework {

using checks::Rule;

void AddSteps(CollectionObject& collection, std::size_t steps)
{
    const SlotLock lock(*collection.slot);
    collection.listSteps += steps;
}

Object& TakeItem(CollectionObject& collection, std::size_t index)
{
    const SlotLock lock(*collection.slot);
    Object& item = *collection.items[index];
    collection.items.erase(collection.items.begin() + static_cast<std::ptrdiff_t>(index));
    collection.count.store(static_cast<std::uint32_t>(collection.items.size()), std::memory_order_release);
    return item;
}

namespace functions {

namespace {

// The collection behind a handle, for calls that nothing needs to look at; null for any other.
CollectionObject* CollectionAtOnce(const Slot* slot)
{
    return slot == nullptr || slot->type != ObjectType::kCollection
               ? nullptr
               : static_cast<CollectionObject*>(slot->object.load(std::memory_order_acquire));
}

}  // namespace

NTSTATUS NTAPI CollectionCreate(PWDF_DRIVER_GLOBALS globals, PWDF_OBJECT_ATTRIBUTES attributes,
                                WDFCOLLECTION* collection)
{
    const PlatformCall call("WdfCollectionCreate", HOST_CALLER, DISPATCH_LEVEL);
    ClearOnEntry(collection);
    return Create<CollectionObject>(call, globals, attributes, collection, "Collection");
}

namespace {

ULONG NTAPI GetCountChecked(PWDF_DRIVER_GLOBALS, WDFCOLLECTION handle)
{
    const PlatformCall call("WdfCollectionGetCount", HOST_CALLER, DISPATCH_LEVEL);
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    const auto* collection = framework.Resolve<CollectionObject>(call, handle, "Collection");
    if (collection == nullptr) {
        return 0;
    }
    // A fault lets the collection claim one item more than it has.
    return static_cast<ULONG>(collection->items.size()) + (call.fault() ? 1 : 0);
}

}  // namespace

ULONG NTAPI CollectionGetCount(PWDF_DRIVER_GLOBALS globals, WDFCOLLECTION handle)
{
    if (!IsAnythingArmed() && ThreadState::IsAtMost(DISPATCH_LEVEL)) {
        const Slot* slot = HandleTable::Current().Find(handle);
        if (const CollectionObject* collection = CollectionAtOnce(slot)) {
            const ULONG count = collection->count.load(std::memory_order_relaxed);
            std::atomic_thread_fence(std::memory_order_acquire);
            if (slot->object.load(std::memory_order_relaxed) == collection) {
                return count;
            }
        }
    }
    [[clang::musttail]] return GetCountChecked(globals, handle);
}

NTSTATUS NTAPI CollectionAdd(PWDF_DRIVER_GLOBALS, WDFCOLLECTION handle, WDFOBJECT itemHandle)
{
    const PlatformCall call("WdfCollectionAdd", HOST_CALLER, DISPATCH_LEVEL);
    if (call.IsRefused()) {
        return call.fault()->status;
    }
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    auto* collection = framework.Resolve<CollectionObject>(call, handle, "Collection");
    Object* item = framework.ResolveAny(call, itemHandle, "Object");
    if (collection == nullptr || item == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    framework.Reference(*item);
    const SlotLock own(*collection->slot);
    collection->items.push_back(item);
    collection->count.store(static_cast<std::uint32_t>(collection->items.size()), std::memory_order_release);
    return call.Done();
}

void NTAPI CollectionRemove(PWDF_DRIVER_GLOBALS, WDFCOLLECTION handle, WDFOBJECT itemHandle)
{
    const PlatformCall call("WdfCollectionRemove", HOST_CALLER, DISPATCH_LEVEL);
    Framework& framework = Framework::Current();
    std::unique_lock lock(framework.mutex);
    auto* collection = framework.Resolve<CollectionObject>(call, handle, "Collection");
    Object* item = framework.ResolveAny(call, itemHandle, "Item");
    if (collection == nullptr || item == nullptr) {
        return;
    }
    const auto found = std::find(collection->items.begin(), collection->items.end(), item);
    const auto index = static_cast<std::size_t>(found - collection->items.begin());
    AddSteps(*collection, index + 1);
    if (found == collection->items.end()) {
        call.Violation(Rule::kCollectionItem,
                       Framework::Describe(*item) + " is not in " + Framework::Describe(*collection));
        return;
    }
    framework.Dereference(lock, TakeItem(*collection, index));
}

void NTAPI CollectionRemoveItem(PWDF_DRIVER_GLOBALS, WDFCOLLECTION handle, ULONG index)
{
    const PlatformCall call("WdfCollectionRemoveItem", HOST_CALLER, DISPATCH_LEVEL);
    Framework& framework = Framework::Current();
    std::unique_lock lock(framework.mutex);
    auto* collection = framework.Resolve<CollectionObject>(call, handle, "Collection");
    if (collection == nullptr) {
        return;
    }
    if (index >= collection->items.size()) {
        call.Violation(Rule::kCollectionItem, "index " + std::to_string(index) + " of " +
                                                  Framework::Describe(*collection) + " with " +
                                                  std::to_string(collection->items.size()) + " items");
        return;
    }
    AddSteps(*collection, index + 1);
    framework.Dereference(lock, TakeItem(*collection, index));
}

namespace {

WDFOBJECT NTAPI GetItemChecked(PWDF_DRIVER_GLOBALS, WDFCOLLECTION handle, ULONG index)
{
    const PlatformCall call("WdfCollectionGetItem", HOST_CALLER, DISPATCH_LEVEL);
    if (call.fault()) {
        return nullptr;
    }
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    auto* collection = framework.Resolve<CollectionObject>(call, handle, "Collection");
    if (collection == nullptr) {
        return nullptr;
    }
    AddSteps(*collection, std::min<std::size_t>(index + 1, collection->items.size()));
    return index >= collection->items.size() ? nullptr : collection->items[index]->handle;
}

}  // namespace

WDFOBJECT NTAPI CollectionGetItem(PWDF_DRIVER_GLOBALS globals, WDFCOLLECTION handle, ULONG index)
{
    if (!IsAnythingArmed() && ThreadState::IsAtMost(DISPATCH_LEVEL)) {
        Slot* slot = HandleTable::Current().Find(handle);
        if (CollectionAtOnce(slot) != nullptr && slot->owner.exchange(1, std::memory_order_acquire) == 0) {
            // While the slot is locked the collection stays.
            auto* collection = static_cast<CollectionObject*>(slot->object.load(std::memory_order_relaxed));
            WDFOBJECT item = nullptr;
            if (collection != nullptr && index < collection->items.size()) {
                item = collection->items[index]->handle;
                collection->listSteps += index + 1;
            }
            slot->owner.store(0, std::memory_order_release);
            if (item != nullptr) {
                return item;
            }
        }
    }
    [[clang::musttail]] return GetItemChecked(globals, handle, index);
}

WDFOBJECT NTAPI CollectionGetFirstItem(PWDF_DRIVER_GLOBALS, WDFCOLLECTION handle)
{
    const PlatformCall call("WdfCollectionGetFirstItem", HOST_CALLER, DISPATCH_LEVEL);
    if (call.fault()) {
        return nullptr;
    }
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    const auto* collection = framework.Resolve<CollectionObject>(call, handle, "Collection");
    return collection == nullptr || collection->items.empty() ? nullptr : collection->items.front()->handle;
}

WDFOBJECT NTAPI CollectionGetLastItem(PWDF_DRIVER_GLOBALS, WDFCOLLECTION handle)
{
    const PlatformCall call("WdfCollectionGetLastItem", HOST_CALLER, DISPATCH_LEVEL);
    if (call.fault()) {
        return nullptr;
    }
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    const auto* collection = framework.Resolve<CollectionObject>(call, handle, "Collection");
    return collection == nullptr || collection->items.empty() ? nullptr : collection->items.back()->handle;
}

}  // namespace functions
}  // namespace host::framework
