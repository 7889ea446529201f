// The framework's functions as the table holds them, and the creation that most of them share.
#pragma once

#include "host/framework/framework.h"

#include <optional>

namespace host::framework::functions {

// What an injected fault makes of a call that stores a handle; empty when there is none for it.
template <class Handle>
std::optional<NTSTATUS> Injected(const PlatformCall& call, Handle* output)
{
    if (!call.IsRefused() || call.fault()->form == checks::FaultForm::kNull) {
        return std::nullopt;
    }
    if (call.fault()->form == checks::FaultForm::kStatus) {
        return call.fault()->status;
    }
    if (output != nullptr) {
        *output = nullptr;
    }
    return STATUS_SUCCESS;
}

// The first line of the creations that the framework begins by clearing the caller's handle: every failure, an injected
// one too, leaves null there. The other creations write the handle on success only.
template <class Handle>
void ClearOnEntry(Handle* output)
{
    if (output != nullptr) {
        *output = nullptr;
    }
}

// Creation of an object whose attributes are optional and whose default parent is the driver object. `fill` gets it
// before anybody else does.
template <class T, class Handle, class Fill>
NTSTATUS Create(const PlatformCall& call, const WDF_DRIVER_GLOBALS* globals, const WDF_OBJECT_ATTRIBUTES* attributes,
                Handle* handle, const char* argument, const Fill& fill)
{
    if (const std::optional<NTSTATUS> injected = Injected(call, handle)) {
        return *injected;
    }
    if (!Requires(call, handle, argument)) {
        return STATUS_INVALID_PARAMETER;
    }
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    DriverInstance* instance = framework.drivers.Of(globals);
    if (instance == nullptr || instance->driver == nullptr) {
        call.Violation(checks::Rule::kForeignHandle, "the driver globals belong to no driver that has an object");
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status = CheckAttributes(attributes, kTypeOf<T>, ParentRule::kOptional);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    Object* parent = framework.objects.ParentFor(call, attributes, instance->driver, status);
    if (parent == nullptr) {
        return status;
    }
    auto object = std::make_unique<T>(instance);
    T& created = *object;
    fill(created);
    framework.objects.ApplyAttributes(created, attributes);
    framework.objects.Register(std::move(object), parent);
    *handle = static_cast<Handle>(created.handle);
    return call.Done();
}

template <class T, class Handle>
NTSTATUS Create(const PlatformCall& call, const WDF_DRIVER_GLOBALS* globals, const WDF_OBJECT_ATTRIBUTES* attributes,
                Handle* handle, const char* argument)
{
    return Create<T>(call, globals, attributes, handle, argument, [](T&) {});
}

// objects.cpp
NTSTATUS NTAPI ObjectCreate(PWDF_DRIVER_GLOBALS, PWDF_OBJECT_ATTRIBUTES, WDFOBJECT*);
void NTAPI ObjectDelete(PWDF_DRIVER_GLOBALS, WDFOBJECT);
void NTAPI ObjectReference(PWDF_DRIVER_GLOBALS, WDFOBJECT, PVOID, LONG, PCHAR);
void NTAPI ObjectDereference(PWDF_DRIVER_GLOBALS, WDFOBJECT, PVOID, LONG, PCHAR);
PVOID NTAPI ObjectGetTypedContext(PWDF_DRIVER_GLOBALS, WDFOBJECT, PCWDF_OBJECT_CONTEXT_TYPE_INFO);
NTSTATUS NTAPI ObjectAllocateContext(PWDF_DRIVER_GLOBALS, WDFOBJECT, PWDF_OBJECT_ATTRIBUTES, PVOID*);
WDFOBJECT NTAPI ObjectContextGetObject(PWDF_DRIVER_GLOBALS, PVOID);

// collections.cpp
NTSTATUS NTAPI CollectionCreate(PWDF_DRIVER_GLOBALS, PWDF_OBJECT_ATTRIBUTES, WDFCOLLECTION*);
ULONG NTAPI CollectionGetCount(PWDF_DRIVER_GLOBALS, WDFCOLLECTION);
NTSTATUS NTAPI CollectionAdd(PWDF_DRIVER_GLOBALS, WDFCOLLECTION, WDFOBJECT);
void NTAPI CollectionRemove(PWDF_DRIVER_GLOBALS, WDFCOLLECTION, WDFOBJECT);
void NTAPI CollectionRemoveItem(PWDF_DRIVER_GLOBALS, WDFCOLLECTION, ULONG);
WDFOBJECT NTAPI CollectionGetItem(PWDF_DRIVER_GLOBALS, WDFCOLLECTION, ULONG);
WDFOBJECT NTAPI CollectionGetFirstItem(PWDF_DRIVER_GLOBALS, WDFCOLLECTION);
WDFOBJECT NTAPI CollectionGetLastItem(PWDF_DRIVER_GLOBALS, WDFCOLLECTION);

// wait_locks.cpp
NTSTATUS NTAPI WaitLockCreate(PWDF_DRIVER_GLOBALS, PWDF_OBJECT_ATTRIBUTES, WDFWAITLOCK*);
NTSTATUS NTAPI WaitLockAcquire(PWDF_DRIVER_GLOBALS, WDFWAITLOCK, PLONGLONG);
void NTAPI WaitLockRelease(PWDF_DRIVER_GLOBALS, WDFWAITLOCK);

// spin_locks.cpp
NTSTATUS NTAPI SpinLockCreate(PWDF_DRIVER_GLOBALS, PWDF_OBJECT_ATTRIBUTES, WDFSPINLOCK*);
void NTAPI SpinLockAcquire(PWDF_DRIVER_GLOBALS, WDFSPINLOCK);
void NTAPI SpinLockRelease(PWDF_DRIVER_GLOBALS, WDFSPINLOCK);

// memory_objects.cpp
NTSTATUS NTAPI MemoryCreate(PWDF_DRIVER_GLOBALS, PWDF_OBJECT_ATTRIBUTES, POOL_TYPE, ULONG, size_t, WDFMEMORY*, PVOID*);
NTSTATUS NTAPI MemoryCreatePreallocated(PWDF_DRIVER_GLOBALS, PWDF_OBJECT_ATTRIBUTES, PVOID, size_t, WDFMEMORY*);
PVOID NTAPI MemoryGetBuffer(PWDF_DRIVER_GLOBALS, WDFMEMORY, size_t*);
NTSTATUS NTAPI MemoryAssignBuffer(PWDF_DRIVER_GLOBALS, WDFMEMORY, PVOID, size_t);
NTSTATUS NTAPI MemoryCopyToBuffer(PWDF_DRIVER_GLOBALS, WDFMEMORY, size_t, PVOID, size_t);
NTSTATUS NTAPI MemoryCopyFromBuffer(PWDF_DRIVER_GLOBALS, WDFMEMORY, size_t, PVOID, size_t);

// timers.cpp
NTSTATUS NTAPI TimerCreate(PWDF_DRIVER_GLOBALS, PWDF_TIMER_CONFIG, PWDF_OBJECT_ATTRIBUTES, WDFTIMER*);
BOOLEAN NTAPI TimerStart(PWDF_DRIVER_GLOBALS, WDFTIMER, LONGLONG);
BOOLEAN NTAPI TimerStop(PWDF_DRIVER_GLOBALS, WDFTIMER, BOOLEAN);
WDFOBJECT NTAPI TimerGetParentObject(PWDF_DRIVER_GLOBALS, WDFTIMER);

// work_items.cpp
NTSTATUS NTAPI WorkItemCreate(PWDF_DRIVER_GLOBALS, PWDF_WORKITEM_CONFIG, PWDF_OBJECT_ATTRIBUTES, WDFWORKITEM*);
void NTAPI WorkItemEnqueue(PWDF_DRIVER_GLOBALS, WDFWORKITEM);
WDFOBJECT NTAPI WorkItemGetParentObject(PWDF_DRIVER_GLOBALS, WDFWORKITEM);
void NTAPI WorkItemFlush(PWDF_DRIVER_GLOBALS, WDFWORKITEM);

// driver.cpp
NTSTATUS NTAPI DriverCreate(PWDF_DRIVER_GLOBALS, PDRIVER_OBJECT, PCUNICODE_STRING, PWDF_OBJECT_ATTRIBUTES,
                            PWDF_DRIVER_CONFIG, WDFDRIVER*);
PDRIVER_OBJECT NTAPI DriverWdmGetDriverObject(PWDF_DRIVER_GLOBALS, WDFDRIVER);

// device_init.cpp
void NTAPI DeviceInitSetIoType(PWDF_DRIVER_GLOBALS, PWDFDEVICE_INIT, WDF_DEVICE_IO_TYPE);
NTSTATUS NTAPI DeviceInitAssignName(PWDF_DRIVER_GLOBALS, PWDFDEVICE_INIT, PCUNICODE_STRING);
void NTAPI DeviceInitSetPnpPowerEventCallbacks(PWDF_DRIVER_GLOBALS, PWDFDEVICE_INIT, PWDF_PNPPOWER_EVENT_CALLBACKS);
void NTAPI DeviceInitSetFileObjectConfig(PWDF_DRIVER_GLOBALS, PWDFDEVICE_INIT, PWDF_FILEOBJECT_CONFIG,
                                         PWDF_OBJECT_ATTRIBUTES);
NTSTATUS NTAPI DeviceCreate(PWDF_DRIVER_GLOBALS, PWDFDEVICE_INIT*, PWDF_OBJECT_ATTRIBUTES, WDFDEVICE*);

// device.cpp, interfaces.cpp
WDFDRIVER NTAPI DeviceGetDriver(PWDF_DRIVER_GLOBALS, WDFDEVICE);
void NTAPI DeviceSetStaticStopRemove(PWDF_DRIVER_GLOBALS, WDFDEVICE, BOOLEAN);
NTSTATUS NTAPI DeviceCreateSymbolicLink(PWDF_DRIVER_GLOBALS, WDFDEVICE, PCUNICODE_STRING);
NTSTATUS NTAPI DeviceCreateDeviceInterface(PWDF_DRIVER_GLOBALS, WDFDEVICE, const GUID*, PCUNICODE_STRING);
void NTAPI DeviceSetDeviceInterfaceState(PWDF_DRIVER_GLOBALS, WDFDEVICE, const GUID*, PCUNICODE_STRING, BOOLEAN);
NTSTATUS NTAPI DeviceAddQueryInterface(PWDF_DRIVER_GLOBALS, WDFDEVICE, PWDF_QUERY_INTERFACE_CONFIG);
NTSTATUS NTAPI FdoQueryForInterface(PWDF_DRIVER_GLOBALS, WDFDEVICE, LPCGUID, PINTERFACE, USHORT, USHORT, PVOID);
WDFQUEUE NTAPI DeviceGetDefaultQueue(PWDF_DRIVER_GLOBALS, WDFDEVICE);

// queues.cpp, requests.cpp
NTSTATUS NTAPI IoQueueCreate(PWDF_DRIVER_GLOBALS, WDFDEVICE, PWDF_IO_QUEUE_CONFIG, PWDF_OBJECT_ATTRIBUTES, WDFQUEUE*);
WDFDEVICE NTAPI IoQueueGetDevice(PWDF_DRIVER_GLOBALS, WDFQUEUE);
void NTAPI RequestComplete(PWDF_DRIVER_GLOBALS, WDFREQUEST, NTSTATUS);
void NTAPI RequestCompleteWithInformation(PWDF_DRIVER_GLOBALS, WDFREQUEST, NTSTATUS, ULONG_PTR);
WDFFILEOBJECT NTAPI RequestGetFileObject(PWDF_DRIVER_GLOBALS, WDFREQUEST);
WDFQUEUE NTAPI RequestGetIoQueue(PWDF_DRIVER_GLOBALS, WDFREQUEST);
WDFDEVICE NTAPI FileObjectGetDevice(PWDF_DRIVER_GLOBALS, WDFFILEOBJECT);

// request_buffers.cpp
NTSTATUS NTAPI RequestRetrieveInputBuffer(PWDF_DRIVER_GLOBALS, WDFREQUEST, size_t, PVOID*, size_t*);
NTSTATUS NTAPI RequestRetrieveOutputBuffer(PWDF_DRIVER_GLOBALS, WDFREQUEST, size_t, PVOID*, size_t*);
NTSTATUS NTAPI RequestRetrieveInputMemory(PWDF_DRIVER_GLOBALS, WDFREQUEST, WDFMEMORY*);
NTSTATUS NTAPI RequestRetrieveOutputMemory(PWDF_DRIVER_GLOBALS, WDFREQUEST, WDFMEMORY*);
void NTAPI RequestGetParameters(PWDF_DRIVER_GLOBALS, WDFREQUEST, PWDF_REQUEST_PARAMETERS);
void NTAPI RequestSetInformation(PWDF_DRIVER_GLOBALS, WDFREQUEST, ULONG_PTR);
ULONG_PTR NTAPI RequestGetInformation(PWDF_DRIVER_GLOBALS, WDFREQUEST);

// string_objects.cpp
NTSTATUS NTAPI StringCreate(PWDF_DRIVER_GLOBALS, PCUNICODE_STRING, PWDF_OBJECT_ATTRIBUTES, WDFSTRING*);
void NTAPI StringGetUnicodeString(PWDF_DRIVER_GLOBALS, WDFSTRING, PUNICODE_STRING);

// driver_version.cpp
NTSTATUS NTAPI DriverRetrieveVersionString(PWDF_DRIVER_GLOBALS, WDFDRIVER, WDFSTRING);
BOOLEAN NTAPI DriverIsVersionAvailable(PWDF_DRIVER_GLOBALS, WDFDRIVER, PWDF_DRIVER_VERSION_AVAILABLE_PARAMS);

// device_objects.cpp, device_settings.cpp, resource_lists.cpp
PDEVICE_OBJECT NTAPI DeviceWdmGetDeviceObject(PWDF_DRIVER_GLOBALS, WDFDEVICE);
PDEVICE_OBJECT NTAPI DeviceWdmGetAttachedDevice(PWDF_DRIVER_GLOBALS, WDFDEVICE);
PDEVICE_OBJECT NTAPI DeviceWdmGetPhysicalDevice(PWDF_DRIVER_GLOBALS, WDFDEVICE);
WDFDEVICE NTAPI WdmDeviceGetWdfDeviceHandle(PWDF_DRIVER_GLOBALS, PDEVICE_OBJECT);
void NTAPI DeviceInitSetExclusive(PWDF_DRIVER_GLOBALS, PWDFDEVICE_INIT, BOOLEAN);
void NTAPI DeviceInitSetPowerNotPageable(PWDF_DRIVER_GLOBALS, PWDFDEVICE_INIT);
void NTAPI DeviceInitSetPowerPageable(PWDF_DRIVER_GLOBALS, PWDFDEVICE_INIT);
void NTAPI DeviceInitSetPowerInrush(PWDF_DRIVER_GLOBALS, PWDFDEVICE_INIT);
void NTAPI DeviceInitSetDeviceType(PWDF_DRIVER_GLOBALS, PWDFDEVICE_INIT, DEVICE_TYPE);
void NTAPI DeviceInitSetCharacteristics(PWDF_DRIVER_GLOBALS, PWDFDEVICE_INIT, ULONG, BOOLEAN);
void NTAPI DeviceInitSetRequestAttributes(PWDF_DRIVER_GLOBALS, PWDFDEVICE_INIT, PWDF_OBJECT_ATTRIBUTES);
void NTAPI DeviceInitSetPowerPolicyEventCallbacks(PWDF_DRIVER_GLOBALS, PWDFDEVICE_INIT,
                                                  PWDF_POWER_POLICY_EVENT_CALLBACKS);
void NTAPI DeviceInitSetPowerPolicyOwnership(PWDF_DRIVER_GLOBALS, PWDFDEVICE_INIT, BOOLEAN);
NTSTATUS NTAPI DeviceAssignS0IdleSettings(PWDF_DRIVER_GLOBALS, WDFDEVICE, PWDF_DEVICE_POWER_POLICY_IDLE_SETTINGS);
ULONG NTAPI CmResourceListGetCount(PWDF_DRIVER_GLOBALS, WDFCMRESLIST);
PCM_PARTIAL_RESOURCE_DESCRIPTOR NTAPI CmResourceListGetDescriptor(PWDF_DRIVER_GLOBALS, WDFCMRESLIST, ULONG);

// io_targets.cpp
NTSTATUS NTAPI IoTargetCreate(PWDF_DRIVER_GLOBALS, WDFDEVICE, PWDF_OBJECT_ATTRIBUTES, WDFIOTARGET*);
NTSTATUS NTAPI IoTargetOpen(PWDF_DRIVER_GLOBALS, WDFIOTARGET, PWDF_IO_TARGET_OPEN_PARAMS);
void NTAPI IoTargetCloseForQueryRemove(PWDF_DRIVER_GLOBALS, WDFIOTARGET);
void NTAPI IoTargetClose(PWDF_DRIVER_GLOBALS, WDFIOTARGET);
NTSTATUS NTAPI IoTargetQueryForInterface(PWDF_DRIVER_GLOBALS, WDFIOTARGET, LPCGUID, PINTERFACE, USHORT, USHORT, PVOID);

// registry_keys.cpp, registry_values.cpp
NTSTATUS NTAPI DriverOpenParametersRegistryKey(PWDF_DRIVER_GLOBALS, WDFDRIVER, ACCESS_MASK, PWDF_OBJECT_ATTRIBUTES,
                                               WDFKEY*);
NTSTATUS NTAPI RegistryQueryValue(PWDF_DRIVER_GLOBALS, WDFKEY, PCUNICODE_STRING, ULONG, PVOID, PULONG, PULONG);
NTSTATUS NTAPI RegistryQueryMemory(PWDF_DRIVER_GLOBALS, WDFKEY, PCUNICODE_STRING, POOL_TYPE, PWDF_OBJECT_ATTRIBUTES,
                                   WDFMEMORY*, PULONG);
NTSTATUS NTAPI RegistryQueryUnicodeString(PWDF_DRIVER_GLOBALS, WDFKEY, PCUNICODE_STRING, PUSHORT, PUNICODE_STRING);
NTSTATUS NTAPI RegistryQueryString(PWDF_DRIVER_GLOBALS, WDFKEY, PCUNICODE_STRING, WDFSTRING);
NTSTATUS NTAPI RegistryAssignUnicodeString(PWDF_DRIVER_GLOBALS, WDFKEY, PCUNICODE_STRING, PCUNICODE_STRING);
NTSTATUS NTAPI RegistryAssignString(PWDF_DRIVER_GLOBALS, WDFKEY, PCUNICODE_STRING, WDFSTRING);
NTSTATUS NTAPI RegistryQueryULong(PWDF_DRIVER_GLOBALS, WDFKEY, PCUNICODE_STRING, PULONG);
NTSTATUS NTAPI RegistryAssignValue(PWDF_DRIVER_GLOBALS, WDFKEY, PCUNICODE_STRING, ULONG, ULONG, PVOID);
NTSTATUS NTAPI RegistryRemoveValue(PWDF_DRIVER_GLOBALS, WDFKEY, PCUNICODE_STRING);
NTSTATUS NTAPI RegistryAssignULong(PWDF_DRIVER_GLOBALS, WDFKEY, PCUNICODE_STRING, ULONG);
void NTAPI RegistryClose(PWDF_DRIVER_GLOBALS, WDFKEY);

}  // namespace host::framework::functions
