// The platform functions that the driver may call, by what they can do to it.
#include "tests/fault_injection/observed.h"

#include <sstream>

namespace fault_injection {
namespace {

using Functions = std::map<std::string, FunctionKind, std::less<>>;

void Add(Functions& functions, FunctionKind kind, const char* names)
{
    std::istringstream words(names);
    for (std::string name; words >> name;) {
        functions.emplace(name, kind);
    }
}

Functions All()
{
    Functions functions;
    Add(functions, FunctionKind::kFallible,
        "WdfVersionBind WdfDriverCreate WdfDeviceInitAssignName WdfDeviceCreate WdfDeviceCreateSymbolicLink "
        "WdfIoQueueCreate WdfCollectionCreate WdfWorkItemCreate WdfWaitLockCreate "
        "WdfDeviceCreateDeviceInterface WdfDeviceAddQueryInterface ExCreateCallback ExRegisterCallback "
        "WdfObjectCreate WdfObjectAllocateContext WdfObjectGetTypedContextWorker WdfWaitLockAcquire "
        "WdfCollectionAdd WdfCollectionGetItem WdfCollectionGetFirstItem ExAllocatePoolWithTag "
        "WdfIoQueueGetDevice WdfDriverOpenParametersRegistryKey WdfRegistryQueryULong KeDelayExecutionThread");
    Add(functions, FunctionKind::kTracing,
        "EtwRegister EtwUnregister EtwWrite EtwRegisterClassicProvider WmiTraceMessage "
        "WmiQueryTraceInformation IoWMIRegistrationControl MmGetSystemRoutineAddress");
    Add(functions, FunctionKind::kCannotFail,
        "PsGetVersion WdfVersionUnbind WdfDeviceInitSetIoType WdfDeviceInitSetPnpPowerEventCallbacks "
        "WdfDeviceInitSetFileObjectConfig WdfDeviceSetStaticStopRemove WdfDeviceSetDeviceInterfaceState "
        "WdfObjectReferenceActual WdfObjectDereferenceActual WdfObjectDelete WdfCollectionGetCount "
        "WdfCollectionRemove WdfCollectionRemoveItem WdfWaitLockRelease WdfWorkItemEnqueue WdfRegistryClose "
        "WdfRequestComplete WdfRequestCompleteWithInformation ExFreePoolWithTag ExUnregisterCallback "
        "ObfDereferenceObject");
    return functions;
}

}  // namespace

std::optional<FunctionKind> KindOf(std::string_view function)
{
    static const Functions kFunctions = All();
    const auto found = kFunctions.find(function);
    return found == kFunctions.end() ? std::nullopt : std::optional(found->second);
}

}  // namespace fault_injection
