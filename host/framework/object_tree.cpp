#include "host/framework/object_tree.h"

#include "host/framework/framework.h"
#include "host/framework/object_names.h"

#include <algorithm>
#include <cstdio>

namespace host::framework {

using checks::Rule;

namespace {

std::string HandleText(const void* handle)
{
    char text[24];
    std::snprintf(text, sizeof(text), "0x%llX",
                  static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(handle)));
    return text;
}

const Object* DriverOf(const Object& object)
{
    return object.driver != nullptr ? object.driver->driver : nullptr;
}

// Whose removal waits for the object's disposal.
const Object* OwnerOfDisposals(const Object& object)
{
    for (const Object* above = object.parent(); above != nullptr; above = above->parent()) {
        if (above->type == ObjectType::kDevice) {
            return above;
        }
    }
    return DriverOf(object);
}

bool TreeNeedsPassiveLevel(const Object& object)
{
    if (object.NeedsPassiveLevel()) {
        return true;
    }
    for (const Object* child = object.firstChild(); child != nullptr; child = child->nextSibling()) {
        if (TreeNeedsPassiveLevel(*child)) {
            return true;
        }
    }
    return false;
}

}  // namespace

std::string Describe(const Object& object)
{
    std::string text = std::string(Name(object.type)) + " #" + std::to_string(object.serial_);
    if (!object.name.empty()) {
        text += " (" + object.name + ")";
    } else if (!object.contexts.empty()) {
        text += std::string(" (") + object.contexts.front().type->ContextName + ")";
    } else if (const std::string name = MemberThatKeeps(object); !name.empty()) {
        text += " (" + name + ")";
    }
    return text;
}

// ---- Creation and handles ----

void ObjectTree::Register(std::unique_ptr<Object> object, Object* parent)
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
        registered.parent_ = parent;
        registered.previousSibling_ = parent->lastChild_;
        (parent->lastChild_ != nullptr ? parent->lastChild_->nextSibling_ : parent->firstChild_) = &registered;
        parent->lastChild_ = &registered;
    }
    registered.createdBy = framework_.environment.PathNow();
    framework_.handles.Add(std::move(object));
}

void ObjectTree::Unlink(Object& object)
{
    if (object.parent_ == nullptr) {
        return;
    }
    Object& parent = *object.parent_;
    (object.previousSibling_ != nullptr ? object.previousSibling_->nextSibling_ : parent.firstChild_) =
        object.nextSibling_;
    (object.nextSibling_ != nullptr ? object.nextSibling_->previousSibling_ : parent.lastChild_) =
        object.previousSibling_;
    object.parent_ = nullptr;
    object.previousSibling_ = nullptr;
    object.nextSibling_ = nullptr;
}

Object* ObjectTree::ResolveAny(const PlatformCall& call, const void* handle, const char* argument) const
{
    if (handle == nullptr) {
        call.Violation(Rule::kNullHandle, std::string(argument) + " is a null handle");
        return nullptr;
    }
    const Slot* slot = framework_.handles.Find(handle);
    if (slot == nullptr) {
        call.Violation(Rule::kForeignHandle,
                       std::string(argument) + " " + HandleText(handle) + " was never handed out");
        return nullptr;
    }
    Object* object = slot->object.load(std::memory_order_acquire);
    if (object == nullptr) {
        const std::string& name = *slot->name;
        call.Violation(Rule::kDeadHandle, std::string(argument) + " " + HandleText(handle) + " was a " +
                                              Name(slot->type) + (name.empty() ? "" : " (" + name + ")") +
                                              " that is gone");
        return nullptr;
    }
    return object;
}

void ObjectTree::ReportWrongType(const PlatformCall& call, const Object& object, const char* argument,
                                 ObjectType wanted)
{
    call.Violation(Rule::kWrongHandleType,
                   std::string(argument) + " is " + Describe(object) + ", not a " + Name(wanted));
}

// ---- References ----

bool ObjectTree::ReferenceForDriver(Object& object) const
{
    constexpr std::size_t kTakersKnown = 4;
    if (object.references_ == 0) {
        return false;
    }
    ++object.references_;
    ++object.driverReferences_;
    if (object.referencedBy_.size() < kTakersKnown && framework_.environment.options.recordsPaths) {
        checks::Addresses path = framework_.environment.PathNow();
        if (std::ranges::find(object.referencedBy_, path) == object.referencedBy_.end()) {
            object.referencedBy_.push_back(std::move(path));
        }
    }
    return true;
}

bool ObjectTree::DereferenceForDriver(std::unique_lock<std::mutex>& lock, Object& object)
{
    if (object.driverReferences_ == 0) {
        return false;
    }
    if (--object.driverReferences_ == 0) {
        object.referencedBy_.clear();
    }
    Dereference(lock, object);
    return true;
}

void ObjectTree::Dereference(std::unique_lock<std::mutex>& lock, Object& object)
{
    if (--object.references_ != 0) {
        return;
    }
    if (ThreadState::Current().irql > PASSIVE_LEVEL && object.NeedsPassiveLevel()) {
        // By the driver's own list, whatever device it was below: that may be gone.
        framework_.work.Defer(DriverOf(object), &object, [this, &object] {
            std::unique_lock later(framework_.mutex);
            Destroy(later, object);
        });
        return;
    }
    Destroy(lock, object);
}

// ---- Disposal ----

void ObjectTree::Delete(std::unique_lock<std::mutex>& lock, Object& object)
{
    if (object.deleted_) {
        ++secondDeletes_;
        return;
    }
    if (object.parent_ != nullptr && object.parent_->deleted_) {
        return;  // the parent's end is under way and includes it
    }
    object.deleted_ = true;
    const Object* owner = OwnerOfDisposals(object);
    Unlink(object);
    if (ThreadState::Current().irql > PASSIVE_LEVEL && TreeNeedsPassiveLevel(object)) {
        framework_.work.Defer(owner, &object, [this, &object] {
            std::unique_lock later(framework_.mutex);
            DisposeAndFinish(later, object);
        });
        return;
    }
    DisposeAndFinish(lock, object);
}

void ObjectTree::DisposeAndFinish(std::unique_lock<std::mutex>& lock, Object& object)
{
    // While it is disposed nobody may take its memory away.
    Reference(object);
    Dispose(lock, object);
    Finish(lock, object);
    object.OnFinished(framework_, lock);
    Dereference(lock, object);
}

void ObjectTree::Dispose(std::unique_lock<std::mutex>& lock, Object& object)
{
    object.deleted_ = true;
    for (Object* child = object.firstChild_; child != nullptr; child = child->nextSibling_) {
        if (!child->deleted_) {
            Dispose(lock, *child);
        }
    }
    object.OnDispose(framework_, lock);
    // The creation attributes come first, whether or not they brought a context.
    CallBack(lock, "EvtCleanupCallback", object.cleanup, object);
    for (const Context& context : object.contexts) {
        CallBack(lock, "EvtCleanupCallback", context.cleanup, object);
    }
}

void ObjectTree::Finish(std::unique_lock<std::mutex>& lock, Object& object)
{
    object.deleted_ = true;
    object.finished_ = true;
    while (object.firstChild_ != nullptr) {
        Object& child = *object.firstChild_;
        Unlink(child);
        if (!child.finished_) {
            Finish(lock, child);
        }
    }
    Dereference(lock, object);
}

void ObjectTree::CallBack(std::unique_lock<std::mutex>& lock, const char* name, void(NTAPI* callback)(WDFOBJECT),
                          const Object& object)
{
    if (callback == nullptr) {
        return;
    }
    lock.unlock();
    framework_.threads.Guarded(name, reinterpret_cast<const void*>(callback), [&] { callback(object.handle); });
    lock.lock();
}

// ---- Destruction ----

void ObjectTree::Destroy(std::unique_lock<std::mutex>& lock, Object& object)
{
    // Callbacks may look at the object, so its handle stays valid until they have returned.
    CallBack(lock, "EvtDestroyCallback", object.destroy, object);
    for (const Context& context : object.contexts) {
        CallBack(lock, "EvtDestroyCallback", context.destroy, object);
    }
    object.OnDestroy(framework_, lock);
    Free(object);
}

void ObjectTree::Free(Object& object)
{
    for (const Context& context : object.contexts) {
        const std::string damage = framework_.kernel.contextMemory().Free(context.memory);
        if (!damage.empty()) {
            framework_.environment.Report(Rule::kPoolCorrupted, "object end",
                                          "the context " + std::string(context.type->ContextName) + " of " +
                                              Describe(object) + ": " + damage,
                                          nullptr);
        }
    }
    object.OnFree(framework_);
    framework_.handles.Remove(object);
}

void ObjectTree::ReportLeftBy(const DriverInstance& driver)
{
    framework_.handles.ForEach([&](Object& object) {
        if (object.driver != &driver) {
            return;
        }
        std::vector<Made> origins;
        for (const checks::Addresses& path : object.referencedBy_) {
            origins.push_back({"referenced", path});
        }
        origins.push_back({"created", object.createdBy});
        const std::string references =
            object.references_ == 1 ? "1 reference" : std::to_string(object.references_) + " references";
        if (object.finished_) {
            framework_.environment.ReportLeft(Rule::kReferenceLeak,
                                              Describe(object) + " was deleted, but keeps " + references, origins);
        } else {
            framework_.environment.ReportLeft(Rule::kLeak, Describe(object) + " is still alive, with " + references,
                                              origins);
        }
        framework_.work.Forget(object);
        Free(object);
    });
}

}  // namespace host::framework
