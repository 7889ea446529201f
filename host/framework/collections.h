// Collections: ordered, with duplicates, one reference for each entry.
//
// The framework's mutex guards them, and each has a lock besides, its slot's, for those who take only that: items
// change under both, so either is enough to look.
#pragma once

#include "host/framework/handle_table.h"

#include <deque>
#include <optional>

namespace host::framework {

class CollectionObject final : public Object {
public:
    explicit CollectionObject(DriverInstance* owner) : Object(ObjectType::kCollection, owner) {}

    // ---- With the framework's mutex ----

    [[nodiscard]] const std::deque<Object*>& items() const { return items_; }
    // The caller's reference becomes the collection's, and with Take the other way round.
    void Add(Object& item);
    [[nodiscard]] Object& Take(std::size_t index);
    // The framework keeps a list and walks it from the head, to an index or to an item; here an index is found at once,
    // and the steps that the walks would take are counted.
    void CountSteps(std::size_t steps);
    [[nodiscard]] std::uint64_t Steps() const;

    // ---- Without it, on any thread ----

    // The number of items; empty when the handle is no collection's.
    [[nodiscard]] static std::optional<std::uint32_t> CountAtOnce(const Slot* slot)
    {
        const CollectionObject* collection = At(slot);
        if (collection == nullptr) {
            return std::nullopt;
        }
        const std::uint32_t count = collection->count_.load(std::memory_order_relaxed);
        std::atomic_thread_fence(std::memory_order_acquire);
        return slot->object.load(std::memory_order_relaxed) == collection ? std::optional(count) : std::nullopt;
    }

    // Null when the handle is no collection's, when the collection is locked, and for an index without an item.
    [[nodiscard, gnu::always_inline]] static WDFOBJECT ItemAtOnce(Slot* slot, std::size_t index)
    {
        if (At(slot) == nullptr || slot->owner.exchange(1, std::memory_order_acquire) != 0) {
            return nullptr;
        }
        // While the slot is locked the collection stays.
        CollectionObject* collection = At(slot);
        WDFOBJECT item = nullptr;
        if (collection != nullptr && index < collection->items_.size()) {
            item = collection->items_[index]->handle;
            collection->steps_ += index + 1;
        }
        slot->owner.store(0, std::memory_order_release);
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

    std::deque<Object*> items_;
    std::atomic<std::uint32_t> count_{0};  // of them, for who takes no lock
    std::uint64_t steps_ = 0;              // guarded by the slot's lock
};

template <>
inline constexpr ObjectType kTypeOf<CollectionObject> = ObjectType::kCollection;

}  // namespace host::framework
