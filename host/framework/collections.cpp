// Collections: ordered, with duplicates, one reference for each entry; deleted items stay until they are removed.
#include "host/framework/functions.h"

#include <algorithm>

namespace host::framework::functions {

using checks::Rule;

NTSTATUS NTAPI CollectionCreate(PWDF_DRIVER_GLOBALS globals, PWDF_OBJECT_ATTRIBUTES attributes,
                                WDFCOLLECTION* collection)
{
    const PlatformCall call("WdfCollectionCreate", HOST_CALLER, DISPATCH_LEVEL);
    ClearOnEntry(collection);
    return Create<CollectionObject>(call, globals, attributes, collection, "Collection");
}

ULONG NTAPI CollectionGetCount(PWDF_DRIVER_GLOBALS, WDFCOLLECTION handle)
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
    collection->items.push_back(item);
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
    if (found == collection->items.end()) {
        call.Violation(Rule::kCollectionItem,
                       Framework::Describe(*item) + " is not in " + Framework::Describe(*collection));
        return;
    }
    collection->items.erase(found);
    framework.Dereference(lock, *item);
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
    Object* item = collection->items[index];
    collection->items.erase(collection->items.begin() + index);
    framework.Dereference(lock, *item);
}

WDFOBJECT NTAPI CollectionGetItem(PWDF_DRIVER_GLOBALS, WDFCOLLECTION handle, ULONG index)
{
    const PlatformCall call("WdfCollectionGetItem", HOST_CALLER, DISPATCH_LEVEL);
    if (call.fault()) {
        return nullptr;
    }
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    const auto* collection = framework.Resolve<CollectionObject>(call, handle, "Collection");
    return collection == nullptr || index >= collection->items.size() ? nullptr : collection->items[index]->handle;
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

}  // namespace host::framework::functions
