#include "host/framework/handle_table.h"

#include "host/framework/framework.h"

#include <cstdio>
#include <mutex>
#include <thread>
#include <vector>

namespace host::framework {
namespace {

// The first index that no machine of this process has used.
std::atomic<std::uint64_t> g_nextIndex{1};

std::string HandleText(const void* handle)
{
    char text[24];
    std::snprintf(text, sizeof(text), "0x%llX",
                  static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(handle)));
    return text;
}

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
    case ObjectType::kIoTarget:
        return "I/O target";
    case ObjectType::kKey:
        return "registry key";
    case ObjectType::kGeneral:
        return "general object";
    }
    return "?";
}

// ---- Memory by kind ----

namespace {

// Blocks that were given back, by their size; they are never returned to the system.
class BlocksOfKind {
public:
    void* Take(std::size_t bytes)
    {
        const std::lock_guard lock(mutex_);
        std::vector<void*>& free = FreeOf(bytes);
        if (free.empty()) {
            const std::size_t size = RoundUp(bytes);
            constexpr std::size_t kAtOnce = 32;
            auto* blocks = static_cast<std::byte*>(::operator new(size * kAtOnce));
            for (std::size_t block = kAtOnce; block-- > 0;) {
                free.push_back(blocks + block * size);
            }
        }
        void* memory = free.back();
        free.pop_back();
        return memory;
    }
    void Give(void* memory, std::size_t bytes)
    {
        const std::lock_guard lock(mutex_);
        FreeOf(bytes).push_back(memory);
    }

private:
    static constexpr std::size_t kStep = 64;
    static std::size_t RoundUp(std::size_t bytes) { return (bytes + kStep - 1) / kStep * kStep; }
    std::vector<void*>& FreeOf(std::size_t bytes)
    {
        const std::size_t kind = RoundUp(bytes) / kStep;
        if (free_.size() <= kind) {
            free_.resize(kind + 1);
        }
        return free_[kind];
    }

    std::mutex mutex_;
    std::vector<std::vector<void*>> free_;
};

template <class Kind>
BlocksOfKind& BlocksOf()
{
    static auto* blocks = new BlocksOfKind;  // the last machine may end after everything static
    return *blocks;
}

}  // namespace

template <class Kind>
void* KeepsKind<Kind>::operator new(std::size_t bytes)
{
    return BlocksOf<Kind>().Take(bytes);
}

template <class Kind>
void KeepsKind<Kind>::operator delete(void* memory, std::size_t bytes)
{
    BlocksOf<Kind>().Give(memory, bytes);
}

template struct KeepsKind<Object>;
template struct KeepsKind<Context>;

ContextList::~ContextList()
{
    Context* context = first_.exchange(nullptr, std::memory_order_relaxed);
    while (context != nullptr) {
        const std::unique_ptr<Context> ended(context);
        context = ended->next.load(std::memory_order_relaxed);
    }
}

void ContextList::Add(std::unique_ptr<Context> context)
{
    Context* added = context.release();
    (last_ != nullptr ? last_->next : first_).store(added, std::memory_order_release);
    last_ = added;
}

// ---- The table ----

SlotLock::SlotLock(Slot& slot) : slot_(slot)
{
    while (slot_.owner.exchange(1, std::memory_order_acquire) != 0) {
        std::this_thread::yield();
    }
}

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
    added.serial = ++serials_[static_cast<std::size_t>(added.type)];
    added.previousAlive = lastAlive_;
    (lastAlive_ != nullptr ? lastAlive_->nextAlive : firstAlive_) = &added;
    lastAlive_ = &added;
    const std::string_view name =
        added.contexts.empty() ? std::string_view() : added.contexts.front().type->ContextName;
    const auto known = names_.find(name);
    slot.name = known != names_.end() ? &*known : &*names_.emplace(name).first;
    slot.type = added.type;
    slot.object.store(&added, std::memory_order_release);
    count_.store(index + 1, std::memory_order_release);
}

void HandleTable::Remove(Object& object)
{
    (object.previousAlive != nullptr ? object.previousAlive->nextAlive : firstAlive_) = object.nextAlive;
    (object.nextAlive != nullptr ? object.nextAlive->previousAlive : lastAlive_) = object.previousAlive;
    if (object.type == ObjectType::kCollection) {
        const SlotLock lock(*object.slot);  // nobody looks for an item now
        object.slot->object.store(nullptr, std::memory_order_release);
    } else {
        object.slot->object.store(nullptr, std::memory_order_release);
    }
    delete &object;
}

void HandleTable::ForEach(const std::function<void(Object&)>& visit) const
{
    Object* next = nullptr;
    for (Object* object = firstAlive_; object != nullptr; object = next) {
        next = object->nextAlive;
        visit(*object);
    }
}

// ---- The framework's side ----

std::string Framework::Describe(const Object& object)
{
    std::string text = std::string(Name(object.type)) + " #" + std::to_string(object.serial);
    if (!object.name.empty()) {
        text += " (" + object.name + ")";
    } else if (!object.contexts.empty()) {
        text += std::string(" (") + object.contexts.front().type->ContextName + ")";
    }
    return text;
}

void Framework::Register(std::unique_ptr<Object> object, Object* parent)
{
    Object& registered = *object;
    if (registered.executionLevel == WdfExecutionLevelInheritFromParent) {
        registered.executionLevel = parent != nullptr ? parent->executionLevel : WdfExecutionLevelDispatch;
    }
    if (registered.synchronizationScope == WdfSynchronizationScopeInheritFromParent) {
        registered.synchronizationScope =
            parent != nullptr ? parent->synchronizationScope : WdfSynchronizationScopeNone;
    }
    if (parent != nullptr) {
        registered.parent = parent;
        registered.previousSibling = parent->lastChild;
        (parent->lastChild != nullptr ? parent->lastChild->nextSibling : parent->firstChild) = &registered;
        parent->lastChild = &registered;
    }
    handles.Add(std::move(object));
}

Object* Framework::ResolveAny(const PlatformCall& call, const void* handle, const char* argument)
{
    if (handle == nullptr) {
        call.Violation(checks::Rule::kNullHandle, std::string(argument) + " is a null handle");
        return nullptr;
    }
    const Slot* slot = handles.Find(handle);
    if (slot == nullptr) {
        call.Violation(checks::Rule::kForeignHandle,
                       std::string(argument) + " " + HandleText(handle) + " was never handed out");
        return nullptr;
    }
    Object* object = slot->object.load(std::memory_order_acquire);
    if (object == nullptr) {
        const std::string& name = *slot->name;
        call.Violation(checks::Rule::kDeadHandle, std::string(argument) + " " + HandleText(handle) + " was a " +
                                                      Name(slot->type) + (name.empty() ? "" : " (" + name + ")") +
                                                      " that is gone");
        return nullptr;
    }
    return object;
}

void Framework::ReportWrongType(const PlatformCall& call, const Object& object, const char* argument, ObjectType wanted)
{
    call.Violation(checks::Rule::kWrongHandleType,
                   std::string(argument) + " is " + Describe(object) + ", not a " + Name(wanted));
}

void Framework::Destroy(std::unique_lock<std::mutex>& lock, Object& object)
{
    // Callbacks may look at the object, so its handle lives until they are through.
    if (object.destroy != nullptr) {
        lock.unlock();
        Guarded("EvtDestroyCallback", reinterpret_cast<const void*>(object.destroy),
                [&] { object.destroy(object.handle); });
        lock.lock();
    }
    for (const Context& context : object.contexts) {
        if (context.destroy != nullptr) {
            lock.unlock();
            Guarded("EvtDestroyCallback", reinterpret_cast<const void*>(context.destroy),
                    [&] { context.destroy(object.handle); });
            lock.lock();
        }
    }
    if (object.type == ObjectType::kCollection) {
        auto& collection = static_cast<CollectionObject&>(object);
        while (!collection.items.empty()) {
            Dereference(lock, TakeItem(collection, 0));
        }
    }
    FreeObject(object);
}

void Framework::FreeObject(Object& object)
{
    for (const Context& context : object.contexts) {
        const std::string damage = kernel.contextMemory().Free(context.memory);
        if (!damage.empty()) {
            environment.Report(checks::Rule::kPoolCorrupted, "object end",
                               "the context " + std::string(context.type->ContextName) + " of " + Describe(object) +
                                   ": " + damage,
                               nullptr);
        }
    }
    if (object.driver != nullptr && object.driver->driver == &object) {
        object.driver->driver = nullptr;
    }
    if (object.type == ObjectType::kWaitLock) {
        lockOrder.Forget(object.handle);
    }
    handles.Remove(object);
}

bool Requires(const PlatformCall& call, const void* pointer, const char* argument)
{
    if (pointer == nullptr) {
        call.Violation(checks::Rule::kRequiredParameter, std::string(argument) + " is null");
        return false;
    }
    return true;
}

}  // namespace host::framework
