#include "host/framework/handle_table.h"

namespace host::framework {
namespace {

// The first index that no machine of this process has used.
std::atomic<std::uint64_t> g_nextIndex{1};

}  // namespace

const char* Name(ObjectType type)
{
    switch (type) {
    case ObjectType::kDriver:
        return "driver";
    case ObjectType::kDevice:
        return "device";
    case ObjectType::kQueue:
        return "queue";
    case ObjectType::kRequest:
        return "request";
    case ObjectType::kFileObject:
        return "file object";
    case ObjectType::kCollection:
        return "collection";
    case ObjectType::kWaitLock:
        return "wait lock";
    case ObjectType::kSpinLock:
        return "spin lock";
    case ObjectType::kWorkItem:
        return "work item";
    case ObjectType::kTimer:
        return "timer";
    case ObjectType::kMemory:
        return "memory object";
    case ObjectType::kString:
        return "string object";
    case ObjectType::kResourceList:
        return "resource list";
    case ObjectType::kIoTarget:
        return "I/O target";
    case ObjectType::kKey:
        return "registry key";
    case ObjectType::kGeneral:
        return "general object";
    }
    return "?";
}

ContextList::~ContextList()
{
    while (first_ != nullptr) {
        const std::unique_ptr<Context> ended(first_);
        first_ = ended->next;
    }
}

void ContextList::Add(std::unique_ptr<Context> context)
{
    Context* added = context.release();
    (last_ != nullptr ? last_->next : first_) = added;
    last_ = added;
}

// ---- The table ----

HandleTable::HandleTable() : first_(kHandleBase + g_nextIndex * kHandleStep)
{
    current_ = this;
}

HandleTable::~HandleTable()
{
    current_ = nullptr;
    g_nextIndex += count_;
    ForEach([](Object& object) { delete &object; });
}

bool HandleTable::WasRequest(const void* handle) const
{
    const Slot* slot = Find(handle);
    return slot != nullptr && slot->object == nullptr && slot->type == ObjectType::kRequest;
}

void HandleTable::Add(std::unique_ptr<Object> object)
{
    const std::uint64_t index = count_.load(std::memory_order_relaxed);
    const std::uint64_t place = index + (std::uint64_t{1} << kFirstChunkBits);
    if (std::has_single_bit(place)) {
        chunks_[static_cast<unsigned>(std::bit_width(place)) - 1 - kFirstChunkBits] = std::make_unique<Slot[]>(place);
    }
    Object& added = *object.release();
    Slot& slot = At(index);
    added.handle = reinterpret_cast<WDFOBJECT>(first_ + index * kHandleStep);
    added.slot = &slot;
    added.serial_ = ++serials_[static_cast<std::size_t>(added.type)];
    added.previousAlive_ = lastAlive_;
    (lastAlive_ != nullptr ? lastAlive_->nextAlive_ : firstAlive_) = &added;
    lastAlive_ = &added;
    std::string_view name;
    if (!added.contexts.empty()) {
        const Context& context = added.contexts.front();
        name = context.type->ContextName;
        slot.contextType = context.type;
        slot.contextMemory = context.memory;
    }
    if (lastName_ == nullptr || *lastName_ != name) {
        const auto known = names_.find(name);
        lastName_ = known != names_.end() ? &*known : &*names_.emplace(name).first;
    }
    slot.name = lastName_;
    slot.type = added.type;
    slot.object.store(&added, std::memory_order_release);
    count_.store(index + 1, std::memory_order_release);
}

void HandleTable::Remove(Object& object)
{
    (object.previousAlive_ != nullptr ? object.previousAlive_->nextAlive_ : firstAlive_) = object.nextAlive_;
    (object.nextAlive_ != nullptr ? object.nextAlive_->previousAlive_ : lastAlive_) = object.previousAlive_;
    object.slot->object.store(nullptr, std::memory_order_release);
    std::atomic_thread_fence(std::memory_order_release);  // before its memory serves another
    delete &object;
}

void HandleTable::ForEach(const std::function<void(Object&)>& visit) const
{
    Object* next = nullptr;
    for (Object* object = firstAlive_; object != nullptr; object = next) {
        next = object->nextAlive_;
        visit(*object);
    }
}

}  // namespace host::framework
