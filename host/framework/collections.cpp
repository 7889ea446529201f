#include "host/framework/collections.h"

#include "host/armed.h"
#include "host/framework/functions.h"

#include <algorithm>

namespace host::framework {

using checks::Rule;

Object* CollectionObject::Take(std::size_t index)
{
    Object* item = HandleTable::Current().Peek(items_[index]);
    items_.Erase(index);
    return item;
}

void CollectionObject::OnDestroy(Framework& framework, std::unique_lock<std::mutex>& lock)
{
    while (items_.size() != 0) {
        if (Object* item = Take(0)) {
            framework.objects.Dereference(lock, *item);
        }
    }
}

void CollectionObject::Show(ObjectSnapshot& view) const
{
    for (std::size_t index = 0; index < items_.size(); ++index) {
        view.items.push_back(items_[index]);
    }
}

namespace functions {

NTSTATUS NTAPI CollectionCreate(PWDF_DRIVER_GLOBALS globals, PWDF_OBJECT_ATTRIBUTES attributes,
                                WDFCOLLECTION* collection)
{
    const PlatformCall call("WdfCollectionCreate", HOST_CALLER, DISPATCH_LEVEL);
    ClearOnEntry(collection);
    return Create<CollectionObject>(call, globals, attributes, collection, "Collection");
}

namespace {

[[gnu::noinline]] ULONG NTAPI GetCountChecked(PWDF_DRIVER_GLOBALS, WDFCOLLECTION handle)
{
    const PlatformCall call("WdfCollectionGetCount", HOST_CALLER, DISPATCH_LEVEL);
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    const auto* collection = framework.objects.Resolve<CollectionObject>(call, handle, "Collection");
    if (collection == nullptr) {
        return 0;
    }
    // A fault lets the collection claim one item more than it has.
    return collection->items().size() + (call.fault() ? 1 : 0);
}

}  // namespace

ULONG NTAPI CollectionGetCount(PWDF_DRIVER_GLOBALS globals, WDFCOLLECTION handle)
{
    if (!IsAnythingArmed() && ThreadState::IsAtMost(APC_LEVEL)) {
        const auto count = CollectionObject::CountAtOnce(HandleTable::Current().Find(handle));
        if (count) {
            return *count;
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
    auto* collection = framework.objects.Resolve<CollectionObject>(call, handle, "Collection");
    Object* item = framework.objects.ResolveAny(call, itemHandle, "Object");
    if (collection == nullptr || item == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    ObjectTree::Reference(*item);
    collection->Add(*item);
    return call.Done();
}

void NTAPI CollectionRemove(PWDF_DRIVER_GLOBALS, WDFCOLLECTION handle, WDFOBJECT itemHandle)
{
    const PlatformCall call("WdfCollectionRemove", HOST_CALLER, DISPATCH_LEVEL);
    Framework& framework = Framework::Current();
    std::unique_lock lock(framework.mutex);
    auto* collection = framework.objects.Resolve<CollectionObject>(call, handle, "Collection");
    Object* item = framework.objects.ResolveAny(call, itemHandle, "Item");
    if (collection == nullptr || item == nullptr) {
        return;
    }
    const std::size_t index = collection->items().Find(itemHandle);
    collection->CountSteps(index + 1);
    if (index == collection->items().size()) {
        call.Violation(Rule::kCollectionItem, Describe(*item) + " is not in " + Describe(*collection));
        return;
    }
    if (Object* taken = collection->Take(index)) {
        framework.objects.Dereference(lock, *taken);
    }
}

void NTAPI CollectionRemoveItem(PWDF_DRIVER_GLOBALS, WDFCOLLECTION handle, ULONG index)
{
    const PlatformCall call("WdfCollectionRemoveItem", HOST_CALLER, DISPATCH_LEVEL);
    Framework& framework = Framework::Current();
    std::unique_lock lock(framework.mutex);
    auto* collection = framework.objects.Resolve<CollectionObject>(call, handle, "Collection");
    if (collection == nullptr) {
        return;
    }
    if (index >= collection->items().size()) {
        call.Violation(Rule::kCollectionItem, "index " + std::to_string(index) + " of " + Describe(*collection) +
                                                  " with " + std::to_string(collection->items().size()) + " items");
        return;
    }
    collection->CountSteps(index + 1);
    if (Object* taken = collection->Take(index)) {
        framework.objects.Dereference(lock, *taken);
    }
}

namespace {

[[gnu::noinline]] WDFOBJECT NTAPI GetItemChecked(PWDF_DRIVER_GLOBALS, WDFCOLLECTION handle, ULONG index)
{
    const PlatformCall call("WdfCollectionGetItem", HOST_CALLER, DISPATCH_LEVEL);
    if (call.fault()) {
        return nullptr;
    }
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    auto* collection = framework.objects.Resolve<CollectionObject>(call, handle, "Collection");
    if (collection == nullptr) {
        return nullptr;
    }
    collection->CountSteps(std::min(std::size_t{index} + 1, std::size_t{collection->items().size()}));
    return index >= collection->items().size() ? nullptr : collection->items()[index];
}

WDFOBJECT ItemAtEnd(const PlatformCall& call, WDFCOLLECTION handle, bool isFirst)
{
    if (call.fault()) {
        return nullptr;
    }
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    auto* collection = framework.objects.Resolve<CollectionObject>(call, handle, "Collection");
    const std::uint32_t count = collection != nullptr ? collection->items().size() : 0;
    if (count == 0) {
        return nullptr;
    }
    collection->CountSteps(1);
    return collection->items()[isFirst ? 0 : count - 1];
}

[[gnu::noinline]] WDFOBJECT NTAPI GetFirstItemChecked(PWDF_DRIVER_GLOBALS, WDFCOLLECTION handle)
{
    const PlatformCall call("WdfCollectionGetFirstItem", HOST_CALLER, DISPATCH_LEVEL);
    return ItemAtEnd(call, handle, true);
}

}  // namespace

WDFOBJECT NTAPI CollectionGetItem(PWDF_DRIVER_GLOBALS globals, WDFCOLLECTION handle, ULONG index)
{
    if (!IsAnythingArmed() && ThreadState::IsAtMost(APC_LEVEL)) {
        const WDFOBJECT item = CollectionObject::ItemAtOnce(HandleTable::Current().Find(handle), index);
        if (item != nullptr) {
            return item;
        }
    }
    [[clang::musttail]] return GetItemChecked(globals, handle, index);
}

WDFOBJECT NTAPI CollectionGetFirstItem(PWDF_DRIVER_GLOBALS globals, WDFCOLLECTION handle)
{
    if (!IsAnythingArmed() && ThreadState::IsAtMost(APC_LEVEL)) {
        const WDFOBJECT item = CollectionObject::ItemAtOnce(HandleTable::Current().Find(handle), 0);
        if (item != nullptr) {
            return item;
        }
    }
    [[clang::musttail]] return GetFirstItemChecked(globals, handle);
}

WDFOBJECT NTAPI CollectionGetLastItem(PWDF_DRIVER_GLOBALS, WDFCOLLECTION handle)
{
    const PlatformCall call("WdfCollectionGetLastItem", HOST_CALLER, DISPATCH_LEVEL);
    return ItemAtEnd(call, handle, false);
}

}  // namespace functions
}  // namespace host::framework
