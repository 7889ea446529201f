// Disposal and destruction of objects, in the framework's order, and the object calls of the table.
//
// Deleting an object disposes it: its children first, each one's subtree before the child itself; then what its type
// has to wait for or close; then its clean-up callbacks. After that its children and the object give up their creation
// references. References postpone only this last step, the destruction, for the object they are on.
#include "host/armed.h"
#include "host/framework/functions.h"
#include "host/framework/plug_play.h"

namespace host::framework {

using checks::Rule;

namespace {

const Object* DriverOf(const Object& object)
{
    return object.driver != nullptr ? object.driver->driver : nullptr;
}

}  // namespace

void Framework::Unlink(Object& object)
{
    if (object.parent == nullptr) {
        return;
    }
    Object& parent = *object.parent;
    (object.previousSibling != nullptr ? object.previousSibling->nextSibling : parent.firstChild) = object.nextSibling;
    (object.nextSibling != nullptr ? object.nextSibling->previousSibling : parent.lastChild) = object.previousSibling;
    object.parent = nullptr;
    object.previousSibling = nullptr;
    object.nextSibling = nullptr;
}

void Framework::Dereference(std::unique_lock<std::mutex>& lock, Object& object)
{
    if (--object.references != 0) {
        return;
    }
    if (ThreadState::Current().irql > PASSIVE_LEVEL && NeedsPassiveLevel(object)) {
        // By the driver's own list, whatever device it was below: that may be gone.
        Defer(DriverOf(object), object, [this, &object] {
            std::unique_lock later(mutex);
            Destroy(later, object);
        });
        return;
    }
    Destroy(lock, object);
}

void Framework::Dispose(std::unique_lock<std::mutex>& lock, Object& object)
{
    object.deleted = true;
    for (Object* child = object.firstChild; child != nullptr; child = child->nextSibling) {
        if (!child->deleted) {
            Dispose(lock, *child);
        }
    }
    if (object.type == ObjectType::kWorkItem) {
        DisposeWorkItem(lock, static_cast<WorkItemObject&>(object));
    } else if (object.type == ObjectType::kQueue) {
        DisposeQueue(lock, object);
    } else if (object.type == ObjectType::kIoTarget) {
        CloseTarget(*this, lock, static_cast<IoTargetObject&>(object), IoTargetObject::State::kClosed);
    } else if (object.type == ObjectType::kDriver) {
        WaitForDisposals(lock, object);
    }
    // The creation attributes come first, whether or not they brought a context.
    if (object.cleanup != nullptr) {
        RunCleanup(lock, object, object.cleanup);
    }
    for (const Context& context : object.contexts) {
        if (context.cleanup != nullptr) {
            RunCleanup(lock, object, context.cleanup);
        }
    }
}

void Framework::RunCleanup(std::unique_lock<std::mutex>& lock, Object& object, PFN_WDF_OBJECT_CONTEXT_CLEANUP cleanup)
{
    lock.unlock();
    Guarded("EvtCleanupCallback", reinterpret_cast<const void*>(cleanup), [&] { cleanup(object.handle); });
    lock.lock();
}

void Framework::Finish(std::unique_lock<std::mutex>& lock, Object& object)
{
    object.finished = true;
    while (object.firstChild != nullptr) {
        Object& child = *object.firstChild;
        Unlink(child);
        if (!child.finished) {
            Finish(lock, child);
        }
    }
    Dereference(lock, object);
}

void Framework::Delete(std::unique_lock<std::mutex>& lock, Object& object)
{
    if (object.deleted) {
        ++secondDeletes_;
        return;
    }
    if (object.parent != nullptr && object.parent->deleted) {
        return;  // the parent's end is under way and includes it
    }
    object.deleted = true;
    const Object* owner = OwnerOfDisposals(object);
    Unlink(object);
    if (ThreadState::Current().irql > PASSIVE_LEVEL && TreeNeedsPassiveLevel(object)) {
        Defer(owner, object, [this, &object] {
            std::unique_lock later(mutex);
            DisposeAndFinish(later, object);
        });
        return;
    }
    DisposeAndFinish(lock, object);
}

void Framework::DisposeAndFinish(std::unique_lock<std::mutex>& lock, Object& object)
{
    // While it is disposed nobody may take its memory away.
    Reference(object);
    Dispose(lock, object);
    Finish(lock, object);
    if (object.type == ObjectType::kDevice) {
        WaitForDisposals(lock, object);
    }
    Dereference(lock, object);
}

const Object* Framework::OwnerOfDisposals(const Object& object)
{
    for (const Object* above = object.parent; above != nullptr; above = above->parent) {
        if (above->type == ObjectType::kDevice) {
            return above;
        }
    }
    return DriverOf(object);
}

bool Framework::NeedsPassiveLevel(const Object& object)
{
    switch (object.type) {
    case ObjectType::kDevice:
    case ObjectType::kQueue:
    case ObjectType::kFileObject:
    case ObjectType::kWorkItem:
    case ObjectType::kIoTarget:
        return true;
    case ObjectType::kGeneral:
        return object.executionLevel == WdfExecutionLevelPassive;
    default:
        return false;
    }
}

bool Framework::TreeNeedsPassiveLevel(const Object& object)
{
    if (NeedsPassiveLevel(object)) {
        return true;
    }
    for (const Object* child = object.firstChild; child != nullptr; child = child->nextSibling) {
        if (TreeNeedsPassiveLevel(*child)) {
            return true;
        }
    }
    return false;
}

namespace functions {

NTSTATUS NTAPI ObjectCreate(PWDF_DRIVER_GLOBALS globals, PWDF_OBJECT_ATTRIBUTES attributes, WDFOBJECT* object)
{
    const char* typeName =
        attributes != nullptr && attributes->ContextTypeInfo != nullptr ? attributes->ContextTypeInfo->ContextName : "";
    const PlatformCall call("WdfObjectCreate", HOST_CALLER, DISPATCH_LEVEL, typeName);
    return Create<GeneralObject>(call, globals, attributes, object, "Object");
}

void NTAPI ObjectDelete(PWDF_DRIVER_GLOBALS, WDFOBJECT handle)
{
    const PlatformCall call("WdfObjectDelete", HOST_CALLER, DISPATCH_LEVEL);
    Framework& framework = Framework::Current();
    std::unique_lock lock(framework.mutex);
    Object* object = framework.ResolveAny(call, handle, "Object");
    if (object == nullptr) {
        return;
    }
    if (object->noDelete) {
        call.Violation(Rule::kDeleteNotAllowed, Framework::Describe(*object) + " is not for the driver to delete");
        return;
    }
    framework.Delete(lock, *object);
}

void NTAPI ObjectReference(PWDF_DRIVER_GLOBALS, WDFOBJECT handle, PVOID, LONG, PCHAR)
{
    const PlatformCall call("WdfObjectReferenceActual", HOST_CALLER, DISPATCH_LEVEL);
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    Object* object = framework.ResolveAny(call, handle, "Handle");
    if (object == nullptr) {
        return;
    }
    if (object->references == 0) {
        call.Violation(Rule::kDeadHandle, Framework::Describe(*object) + " is referenced while it is destroyed");
        return;
    }
    framework.Reference(*object);
    ++object->driverReferences;
}

void NTAPI ObjectDereference(PWDF_DRIVER_GLOBALS, WDFOBJECT handle, PVOID, LONG, PCHAR)
{
    const PlatformCall call("WdfObjectDereferenceActual", HOST_CALLER, DISPATCH_LEVEL);
    Framework& framework = Framework::Current();
    std::unique_lock lock(framework.mutex);
    Object* object = framework.ResolveAny(call, handle, "Handle");
    if (object == nullptr) {
        return;
    }
    if (object->driverReferences == 0) {
        // The real system stops here, or frees an object that its owner or a collection frees again later. The host
        // keeps it and says so.
        call.Violation(Rule::kReferenceUnderflow,
                       Framework::Describe(*object) +
                           (object->references == 1 && !object->finished
                                ? " loses its last reference without having been deleted"
                                : " loses a reference that its creation or a collection holds"));
        return;
    }
    --object->driverReferences;
    framework.Dereference(lock, *object);
}

namespace {

PVOID NTAPI GetTypedContextChecked(PWDF_DRIVER_GLOBALS, WDFOBJECT handle, PCWDF_OBJECT_CONTEXT_TYPE_INFO type)
{
    const PlatformCall call("WdfObjectGetTypedContextWorker", HOST_CALLER, 31,
                            type != nullptr ? type->ContextName : "");
    if (call.fault() || !Requires(call, type, "TypeInfo")) {
        return nullptr;
    }
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    const Object* object = framework.ResolveAny(call, handle, "Handle");
    if (object == nullptr) {
        return nullptr;
    }
    const Context* context = object->contexts.Find(type->UniqueType);
    return context == nullptr ? nullptr : context->memory;
}

}  // namespace

// Drivers call this more often than all else, so what is in order is answered at once, without a lock.
PVOID NTAPI ObjectGetTypedContext(PWDF_DRIVER_GLOBALS globals, WDFOBJECT handle, PCWDF_OBJECT_CONTEXT_TYPE_INFO type)
{
    if (!IsAnythingArmed() && type != nullptr) {
        if (const Slot* slot = HandleTable::Current().Find(handle)) {
            const Object* object = slot->object.load(std::memory_order_acquire);
            const Context* context = object == nullptr ? nullptr : object->contexts.Find(type->UniqueType);
            if (context != nullptr) {
                void* memory = context->memory;
                std::atomic_thread_fence(std::memory_order_acquire);
                if (slot->object.load(std::memory_order_relaxed) == object) {
                    return memory;
                }
            }
        }
    }
    [[clang::musttail]] return GetTypedContextChecked(globals, handle, type);
}

NTSTATUS NTAPI ObjectAllocateContext(PWDF_DRIVER_GLOBALS, WDFOBJECT handle, PWDF_OBJECT_ATTRIBUTES attributes,
                                     PVOID* memory)
{
    const PlatformCall call("WdfObjectAllocateContext", HOST_CALLER, DISPATCH_LEVEL);
    if (const std::optional<NTSTATUS> injected = Injected(call, memory)) {
        return *injected;
    }
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    Object* object = framework.ResolveAny(call, handle, "Handle");
    if (object == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (attributes == nullptr) {
        return STATUS_WDF_PARENT_NOT_SPECIFIED;
    }
    const NTSTATUS status = framework.CheckAttributes(attributes, object->type, Framework::ParentRule::kForbidden);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (attributes->ContextTypeInfo == nullptr) {
        return STATUS_OBJECT_NAME_INVALID;
    }
    if (object->deleted) {
        return STATUS_DELETE_PENDING;
    }
    if (const Context* existing = object->contexts.Find(attributes->ContextTypeInfo->UniqueType)) {
        if (memory != nullptr) {
            *memory = existing->memory;
        }
        return STATUS_OBJECT_NAME_EXISTS;
    }
    const Context& context = framework.AddContext(*object, *attributes);
    if (memory != nullptr) {
        *memory = context.memory;
    }
    return call.Done();
}

WDFOBJECT NTAPI ObjectContextGetObject(PWDF_DRIVER_GLOBALS, PVOID memory)
{
    const PlatformCall call("WdfObjectContextGetObject", HOST_CALLER, DISPATCH_LEVEL);
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    WDFOBJECT found = nullptr;
    framework.handles.ForEach([&](const Object& object) {
        for (const Context& context : object.contexts) {
            if (context.memory == memory) {
                found = object.handle;
            }
        }
    });
    if (found == nullptr) {
        call.Violation(Rule::kForeignHandle, "the address is no object's context");
    }
    return found;
}

}  // namespace functions
}  // namespace host::framework
