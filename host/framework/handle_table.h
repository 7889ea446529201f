// Handles: opaque numbers that are never reused, so that a dead one is recognised for what it was.
//
// Any thread may look a handle up without a lock: slots never move and never serve a second object, and memory of
// objects stays memory of objects. A thread that read something of an object and finds it in its slot still has read of
// the live one. Objects are added and removed under the framework's mutex.
#pragma once

#include "host/framework/object.h"

#include <array>
#include <bit>
#include <functional>
#include <set>
#include <string>

namespace host::framework {

inline constexpr std::uint64_t kHandleBase = 0xFFFFE00000000000;  // never a usable address
inline constexpr std::uint64_t kHandleStep = 8;                   // the low bits are free

// A handle's object, or what it was when it is gone.
struct Slot {
    std::atomic<Object*> object{nullptr};
    // A wait lock's: the ThreadState::id of its holder, 0: nobody. It outlives the object, so whoever takes it may find
    // the object gone.
    std::atomic<std::uint64_t> owner{0};
    std::atomic<const void*> takenAt{nullptr};  // where in an image; written by who takes a wait lock
    ObjectType type = ObjectType::kGeneral;
    std::atomic<std::uint32_t> waiting{0};  // threads that sleep until a wait lock is free, or are about to
    const std::string* name = nullptr;      // of the first context's type
    // The first context, once more: most look-ups ask for it. Both stay as they are from before the object stands here.
    PCWDF_OBJECT_CONTEXT_TYPE_INFO contextType = nullptr;
    void* contextMemory = nullptr;
};

class HandleTable {
public:
    HandleTable();
    ~HandleTable();
    HandleTable(const HandleTable&) = delete;
    HandleTable& operator=(const HandleTable&) = delete;

    // The table of the machine that exists; for the functions that ask nobody else.
    static HandleTable& Current() { return *current_; }

    // Null for what was never handed out.
    [[nodiscard]] Slot* Find(const void* handle) const
    {
        const std::uint64_t offset = reinterpret_cast<std::uint64_t>(handle) - first_;
        const std::uint64_t index = offset / kHandleStep;
        return offset % kHandleStep != 0 || index >= count_.load(std::memory_order_acquire) ? nullptr : &At(index);
    }

    // The object of a handle; null when it is dead or was never one.
    [[nodiscard]] Object* Peek(const void* handle) const
    {
        const Slot* slot = Find(handle);
        return slot == nullptr ? nullptr : slot->object.load(std::memory_order_acquire);
    }
    [[nodiscard]] bool WasRequest(const void* handle) const;  // a request that is gone

    // Gives the object its handle and its number among those of its type.
    void Add(std::unique_ptr<Object> object);
    // Frees it; its handle is dead from here on.
    void Remove(Object& object);

    // All objects alive, in creation order; an object may remove itself when it is visited.
    void ForEach(const std::function<void(Object&)>& visit) const;

private:
    // Each chunk is as large as all before it.
    static constexpr unsigned kFirstChunkBits = 8;
    [[nodiscard]] Slot& At(std::uint64_t index) const
    {
        const std::uint64_t place = index + (std::uint64_t{1} << kFirstChunkBits);
        const auto chunk = static_cast<std::size_t>(std::bit_width(place)) - 1 - kFirstChunkBits;
        return chunks_[chunk][place - std::bit_floor(place)];  // NOLINT(clang-analyzer-core.BitwiseShift): never zero
    }

    static inline HandleTable* current_ = nullptr;

    const std::uint64_t first_;  // handles of earlier machines lie below
    std::atomic<std::uint64_t> count_{0};
    std::array<std::unique_ptr<Slot[]>, 40> chunks_;
    Object* firstAlive_ = nullptr;
    Object* lastAlive_ = nullptr;
    std::array<unsigned, kObjectTypeCount> serials_{};
    std::set<std::string, std::less<>> names_;
    const std::string* lastName_ = nullptr;  // of them: drivers make many objects of one kind
};

}  // namespace host::framework
