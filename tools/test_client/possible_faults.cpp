#include "tools/test_client/possible_faults.h"

#include <iterator>

namespace test_client {
namespace {

using host::checks::FaultForm;

struct Row {
    const char* function;
    PossibleFault fault;
};

constexpr PossibleFault kNoMemory{FaultForm::kStatus, STATUS_INSUFFICIENT_RESOURCES};
constexpr PossibleFault kNothing{FaultForm::kNull, STATUS_SUCCESS};
constexpr PossibleFault kNotThere{FaultForm::kStatus, STATUS_OBJECT_NAME_NOT_FOUND};
constexpr PossibleFault kTimeout{FaultForm::kStatus, STATUS_TIMEOUT, "timeout"};
constexpr PossibleFault kTooSmall{FaultForm::kStatus, STATUS_BUFFER_TOO_SMALL};

constexpr Row kRows[] = {
    {"WdfDriverCreate", kNoMemory},
    {"WdfDeviceInitAssignName", kNoMemory},
    {"WdfDeviceCreate", kNoMemory},
    {"WdfDeviceCreateSymbolicLink", {FaultForm::kStatus, STATUS_OBJECT_NAME_COLLISION}},
    {"WdfDeviceCreateDeviceInterface", kNoMemory},
    {"WdfDeviceAddQueryInterface", kNoMemory},
    {"WdfIoQueueCreate", kNoMemory},
    {"WdfObjectCreate", kNoMemory},
    {"WdfObjectAllocateContext", kNoMemory},
    {"WdfCollectionCreate", kNoMemory},
    {"WdfCollectionAdd", kNoMemory},
    {"WdfWaitLockCreate", kNoMemory},
    {"WdfSpinLockCreate", kNoMemory},
    {"WdfWorkItemCreate", kNoMemory},
    {"WdfTimerCreate", kNoMemory},
    {"WdfMemoryCreate", kNoMemory},
    {"WdfMemoryCreatePreallocated", kNoMemory},
    {"WdfStringCreate", kNoMemory},
    {"WdfDriverRetrieveVersionString", kNoMemory},
    {"WdfDeviceAssignS0IdleSettings", kNoMemory},
    // The sender of a request says how large its buffers are.
    {"WdfRequestRetrieveInputBuffer", kTooSmall},
    {"WdfRequestRetrieveOutputBuffer", kTooSmall},
    {"WdfRequestRetrieveInputMemory", kTooSmall},
    {"WdfRequestRetrieveOutputMemory", kTooSmall},
    {"WdfIoTargetCreate", kNoMemory},
    // The device is removed at this moment.
    {"WdfIoTargetOpen", {FaultForm::kStatus, STATUS_NO_SUCH_DEVICE}},
    {"WdfIoTargetQueryForInterface", {FaultForm::kStatus, STATUS_NOT_SUPPORTED}},
    {"WdfFdoQueryForInterface", {FaultForm::kStatus, STATUS_NOT_SUPPORTED}},
    {"IoGetDeviceInterfaces", kNoMemory},
    {"IoRegisterPlugPlayNotification", kNoMemory},
    // Without a Parameters key, or without the value in it.
    {"WdfDriverOpenParametersRegistryKey", kNotThere},
    {"WdfRegistryQueryULong", kNotThere},
    {"WdfRegistryQueryValue", kNotThere},
    {"WdfRegistryQueryMemory", kNotThere},
    {"WdfRegistryQueryUnicodeString", kNotThere},
    {"WdfRegistryQueryString", kNotThere},
    {"WdfRegistryAssignULong", kNoMemory},
    {"WdfRegistryAssignUnicodeString", kNoMemory},
    {"WdfRegistryAssignString", kNoMemory},
    {"WdfRegistryAssignValue", kNoMemory},
    {"ExAllocatePool2", kNothing},
    {"ExAllocatePoolWithTag", kNothing},
    {"ExCreateCallback", kNotThere},
    {"ExRegisterCallback", kNothing},
    {"MmGetSystemRoutineAddress", kNothing},
    {"EtwRegister", {FaultForm::kStatus, STATUS_NO_MEMORY}},
    {"EtwWrite", {FaultForm::kStatus, STATUS_NO_MEMORY}},
    {"IoWMIRegistrationControl", kNoMemory},
    {"WmiTraceMessage", {FaultForm::kStatus, STATUS_NO_MEMORY}},
    {"WdfRegistryRemoveValue", kNotThere},
    // Who waits with a timeout may wait in vain.
    {"WdfWaitLockAcquire", kTimeout},
    {"KeWaitForSingleObject", kTimeout},
};

constexpr std::string_view kCannotFail[] = {
    // They look up what the driver made, what it was given, or what is always there.
    "WdfCmResourceListGetDescriptor",
    "WdfCollectionGetFirstItem",
    "WdfCollectionGetItem",
    "WdfCollectionGetLastItem",
    "WdfDeviceGetDefaultQueue",
    "WdfDeviceGetDriver",
    "WdfDeviceWdmGetAttachedDevice",
    "WdfDeviceWdmGetDeviceObject",
    "WdfDeviceWdmGetPhysicalDevice",
    "WdfDriverWdmGetDriverObject",
    "WdfFileObjectGetDevice",
    "WdfIoQueueGetDevice",
    "WdfMemoryGetBuffer",
    "WdfObjectContextGetObject",
    "WdfObjectGetTypedContextWorker",
    "WdfRequestGetFileObject",
    "WdfRequestGetIoQueue",
    "WdfTimerGetParentObject",
    "WdfWdmDeviceGetWdfDeviceHandle",
    "WdfWorkItemGetParentObject",
    // They fail only for arguments that do not suit each other, which is the driver's own mistake.
    "WdfMemoryAssignBuffer",
    "WdfMemoryCopyFromBuffer",
    "WdfMemoryCopyToBuffer",
    "IoUnregisterPlugPlayNotificationEx",
    "EtwUnregister",
    "WmiQueryTraceInformation",
    // What they return is the former state of an event.
    "KeReadStateEvent",
    "KeResetEvent",
    "KeSetEvent",
    // They return their first argument.
    "RtlCopyMemory",
    "RtlMoveMemory",
    // A delay that no user-mode code can interrupt.
    "KeDelayExecutionThread",
    // Called by the entry stub, whose callers see only that the driver did not start.
    "WdfVersionBind",
    "WdfVersionUnbind",
    "WdfVersionBindClass",
    "WdfLdrQueryInterface",
};

}  // namespace

std::vector<PossibleFault> FaultsOf(std::string_view function, std::string_view detail)
{
    std::vector<PossibleFault> faults;
    for (const Row& row : kRows) {
        if (row.function == function && (row.fault.detail.empty() || row.fault.detail == detail)) {
            faults.push_back(row.fault);
        }
    }
    return faults;
}

std::vector<std::string_view> FunctionsThatCanFail()
{
    std::vector<std::string_view> functions;
    for (const Row& row : kRows) {
        functions.emplace_back(row.function);
    }
    return functions;
}

std::vector<std::string_view> FunctionsThatCannotFail()
{
    return {std::begin(kCannotFail), std::end(kCannotFail)};
}

}  // namespace test_client
