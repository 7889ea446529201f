// Handles: opaque numbers that are never reused, so that a dead one is recognised for what it was.
#include "host/framework/framework.h"

#include <algorithm>
#include <cstdio>

namespace host::framework {
namespace {

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
    case ObjectType::kKey:
        return "registry key";
    case ObjectType::kGeneral:
        return "object";
    }
    return "?";
}

std::string Framework::Describe(const Object& object)
{
    const std::uint64_t index = (reinterpret_cast<std::uint64_t>(object.handle) - kHandleBase) / kHandleStep;
    std::string text = std::string(Name(object.type)) + " #" + std::to_string(index);
    if (!object.name.empty()) {
        text += " (" + object.name + ")";
    } else if (!object.contexts.empty()) {
        text += std::string(" (") + object.contexts.front().type->ContextName + ")";
    }
    return text;
}

std::uint32_t Framework::NameIndex(const std::string& name)
{
    const auto found = std::find(names_.begin(), names_.end(), name);
    if (found != names_.end()) {
        return static_cast<std::uint32_t>(found - names_.begin());
    }
    names_.push_back(name);
    return static_cast<std::uint32_t>(names_.size() - 1);
}

void Framework::Register(std::unique_ptr<Object> object, Object* parent)
{
    Object& registered = *object;
    registered.handle = reinterpret_cast<WDFOBJECT>(kHandleBase + (slots_.size() + 1) * kHandleStep);
    if (parent != nullptr) {
        registered.parent = parent;
        registered.previousSibling = parent->lastChild;
        (parent->lastChild != nullptr ? parent->lastChild->nextSibling : parent->firstChild) = &registered;
        parent->lastChild = &registered;
    }
    const std::string name =
        registered.contexts.empty() ? std::string() : registered.contexts.front().type->ContextName;
    slots_.push_back({std::move(object), registered.type, NameIndex(name)});
}

const Framework::Slot* Framework::SlotOf(const void* handle) const
{
    const auto value = reinterpret_cast<std::uint64_t>(handle);
    if (value <= kHandleBase || (value - kHandleBase) % kHandleStep != 0 ||
        (value - kHandleBase) / kHandleStep > slots_.size()) {
        return nullptr;
    }
    return &slots_[(value - kHandleBase) / kHandleStep - 1];
}

const Object* Framework::Peek(const void* handle) const
{
    const Slot* slot = SlotOf(handle);
    return slot == nullptr ? nullptr : slot->object.get();
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

void Framework::ReportWrongType(const PlatformCall& call, const Object& object, const char* argument,
                                ObjectType wanted)
{
    call.Violation(checks::Rule::kWrongHandleType,
                   std::string(argument) + " is " + Describe(object) + ", not a " + Name(wanted));
}

void Framework::ForEachObject(const std::function<void(const Object&)>& visit) const
{
    for (const Slot& slot : slots_) {
        if (slot.object != nullptr) {
            visit(*slot.object);
        }
    }
}

void Framework::Destroy(std::unique_lock<std::mutex>& lock, Object& object)
{
    for (const Context& context : object.contexts) {
        if (context.destroy != nullptr) {
            lock.unlock();
            Guarded("EvtDestroyCallback", reinterpret_cast<const void*>(context.destroy),
                    [&] { context.destroy(object.handle); });
            lock.lock();
        }
    }
    if (object.destroy != nullptr) {
        lock.unlock();
        Guarded("EvtDestroyCallback", reinterpret_cast<const void*>(object.destroy),
                [&] { object.destroy(object.handle); });
        lock.lock();
    }
    if (object.type == ObjectType::kCollection) {
        auto& collection = static_cast<CollectionObject&>(object);
        while (!collection.items.empty()) {
            Object* item = collection.items.front();
            collection.items.pop_front();
            Dereference(lock, *item);
        }
    }
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
    const std::uint64_t index = (reinterpret_cast<std::uint64_t>(object.handle) - kHandleBase) / kHandleStep - 1;
    slots_[index].object.reset();
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
