// The function table that drivers call through. Entries that this host does not have are stubs that name themselves.
#include "host/checks/absent.h"
#include "host/framework/functions.h"
#include "host/image/exports.h"

#include <sys/mman.h>

#include <array>
#include <cstring>
#include <type_traits>
#include <utility>

namespace host::framework {
namespace {

// Filled with the table: by Set, and from the list of those that are not played.
std::array<TableEntry, kFunctionCount> g_entries;

[[noreturn]] void ReportAbsent(unsigned index, const void* caller)
{
    checks::StopAtAbsent(std::string(g_entries[index].name) + " (entry " + std::to_string(index) + ")", caller);
}

template <unsigned kIndex>
void NTAPI Absent()
{
    ReportAbsent(kIndex, HOST_CALLER);
}

using Table = std::array<WDFFUNC, kFunctionCount>;

template <unsigned... kIndices>
Table AllAbsent(std::integer_sequence<unsigned, kIndices...>)
{
    return {&Absent<kIndices>...};
}

// The prototype that drivers call by is checked against the function.
template <class Prototype>
void Set(Table& table, unsigned index, const char* name, Prototype function)
{
    table[index] = reinterpret_cast<WDFFUNC>(function);
    g_entries[index] = {name, true, image::kHasResult<std::remove_pointer_t<Prototype>>};
}
#define PROVIDE(name, function) Set<PFN_##name>(table, name##TableIndex, #name, &functions::function)

void ProvideObjects(Table& table)
{
    PROVIDE(WdfCollectionCreate, CollectionCreate);
    PROVIDE(WdfCollectionGetCount, CollectionGetCount);
    PROVIDE(WdfCollectionAdd, CollectionAdd);
    PROVIDE(WdfCollectionRemove, CollectionRemove);
    PROVIDE(WdfCollectionRemoveItem, CollectionRemoveItem);
    PROVIDE(WdfCollectionGetItem, CollectionGetItem);
    PROVIDE(WdfCollectionGetFirstItem, CollectionGetFirstItem);
    PROVIDE(WdfCollectionGetLastItem, CollectionGetLastItem);
    PROVIDE(WdfObjectGetTypedContextWorker, ObjectGetTypedContext);
    PROVIDE(WdfObjectAllocateContext, ObjectAllocateContext);
    PROVIDE(WdfObjectContextGetObject, ObjectContextGetObject);
    PROVIDE(WdfObjectReferenceActual, ObjectReference);
    PROVIDE(WdfObjectDereferenceActual, ObjectDereference);
    PROVIDE(WdfObjectCreate, ObjectCreate);
    PROVIDE(WdfObjectDelete, ObjectDelete);
    PROVIDE(WdfWaitLockCreate, WaitLockCreate);
    PROVIDE(WdfWaitLockAcquire, WaitLockAcquire);
    PROVIDE(WdfWaitLockRelease, WaitLockRelease);
    PROVIDE(WdfSpinLockCreate, SpinLockCreate);
    PROVIDE(WdfSpinLockAcquire, SpinLockAcquire);
    PROVIDE(WdfSpinLockRelease, SpinLockRelease);
    PROVIDE(WdfMemoryCreate, MemoryCreate);
    PROVIDE(WdfMemoryCreatePreallocated, MemoryCreatePreallocated);
    PROVIDE(WdfMemoryGetBuffer, MemoryGetBuffer);
    PROVIDE(WdfMemoryAssignBuffer, MemoryAssignBuffer);
    PROVIDE(WdfMemoryCopyToBuffer, MemoryCopyToBuffer);
    PROVIDE(WdfMemoryCopyFromBuffer, MemoryCopyFromBuffer);
    PROVIDE(WdfTimerCreate, TimerCreate);
    PROVIDE(WdfTimerStart, TimerStart);
    PROVIDE(WdfTimerStop, TimerStop);
    PROVIDE(WdfTimerGetParentObject, TimerGetParentObject);
    PROVIDE(WdfWorkItemCreate, WorkItemCreate);
    PROVIDE(WdfWorkItemEnqueue, WorkItemEnqueue);
    PROVIDE(WdfWorkItemGetParentObject, WorkItemGetParentObject);
    PROVIDE(WdfWorkItemFlush, WorkItemFlush);
}

void ProvideDevices(Table& table)
{
    PROVIDE(WdfDriverCreate, DriverCreate);
    PROVIDE(WdfDriverOpenParametersRegistryKey, DriverOpenParametersRegistryKey);
    PROVIDE(WdfRegistryQueryULong, RegistryQueryULong);
    PROVIDE(WdfRegistryClose, RegistryClose);
    PROVIDE(WdfRegistryAssignValue, RegistryAssignValue);
    PROVIDE(WdfRegistryAssignULong, RegistryAssignULong);
    PROVIDE(WdfRegistryRemoveValue, RegistryRemoveValue);
    PROVIDE(WdfDriverWdmGetDriverObject, DriverWdmGetDriverObject);
    PROVIDE(WdfDeviceInitSetIoType, DeviceInitSetIoType);
    PROVIDE(WdfDeviceInitAssignName, DeviceInitAssignName);
    PROVIDE(WdfDeviceInitSetPnpPowerEventCallbacks, DeviceInitSetPnpPowerEventCallbacks);
    PROVIDE(WdfDeviceInitSetFileObjectConfig, DeviceInitSetFileObjectConfig);
    PROVIDE(WdfDeviceCreate, DeviceCreate);
    PROVIDE(WdfDeviceGetDriver, DeviceGetDriver);
    PROVIDE(WdfDeviceSetStaticStopRemove, DeviceSetStaticStopRemove);
    PROVIDE(WdfDeviceCreateSymbolicLink, DeviceCreateSymbolicLink);
    PROVIDE(WdfDeviceCreateDeviceInterface, DeviceCreateDeviceInterface);
    PROVIDE(WdfDeviceSetDeviceInterfaceState, DeviceSetDeviceInterfaceState);
    PROVIDE(WdfDeviceAddQueryInterface, DeviceAddQueryInterface);
    PROVIDE(WdfFdoQueryForInterface, FdoQueryForInterface);
    PROVIDE(WdfDeviceGetDefaultQueue, DeviceGetDefaultQueue);
    PROVIDE(WdfIoQueueCreate, IoQueueCreate);
    PROVIDE(WdfIoQueueGetDevice, IoQueueGetDevice);
    PROVIDE(WdfRequestComplete, RequestComplete);
    PROVIDE(WdfRequestCompleteWithInformation, RequestCompleteWithInformation);
    PROVIDE(WdfRequestGetFileObject, RequestGetFileObject);
    PROVIDE(WdfRequestGetIoQueue, RequestGetIoQueue);
    PROVIDE(WdfIoTargetCreate, IoTargetCreate);
    PROVIDE(WdfIoTargetOpen, IoTargetOpen);
    PROVIDE(WdfIoTargetCloseForQueryRemove, IoTargetCloseForQueryRemove);
    PROVIDE(WdfIoTargetClose, IoTargetClose);
    PROVIDE(WdfIoTargetQueryForInterface, IoTargetQueryForInterface);
}

void ProvideValues(Table& table)
{
    PROVIDE(WdfRegistryQueryValue, RegistryQueryValue);
    PROVIDE(WdfRegistryQueryMemory, RegistryQueryMemory);
    PROVIDE(WdfRegistryQueryUnicodeString, RegistryQueryUnicodeString);
    PROVIDE(WdfRegistryQueryString, RegistryQueryString);
    PROVIDE(WdfRegistryAssignUnicodeString, RegistryAssignUnicodeString);
    PROVIDE(WdfRegistryAssignString, RegistryAssignString);
    PROVIDE(WdfStringCreate, StringCreate);
    PROVIDE(WdfStringGetUnicodeString, StringGetUnicodeString);
    PROVIDE(WdfDriverRetrieveVersionString, DriverRetrieveVersionString);
    PROVIDE(WdfDriverIsVersionAvailable, DriverIsVersionAvailable);
}

void ProvideRequestBuffers(Table& table)
{
    PROVIDE(WdfFileObjectGetDevice, FileObjectGetDevice);
    PROVIDE(WdfRequestGetParameters, RequestGetParameters);
    PROVIDE(WdfRequestRetrieveInputMemory, RequestRetrieveInputMemory);
    PROVIDE(WdfRequestRetrieveOutputMemory, RequestRetrieveOutputMemory);
    PROVIDE(WdfRequestRetrieveInputBuffer, RequestRetrieveInputBuffer);
    PROVIDE(WdfRequestRetrieveOutputBuffer, RequestRetrieveOutputBuffer);
    PROVIDE(WdfRequestSetInformation, RequestSetInformation);
    PROVIDE(WdfRequestGetInformation, RequestGetInformation);
}

void ProvideDeviceSettings(Table& table)
{
    PROVIDE(WdfDeviceWdmGetDeviceObject, DeviceWdmGetDeviceObject);
    PROVIDE(WdfDeviceWdmGetAttachedDevice, DeviceWdmGetAttachedDevice);
    PROVIDE(WdfDeviceWdmGetPhysicalDevice, DeviceWdmGetPhysicalDevice);
    PROVIDE(WdfDeviceInitSetExclusive, DeviceInitSetExclusive);
    PROVIDE(WdfDeviceInitSetPowerNotPageable, DeviceInitSetPowerNotPageable);
    PROVIDE(WdfDeviceInitSetPowerPageable, DeviceInitSetPowerPageable);
    PROVIDE(WdfDeviceInitSetPowerInrush, DeviceInitSetPowerInrush);
    PROVIDE(WdfDeviceInitSetDeviceType, DeviceInitSetDeviceType);
    PROVIDE(WdfDeviceInitSetCharacteristics, DeviceInitSetCharacteristics);
    PROVIDE(WdfDeviceInitSetRequestAttributes, DeviceInitSetRequestAttributes);
    PROVIDE(WdfDeviceInitSetPowerPolicyEventCallbacks, DeviceInitSetPowerPolicyEventCallbacks);
    PROVIDE(WdfDeviceInitSetPowerPolicyOwnership, DeviceInitSetPowerPolicyOwnership);
    PROVIDE(WdfDeviceAssignS0IdleSettings, DeviceAssignS0IdleSettings);
    PROVIDE(WdfCmResourceListGetCount, CmResourceListGetCount);
    PROVIDE(WdfCmResourceListGetDescriptor, CmResourceListGetDescriptor);
    PROVIDE(WdfWdmDeviceGetWdfDeviceHandle, WdmDeviceGetWdfDeviceHandle);
}
#undef PROVIDE

// Drivers may read the table and never write it.
const WDFFUNC* MakeTable()
{
    Table table = AllAbsent(std::make_integer_sequence<unsigned, kFunctionCount>());
#define WDF_ABSENT(index, name) g_entries[index] = {#name, false, false};
#include <wdfabsent.h>
    ProvideObjects(table);
    ProvideDevices(table);
    ProvideValues(table);
    ProvideRequestBuffers(table);
    ProvideDeviceSettings(table);
    void* memory = mmap(nullptr, sizeof(table), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        throw HostError("no memory for the framework's function table");
    }
    std::memcpy(memory, table.data(), sizeof(table));
    mprotect(memory, sizeof(table), PROT_READ);
    return static_cast<const WDFFUNC*>(memory);
}

}  // namespace

TableEntry EntryAt(unsigned index)
{
    (void)FunctionTable();
    return g_entries[index];
}

const WDFFUNC* FunctionTable()
{
    static const WDFFUNC* const table = MakeTable();
    return table;
}

}  // namespace host::framework
