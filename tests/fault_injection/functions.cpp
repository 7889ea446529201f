// The platform functions that the driver may call, by what they can do to it.
#include "tests/fault_injection/observed.h"

#include <unordered_map>

namespace fault_injection {
namespace {

const std::unordered_map<std::string_view, Kind>& Table()
{
    static const std::unordered_map<std::string_view, Kind> table = {
        {"WdfVersionBind", Kind::kFallible},
        {"WdfDriverCreate", Kind::kFallible},
        {"WdfDeviceInitAssignName", Kind::kFallible},
        {"WdfDeviceCreate", Kind::kFallible},
        {"WdfDeviceCreateSymbolicLink", Kind::kFallible},
        {"WdfIoQueueCreate", Kind::kFallible},
        {"WdfCollectionCreate", Kind::kFallible},
        {"WdfWorkItemCreate", Kind::kFallible},
        {"WdfWaitLockCreate", Kind::kFallible},
        {"WdfDeviceCreateDeviceInterface", Kind::kFallible},
        {"WdfDeviceAddQueryInterface", Kind::kFallible},
        {"ExCreateCallback", Kind::kFallible},
        {"ExRegisterCallback", Kind::kFallible},
        {"WdfObjectCreate", Kind::kFallible},
        {"WdfObjectAllocateContext", Kind::kFallible},
        {"WdfObjectGetTypedContextWorker", Kind::kFallible},
        {"WdfWaitLockAcquire", Kind::kFallible},
        {"WdfCollectionAdd", Kind::kFallible},
        {"WdfCollectionGetItem", Kind::kFallible},
        {"WdfCollectionGetFirstItem", Kind::kFallible},
        {"ExAllocatePoolWithTag", Kind::kFallible},
        {"WdfIoQueueGetDevice", Kind::kFallible},
        {"WdfDriverOpenParametersRegistryKey", Kind::kFallible},
        {"WdfRegistryQueryULong", Kind::kFallible},
        {"KeDelayExecutionThread", Kind::kFallible},

        {"EtwRegister", Kind::kTracing},
        {"EtwUnregister", Kind::kTracing},
        {"EtwWrite", Kind::kTracing},
        {"EtwRegisterClassicProvider", Kind::kTracing},
        {"WmiTraceMessage", Kind::kTracing},
        {"WmiQueryTraceInformation", Kind::kTracing},
        {"IoWMIRegistrationControl", Kind::kTracing},
        {"MmGetSystemRoutineAddress", Kind::kTracing},

        {"PsGetVersion", Kind::kCannotFail},
        {"WdfVersionUnbind", Kind::kCannotFail},
        {"WdfDeviceInitSetIoType", Kind::kCannotFail},
        {"WdfDeviceInitSetPnpPowerEventCallbacks", Kind::kCannotFail},
        {"WdfDeviceInitSetFileObjectConfig", Kind::kCannotFail},
        {"WdfDeviceSetStaticStopRemove", Kind::kCannotFail},
        {"WdfDeviceSetDeviceInterfaceState", Kind::kCannotFail},
        {"WdfObjectReferenceActual", Kind::kCannotFail},
        {"WdfObjectDereferenceActual", Kind::kCannotFail},
        {"WdfObjectDelete", Kind::kCannotFail},
        {"WdfCollectionGetCount", Kind::kCannotFail},
        {"WdfCollectionRemove", Kind::kCannotFail},
        {"WdfCollectionRemoveItem", Kind::kCannotFail},
        {"WdfWaitLockRelease", Kind::kCannotFail},
        {"WdfWorkItemEnqueue", Kind::kCannotFail},
        {"WdfRegistryClose", Kind::kCannotFail},
        {"WdfRequestComplete", Kind::kCannotFail},
        {"WdfRequestCompleteWithInformation", Kind::kCannotFail},
        {"ExFreePoolWithTag", Kind::kCannotFail},
        {"ExUnregisterCallback", Kind::kCannotFail},
        {"ObfDereferenceObject", Kind::kCannotFail},
    };
    return table;
}

}  // namespace

std::optional<Kind> KindOf(std::string_view function)
{
    const auto found = Table().find(function);
    return found == Table().end() ? std::nullopt : std::optional(found->second);
}

}  // namespace fault_injection
