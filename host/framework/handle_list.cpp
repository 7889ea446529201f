#include "host/framework/handle_list.h"

#include <memory>
#include <new>

namespace host::framework {

// ---- Blocks ----

HandleList::Block* HandleList::Block::Make(std::size_t capacity)
{
    auto* block = ::new (KeepsKind<Block>::operator new(Bytes(capacity))) Block;
    block->capacity_.store(capacity, std::memory_order_relaxed);
    std::uninitialized_value_construct_n(block->Handles(), capacity);
    return block;
}

void HandleList::Block::Free()
{
    KeepsKind<Block>::operator delete(this, Bytes(Capacity()));
}

HandleList::~HandleList()
{
    if (Block* block = block_.load(std::memory_order_relaxed)) {
        block->Free();
    }
}

// ---- Changes ----

HandleList::Change::Change(HandleList& list) : list_(list)
{
    list_.version_.store(list_.version_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);
}

HandleList::Change::~Change()
{
    list_.version_.store(list_.version_.load(std::memory_order_relaxed) + 1, std::memory_order_release);
}

std::atomic<WDFOBJECT>& HandleList::At(std::size_t index) const
{
    return block_.load(std::memory_order_relaxed)->Handles()[first_.load(std::memory_order_relaxed) + index];
}

WDFOBJECT HandleList::operator[](std::size_t index) const
{
    return At(index).load(std::memory_order_relaxed);
}

std::size_t HandleList::Find(WDFOBJECT handle) const
{
    std::size_t index = 0;
    while (index < size() && (*this)[index] != handle) {
        ++index;
    }
    return index;
}

// Moves the handles to the begin of their block, or to a larger one when that gains little.
void HandleList::MakeRoom()
{
    Block* const before = block_.load(std::memory_order_relaxed);
    const std::size_t capacity = before != nullptr ? before->Capacity() : 0;
    Block* block = before;
    if (size() >= capacity / 2) {
        constexpr std::size_t kFirst = 7;  // with the capacity in front of them, a power of two
        block = Block::Make(capacity == 0 ? kFirst : capacity * 2 + 1);
    }
    for (std::size_t index = 0; index < size(); ++index) {
        block->Handles()[index].store((*this)[index], std::memory_order_relaxed);
    }
    first_.store(0, std::memory_order_relaxed);
    block_.store(block, std::memory_order_release);
    if (before != nullptr && before != block) {
        before->Free();
    }
}

void HandleList::Append(WDFOBJECT handle)
{
    const Change change(*this);
    const Block* block = block_.load(std::memory_order_relaxed);
    if (block == nullptr || first_.load(std::memory_order_relaxed) + size() == block->Capacity()) {
        MakeRoom();
    }
    At(size()).store(handle, std::memory_order_relaxed);
    count_.store(size() + 1, std::memory_order_relaxed);
}

void HandleList::Erase(std::size_t index)
{
    const Change change(*this);
    if (index == 0) {
        first_.store(first_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
    for (; index != 0 && index + 1 < size(); ++index) {
        At(index).store((*this)[index + 1], std::memory_order_relaxed);
    }
    count_.store(size() - 1, std::memory_order_relaxed);
}

}  // namespace host::framework
