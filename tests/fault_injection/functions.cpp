// The platform functions that the driver may call, by what they can do to it.
#include "tests/fault_injection/observed.h"

#include <unordered_map>

namespace fault_injection {
namespace {

const std::unordered_map<std::string_view, FunctionKind>& Table()
{
    static const std::unordered_map<std::string_view, FunctionKind> table = {
        {"WdfVersionBind", FunctionKind::kFallible},
        {"WdfDriverCreate", FunctionKind::kFallible},
        {"WdfDeviceInitAssignName", FunctionKind::kFallible},
        {"WdfDeviceCreate", FunctionKind::kFallible},
        {"WdfDeviceCreateSymbolicLink", FunctionKind::kFallible},
        {"WdfIoQueueCreate", FunctionKind::kFallible},
        {"WdfCollectionCreate", FunctionKind::kFallible},
        {"WdfWorkItemCreate", FunctionKind::kFallible},
        {"WdfWaitLockCreate", FunctionKind::kFallible},
        {"WdfDeviceCreateDeviceInterface", FunctionKind::kFallible},
        {"WdfDeviceAddQueryInterface", FunctionKind::kFallible},
        {"ExCreateCallback", FunctionKind::kFallible},
        {"ExRegisterCallback", FunctionKind::kFallible},
        {"WdfObjectCreate", FunctionKind::kFallible},
        {"WdfObjectAllocateContext", FunctionKind::kFallible},
        {"WdfObjectGetTypedContextWorker", FunctionKind::kFallible},
        {"WdfWaitLockAcquire", FunctionKind::kFallible},
        {"WdfCollectionAdd", FunctionKind::kFallible},
        {"WdfCollectionGetItem", FunctionKind::kFallible},
        {"WdfCollectionGetFirstItem", FunctionKind::kFallible},
        {"ExAllocatePoolWithTag", FunctionKind::kFallible},
        {"WdfIoQueueGetDevice", FunctionKind::kFallible},
        {"WdfDriverOpenParametersRegistryKey", FunctionKind::kFallible},
        {"WdfRegistryQueryULong", FunctionKind::kFallible},
        {"KeDelayExecutionThread", FunctionKind::kFallible},

        {"EtwRegister", FunctionKind::kTracing},
        {"EtwUnregister", FunctionKind::kTracing},
        {"EtwWrite", FunctionKind::kTracing},
        {"EtwRegisterClassicProvider", FunctionKind::kTracing},
        {"WmiTraceMessage", FunctionKind::kTracing},
        {"WmiQueryTraceInformation", FunctionKind::kTracing},
        {"IoWMIRegistrationControl", FunctionKind::kTracing},
        {"MmGetSystemRoutineAddress", FunctionKind::kTracing},

        {"PsGetVersion", FunctionKind::kCannotFail},
        {"WdfVersionUnbind", FunctionKind::kCannotFail},
        {"WdfDeviceInitSetIoType", FunctionKind::kCannotFail},
        {"WdfDeviceInitSetPnpPowerEventCallbacks", FunctionKind::kCannotFail},
        {"WdfDeviceInitSetFileObjectConfig", FunctionKind::kCannotFail},
        {"WdfDeviceSetStaticStopRemove", FunctionKind::kCannotFail},
        {"WdfDeviceSetDeviceInterfaceState", FunctionKind::kCannotFail},
        {"WdfObjectReferenceActual", FunctionKind::kCannotFail},
        {"WdfObjectDereferenceActual", FunctionKind::kCannotFail},
        {"WdfObjectDelete", FunctionKind::kCannotFail},
        {"WdfCollectionGetCount", FunctionKind::kCannotFail},
        {"WdfCollectionRemove", FunctionKind::kCannotFail},
        {"WdfCollectionRemoveItem", FunctionKind::kCannotFail},
        {"WdfWaitLockRelease", FunctionKind::kCannotFail},
        {"WdfWorkItemEnqueue", FunctionKind::kCannotFail},
        {"WdfRegistryClose", FunctionKind::kCannotFail},
        {"WdfRequestComplete", FunctionKind::kCannotFail},
        {"WdfRequestCompleteWithInformation", FunctionKind::kCannotFail},
        {"ExFreePoolWithTag", FunctionKind::kCannotFail},
        {"ExUnregisterCallback", FunctionKind::kCannotFail},
        {"ObfDereferenceObject", FunctionKind::kCannotFail},
    };
    return table;
}

}  // namespace

std::optional<FunctionKind> KindOf(std::string_view function)
{
    const auto found = Table().find(function);
    return found == Table().end() ? std::nullopt : std::optional(found->second);
}

}  // namespace fault_injection
