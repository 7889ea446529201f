// Handles: opaque numbers that are never reused, so that a dead one is recognised for what it was.
#include "host/framework/framework.h"

#include <algorithm>
#include <cstdio>

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

std::uint64_t Framework::NextIndex()
{
    return g_nextIndex;
}

void Framework::NoteIndices() const
{
    g_nextIndex = firstIndex_ + slots_.size();
}

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

std::uint32_t Framework::NameIndex(std::string_view name)
{
    const auto found = std::find(names_.begin(), names_.end(), name);
    if (found != names_.end()) {
        return static_cast<std::uint32_t>(found - names_.begin());
    }
    names_.emplace_back(name);
    return static_cast<std::uint32_t>(names_.size() - 1);
}

void Framework::Register(std::unique_ptr<Object> object, Object* parent)
{
    Object& registered = *object;
    registered.handle = reinterpret_cast<WDFOBJECT>(kHandleBase + (firstIndex_ + slots_.size()) * kHandleStep);
    registered.serial = ++serials_[registered.type];
    if (registered.executionLevel == WdfExecutionLevelInheritFromParent) {
        registered.executionLevel = parent != nullptr ? parent->executionLevel : WdfExecutionLevelDispatch;
    }
    if (registered.synchronizationScope == WdfSynchronizationScopeInheritFromParent) {
        registered.synchronizationScope =
            parent != nullptr ? parent->synchronizationScope : WdfSynchronizationScopeNone;
    }
    registered.previousAlive = lastAlive_;
    (lastAlive_ != nullptr ? lastAlive_->nextAlive : firstAlive_) = &registered;
    lastAlive_ = &registered;
    if (parent != nullptr) {
        registered.parent = parent;
        registered.previousSibling = parent->lastChild;
        (parent->lastChild != nullptr ? parent->lastChild->nextSibling : parent->firstChild) = &registered;
        parent->lastChild = &registered;
    }
    const std::string_view name =
        registered.contexts.empty() ? std::string_view() : registered.contexts.front().type->ContextName;
    slots_.push_back({std::move(object), registered.type, NameIndex(name)});
}

const Framework::Slot* Framework::SlotOf(const void* handle) const
{
    const std::uint64_t offset = reinterpret_cast<std::uint64_t>(handle) - kHandleBase;
    const std::uint64_t index = offset / kHandleStep - firstIndex_;
    return offset % kHandleStep != 0 || index >= slots_.size() ? nullptr : &slots_[index];
}

const Object* Framework::Peek(const void* handle) const
{
    const Slot* slot = SlotOf(handle);
    return slot == nullptr ? nullptr : slot->object.get();
}

bool Framework::WasRequest(const void* handle) const
{
    const Slot* slot = SlotOf(handle);
    return slot != nullptr && slot->object == nullptr && slot->type == ObjectType::kRequest;
}

Object* Framework::ResolveAny(const PlatformCall& call, const void* handle, const char* argument)
{
    if (handle == nullptr) {
        call.Violation(checks::Rule::kNullHandle, std::string(argument) + " is a null handle");
        return nullptr;
    }
    const Slot* slot = SlotOf(handle);
    if (slot == nullptr) {
        call.Violation(checks::Rule::kForeignHandle,
                       std::string(argument) + " " + HandleText(handle) + " was never handed out");
        return nullptr;
    }
    if (slot->object == nullptr) {
        const std::string& name = names_[slot->nameIndex];
        call.Violation(checks::Rule::kDeadHandle, std::string(argument) + " " + HandleText(handle) + " was a " +
                                                      Name(slot->type) + (name.empty() ? "" : " (" + name + ")") +
                                                      " that is gone");
        return nullptr;
    }
    return slot->object.get();
}

void Framework::ReportWrongType(const PlatformCall& call, const Object& object, const char* argument, ObjectType wanted)
{
    call.Violation(checks::Rule::kWrongHandleType,
                   std::string(argument) + " is " + Describe(object) + ", not a " + Name(wanted));
}

void Framework::ForEachObject(const std::function<void(const Object&)>& visit) const
{
    for (const Object* object = firstAlive_; object != nullptr; object = object->nextAlive) {
        visit(*object);
    }
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
            Object* item = collection.items.front();
            collection.items.pop_front();
            Dereference(lock, *item);
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
        lockOrders.erase(object.handle);
        for (auto& [held, later] : lockOrders) {
            later.erase(object.handle);
        }
    }
    (object.previousAlive != nullptr ? object.previousAlive->nextAlive : firstAlive_) = object.nextAlive;
    (object.nextAlive != nullptr ? object.nextAlive->previousAlive : lastAlive_) = object.previousAlive;
    slots_[reinterpret_cast<std::uint64_t>(object.handle) / kHandleStep - kHandleBase / kHandleStep - firstIndex_]
        .object.reset();
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
