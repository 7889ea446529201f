// The object calls of the table.
#include "host/armed.h"
#include "host/framework/functions.h"

namespace host::framework {

using checks::Rule;

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
    Object* object = framework.objects.ResolveAny(call, handle, "Object");
    if (object == nullptr) {
        return;
    }
    if (object->noDelete) {
        call.Violation(Rule::kDeleteNotAllowed, Describe(*object) + " is not for the driver to delete");
        return;
    }
    framework.objects.Delete(lock, *object);
}

namespace {

// Where the driver says that it stands, "file.cpp:12", for who looks at the call.
std::string Place(const char* file, LONG line)
{
    return file != nullptr && IsAnythingArmed() ? std::string(file) + ":" + std::to_string(line) : "";
}

}  // namespace

void NTAPI ObjectReference(PWDF_DRIVER_GLOBALS, WDFOBJECT handle, PVOID, LONG line, PCHAR file)
{
    const std::string place = Place(file, line);
    const PlatformCall call("WdfObjectReferenceActual", HOST_CALLER, DISPATCH_LEVEL, place.c_str());
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    Object* object = framework.objects.ResolveAny(call, handle, "Handle");
    if (object == nullptr) {
        return;
    }
    if (!framework.objects.ReferenceForDriver(*object)) {
        call.Violation(Rule::kDeadHandle, Describe(*object) + " is referenced while it is destroyed");
    }
}

void NTAPI ObjectDereference(PWDF_DRIVER_GLOBALS, WDFOBJECT handle, PVOID, LONG line, PCHAR file)
{
    const std::string place = Place(file, line);
    const PlatformCall call("WdfObjectDereferenceActual", HOST_CALLER, DISPATCH_LEVEL, place.c_str());
    Framework& framework = Framework::Current();
    std::unique_lock lock(framework.mutex);
    Object* object = framework.objects.ResolveAny(call, handle, "Handle");
    if (object == nullptr) {
        return;
    }
    const bool isLast = object->References() == 1 && !object->IsFinished();
    if (!framework.objects.DereferenceForDriver(lock, *object)) {
        // The real system stops here, or frees an object that its owner or a collection frees again later. The host
        // keeps it and says so.
        call.Violation(Rule::kReferenceUnderflow,
                       Describe(*object) + (isLast ? " loses its last reference without having been deleted"
                                                   : " loses a reference that its creation or a collection holds"));
    }
}

namespace {

[[gnu::noinline]] PVOID NTAPI GetTypedContextChecked(PWDF_DRIVER_GLOBALS, WDFOBJECT handle,
                                                     PCWDF_OBJECT_CONTEXT_TYPE_INFO type)
{
    const PlatformCall call("WdfObjectGetTypedContextWorker", HOST_CALLER, 31,
                            type != nullptr ? type->ContextName : "");
    if (call.fault() || !Requires(call, type, "TypeInfo")) {
        return nullptr;
    }
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    const Object* object = framework.objects.ResolveAny(call, handle, "Handle");
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
    if (!IsAnythingArmed() && ThreadState::IsAtMost(APC_LEVEL) && type != nullptr) {
        const Slot* slot = HandleTable::Current().Find(handle);
        if (slot != nullptr && slot->contextType == type->UniqueType) {
            void* memory = slot->contextMemory;
            if (slot->object.load(std::memory_order_acquire) != nullptr) {
                return memory;
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
    Object* object = framework.objects.ResolveAny(call, handle, "Handle");
    if (object == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (attributes == nullptr) {
        return STATUS_WDF_PARENT_NOT_SPECIFIED;
    }
    const NTSTATUS status = CheckAttributes(attributes, object->type, ParentRule::kForbidden);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (attributes->ContextTypeInfo == nullptr) {
        return STATUS_OBJECT_NAME_INVALID;
    }
    if (object->IsDeleted()) {
        return STATUS_DELETE_PENDING;
    }
    if (const Context* existing = object->contexts.Find(attributes->ContextTypeInfo->UniqueType)) {
        if (memory != nullptr) {
            *memory = existing->memory;
        }
        return STATUS_OBJECT_NAME_EXISTS;
    }
    const Context& context = framework.objects.AddContext(*object, *attributes);
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
