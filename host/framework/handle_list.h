// A list of handles that any thread may read while one thread changes it.
//
// Who changes it holds a lock of the owner's. Who reads takes none: it reads, and then sees by the version whether the
// list was changed meanwhile. A list may even end while it is read, and another one begin in its memory, which serves
// lists only; the owner must know how to tell that, as a collection does by its slot.
#pragma once

#include "host/framework/object.h"

namespace host::framework {

class HandleList {
public:
    HandleList() = default;
    ~HandleList();
    HandleList(const HandleList&) = delete;
    HandleList& operator=(const HandleList&) = delete;

    // ---- With the owner's lock ----

    [[nodiscard]] std::uint32_t size() const { return count_.load(std::memory_order_relaxed); }
    [[nodiscard]] WDFOBJECT operator[](std::size_t index) const;
    [[nodiscard]] std::size_t Find(WDFOBJECT handle) const;  // size() when it is not there
    void Append(WDFOBJECT handle);
    void Erase(std::size_t index);

    // ---- Without it, on any thread ----

    // Null while the list is changed, and for an index without an item.
    [[nodiscard, gnu::always_inline]] WDFOBJECT Read(std::size_t index) const
    {
        const std::uint32_t version = version_.load(std::memory_order_acquire);
        const Block* block = block_.load(std::memory_order_acquire);
        const std::size_t place = index + first_.load(std::memory_order_relaxed);
        if (IsBeingChanged(version) || index >= size() || block == nullptr || place >= block->Capacity()) {
            return nullptr;
        }
        const WDFOBJECT handle = block->Handles()[place].load(std::memory_order_relaxed);
        std::atomic_thread_fence(std::memory_order_acquire);
        return version_.load(std::memory_order_relaxed) == version ? handle : nullptr;
    }

private:
    // Room for handles, which stand behind it. Blocks of one size have one capacity, whatever list they serve.
    class Block {
    public:
        [[nodiscard]] static Block* Make(std::size_t capacity);
        void Free();
        [[nodiscard]] std::size_t Capacity() const { return capacity_.load(std::memory_order_relaxed); }
        [[nodiscard]] std::atomic<WDFOBJECT>* Handles() { return reinterpret_cast<std::atomic<WDFOBJECT>*>(this + 1); }
        [[nodiscard]] const std::atomic<WDFOBJECT>* Handles() const
        {
            return reinterpret_cast<const std::atomic<WDFOBJECT>*>(this + 1);
        }

    private:
        static std::size_t Bytes(std::size_t capacity)
        {
            return sizeof(Block) + capacity * sizeof(std::atomic<WDFOBJECT>);
        }
        std::atomic<std::size_t> capacity_;
    };

    // While one exists, readers see that the list is being changed.
    class Change {
    public:
        explicit Change(HandleList& list);
        ~Change();
        Change(const Change&) = delete;
        Change& operator=(const Change&) = delete;

    private:
        HandleList& list_;
    };
    static bool IsBeingChanged(std::uint32_t version) { return version % 2 != 0; }
    [[nodiscard]] std::atomic<WDFOBJECT>& At(std::size_t index) const;
    void MakeRoom();

    std::atomic<std::uint32_t> version_{0};
    std::atomic<std::uint32_t> first_{0};  // the place of the first handle in its block
    std::atomic<std::uint32_t> count_{0};
    std::atomic<Block*> block_{nullptr};
};

}  // namespace host::framework
