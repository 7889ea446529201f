// Callback objects: ExCreateCallback, ExRegisterCallback, ExUnregisterCallback, ExNotifyCallback, ObfDereferenceObject.
#include "host/kernel/kernel.h"

#include <algorithm>

using host::PlatformCall;
using host::checks::Rule;
using host::kernel::CallbackObject;
using host::kernel::CallbackRegistration;
using host::kernel::Kernel;

namespace {

template <class Handle>
Handle AsHandle(std::uintptr_t value)
{
    return reinterpret_cast<Handle>(value);
}

}  // namespace

extern "C" {

__attribute__((visibility("default"), used)) NTSTATUS NTAPI ExCreateCallback(PCALLBACK_OBJECT* callbackObject,
                                                                             POBJECT_ATTRIBUTES attributes,
                                                                             BOOLEAN create,
                                                                             BOOLEAN allowMultipleCallbacks)
{
    const PlatformCall call("ExCreateCallback", HOST_CALLER, APC_LEVEL);
    if (call.IsRefused()) {
        return call.fault()->status;
    }
    if (attributes == nullptr || attributes->Length != sizeof(OBJECT_ATTRIBUTES) || attributes->ObjectName == nullptr) {
        call.Violation(Rule::kBadParameter, "object attributes without a name or with a wrong length");
        return STATUS_INVALID_PARAMETER;
    }
    if (!host::kernel::IsWellFormed(*attributes->ObjectName)) {
        call.Violation(Rule::kBadParameter, "the name is no well-formed UNICODE_STRING");
        return STATUS_OBJECT_NAME_INVALID;
    }
    Kernel& kernel = Kernel::Current();
    const std::lock_guard lock(kernel.mutex);
    const std::string name = host::kernel::LowerCase(host::kernel::Narrow(*attributes->ObjectName));
    CallbackObject* object = kernel.FindCallbackObject(name);
    if (object == nullptr) {
        if (create == FALSE) {
            return STATUS_OBJECT_NAME_NOT_FOUND;
        }
        auto made = std::make_unique<CallbackObject>();
        made->handle = kernel.nextHandle += 16;
        made->name = name;
        made->allowsSeveral = allowMultipleCallbacks != FALSE;
        made->references = 0;
        object = made.get();
        kernel.callbackObjects.push_back(std::move(made));
    }
    ++object->references;
    object->openedBy.push_back(call.caller());
    *callbackObject = AsHandle<PCALLBACK_OBJECT>(object->handle);
    return call.Done();
}

__attribute__((visibility("default"), used)) PVOID NTAPI ExRegisterCallback(PCALLBACK_OBJECT callbackObject,
                                                                            PCALLBACK_FUNCTION function, PVOID context)
{
    const PlatformCall call("ExRegisterCallback", HOST_CALLER, APC_LEVEL);
    if (call.fault()) {
        return nullptr;
    }
    Kernel& kernel = Kernel::Current();
    const std::lock_guard lock(kernel.mutex);
    CallbackObject* object = kernel.FindCallbackObject(callbackObject);
    if (object == nullptr || function == nullptr) {
        call.Violation(Rule::kCallbackObject, "no such callback object, or no routine");
        return nullptr;
    }
    if (!object->allowsSeveral && !object->registrations.empty()) {
        return nullptr;
    }
    auto registration = std::make_shared<CallbackRegistration>();
    registration->handle = kernel.nextHandle += 16;
    registration->function = function;
    registration->context = context;
    registration->registeredBy = kernel.environment.PathNow(call.caller());
    object->registrations.push_back(registration);
    return AsHandle<PVOID>(registration->handle);
}

__attribute__((visibility("default"), used)) VOID NTAPI ExUnregisterCallback(PVOID handle)
{
    const PlatformCall call("ExUnregisterCallback", HOST_CALLER, APC_LEVEL);
    Kernel& kernel = Kernel::Current();
    std::unique_lock lock(kernel.mutex);
    std::shared_ptr<CallbackRegistration> registration;
    for (const auto& object : kernel.callbackObjects) {
        for (const auto& candidate : object->registrations) {
            if (AsHandle<PVOID>(candidate->handle) == handle) {
                registration = candidate;
            }
        }
        std::erase(object->registrations, registration);
    }
    if (registration == nullptr) {
        lock.unlock();
        call.Violation(Rule::kCallbackObject, "no such registration, or it was unregistered before");
        return;
    }
    registration->removed = true;
    kernel.DropUnusedCallbackObjects();
    lock.unlock();
    kernel.waitForRoutine(call, registration);
}

__attribute__((visibility("default"), used)) VOID NTAPI ExNotifyCallback(PVOID callbackObject, PVOID argument1,
                                                                         PVOID argument2)
{
    const PlatformCall call("ExNotifyCallback", HOST_CALLER, DISPATCH_LEVEL);
    Kernel& kernel = Kernel::Current();
    std::vector<std::shared_ptr<CallbackRegistration>> registrations;
    {
        const std::lock_guard lock(kernel.mutex);
        const CallbackObject* object = kernel.FindCallbackObject(callbackObject);
        if (object == nullptr) {
            call.Violation(Rule::kCallbackObject, "no such callback object");
            return;
        }
        registrations = object->registrations;
    }
    kernel.Notify(registrations, reinterpret_cast<std::uintptr_t>(argument1),
                  reinterpret_cast<std::uintptr_t>(argument2));
}

__attribute__((visibility("default"), used)) LONG_PTR NTAPI ObfDereferenceObject(PVOID handle)
{
    const PlatformCall call("ObfDereferenceObject", HOST_CALLER, DISPATCH_LEVEL);
    Kernel& kernel = Kernel::Current();
    std::unique_lock lock(kernel.mutex);
    CallbackObject* object = kernel.FindCallbackObject(handle);
    if (object == nullptr) {
        lock.unlock();
        call.Violation(Rule::kCallbackObject, "no such object");
        return 0;
    }
    if (object->openedBy.empty()) {
        lock.unlock();
        call.Violation(Rule::kReferenceUnderflow, object->name + " is dereferenced more often than it was opened");
        return 0;
    }
    object->openedBy.pop_back();
    const long left = --object->references;
    kernel.DropUnusedCallbackObjects();
    return left;
}

}  // extern "C"
