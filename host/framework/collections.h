// Collections: ordered, with duplicates, one reference for each entry.
//
// They change under the framework's mutex; any thread may look for an item or the number of items without it.
#pragma once

#include "host/framework/handle_list.h"
#include "host/framework/handle_table.h"

#include <optional>

namespace host::framework {

class CollectionObject final : public Object, KeepsKind<CollectionObject> {
public:
    explicit CollectionObject(DriverInstance* owner) : Object(ObjectType::kCollection, owner) {}
    // What one of them was serves collections only: a thread may still look.
    using KeepsKind<CollectionObject>::operator new;
    using KeepsKind<CollectionObject>::operator delete;

    // ---- With the framework's mutex ----

    [[nodiscard]] const HandleList& items() const { return items_; }
    // The caller's reference becomes the collection's, and with Take the other way round. Take gives null for the item
    // of a driver that was unloaded meanwhile.
    void Add(const Object& item) { items_.Append(item.handle); }
    [[nodiscard]] Object* Take(std::size_t index);

    // The framework keeps a list and walks it from the head, to an index or to an item; here an index is found at once,
    // and the steps that the walks would take are counted: exactly while one thread at a time looks.
    void CountSteps(std::uint64_t steps)
    {
        steps_.store(steps_.load(std::memory_order_relaxed) + steps, std::memory_order_relaxed);
    }
    [[nodiscard]] std::uint64_t Steps() const { return steps_.load(std::memory_order_relaxed); }

    // ---- Without it, on any thread ----

    // The number of items; empty when the handle is no collection's.
    [[nodiscard]] static std::optional<std::uint32_t> CountAtOnce(const Slot* slot)
    {
        const CollectionObject* collection = At(slot);
        if (collection == nullptr) {
            return std::nullopt;
        }
        const std::uint32_t count = collection->items_.size();
        std::atomic_thread_fence(std::memory_order_acquire);
        return slot->object.load(std::memory_order_relaxed) == collection ? std::optional(count) : std::nullopt;
    }

    // Null when the handle is no collection's, while the collection is changed, and for an index without an item.
    [[nodiscard, gnu::always_inline]] static WDFOBJECT ItemAtOnce(const Slot* slot, std::size_t index)
    {
        CollectionObject* collection = At(slot);
        const WDFOBJECT item = collection == nullptr ? nullptr : collection->items_.Read(index);
        if (item == nullptr || slot->object.load(std::memory_order_relaxed) != collection) {
            return nullptr;
        }
        collection->CountSteps(index + 1);
        return item;
    }

    void OnDestroy(Framework& framework, std::unique_lock<std::mutex>& lock) override;
    void Show(ObjectSnapshot& view) const override;

private:
    static CollectionObject* At(const Slot* slot)
    {
        return slot == nullptr || slot->type != ObjectType::kCollection
                   ? nullptr
                   : static_cast<CollectionObject*>(slot->object.load(std::memory_order_acquire));
    }

    HandleList items_;
    std::atomic<std::uint64_t> steps_{0};
};

template <>
inline constexpr ObjectType kTypeOf<CollectionObject> = ObjectType::kCollection;

}  // namespace host::framework
