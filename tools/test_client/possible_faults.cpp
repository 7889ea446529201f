#include "tools/test_client/possible_faults.h"

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
constexpr PossibleFault kTooSmall{FaultForm::kStatus, STATUS_BUFFER_TOO_SMALL};

// A driver may call these without its own code seeing the result (WdfVersionBind), so they are not here.
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
};

}  // namespace

std::vector<PossibleFault> FaultsOf(std::string_view function)
{
    std::vector<PossibleFault> faults;
    for (const Row& row : kRows) {
        if (row.function == function) {
            faults.push_back(row.fault);
        }
    }
    return faults;
}

}  // namespace test_client
