// Strings, comparison, version, debug output, bugcheck, look-up; and the export table of the kernel module.
#include "host/image/exports.h"
#include "host/kernel/format.h"
#include "host/kernel/kernel.h"
#include "host/schedule/parking.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

using host::PlatformCall;
using host::checks::Rule;
using host::kernel::Kernel;

#define HOST_EXPORT extern "C" __attribute__((visibility("default"), used))

HOST_EXPORT VOID NTAPI RtlInitUnicodeString(PUNICODE_STRING destination, PCWSTR source)
{
    *destination = {0, 0, nullptr};
    if (source == nullptr) {
        return;
    }
    USHORT length = 0;
    while (source[length / sizeof(WCHAR)] != 0) {
        length = static_cast<USHORT>(length + sizeof(WCHAR));
    }
    *destination = {length, static_cast<USHORT>(length + sizeof(WCHAR)), const_cast<PWSTR>(source)};
}

HOST_EXPORT VOID NTAPI RtlCopyUnicodeString(PUNICODE_STRING destination, PCUNICODE_STRING source)
{
    if (source == nullptr) {
        destination->Length = 0;
        return;
    }
    destination->Length = std::min(source->Length, destination->MaximumLength);
    std::memcpy(destination->Buffer, source->Buffer, destination->Length);
    if (destination->Length + sizeof(WCHAR) <= destination->MaximumLength) {
        destination->Buffer[destination->Length / sizeof(WCHAR)] = 0;
    }
}

HOST_EXPORT SIZE_T NTAPI RtlCompareMemory(const VOID* first, const VOID* second, SIZE_T length)
{
    const auto* one = static_cast<const std::uint8_t*>(first);
    const auto* other = static_cast<const std::uint8_t*>(second);
    SIZE_T equal = 0;
    while (equal < length && one[equal] == other[equal]) {
        ++equal;
    }
    return equal;
}

HOST_EXPORT BOOLEAN NTAPI PsGetVersion(PULONG major, PULONG minor, PULONG build, PUNICODE_STRING servicePack)
{
    const PlatformCall call("PsGetVersion", HOST_CALLER, PASSIVE_LEVEL);
    const host::MachineOptions& options = host::Environment::Current().options;
    const bool isOld = options.traceRoutes == host::TraceRoutes::kWmi;
    if (major != nullptr) {
        *major = isOld ? 5 : options.majorVersion;
    }
    if (minor != nullptr) {
        *minor = isOld ? 1 : 0;
    }
    if (build != nullptr) {
        *build = isOld ? 2600 : 22621;
    }
    if (servicePack != nullptr) {
        servicePack->Length = 0;
    }
    return FALSE;
}

namespace {

std::string Formatted(const char* format, __builtin_ms_va_list& arguments)
{
    return host::kernel::NarrowBytes(host::kernel::FormatText(host::kernel::Widen(format), false, arguments));
}

void Print(const PlatformCall& call, const std::string& line)
{
    Kernel& kernel = Kernel::Current();
    {
        const std::lock_guard lock(kernel.mutex);
        kernel.debugOutput.push_back(line);
    }
    if (kernel.environment.onDebugPrint) {
        kernel.environment.onDebugPrint(line, call.caller());
    }
}

}  // namespace

HOST_EXPORT ULONG NTAPI_VARIADIC DbgPrintEx(ULONG, ULONG, PCSTR format, ...)
{
    const PlatformCall call("DbgPrintEx", HOST_CALLER, DISPATCH_LEVEL);
    __builtin_ms_va_list arguments;
    __builtin_ms_va_start(arguments, format);
    Print(call, Formatted(format, arguments));
    __builtin_ms_va_end(arguments);
    return 0;
}

HOST_EXPORT ULONG NTAPI_VARIADIC DbgPrint(PCSTR format, ...)
{
    const PlatformCall call("DbgPrint", HOST_CALLER, DISPATCH_LEVEL);
    __builtin_ms_va_list arguments;
    __builtin_ms_va_start(arguments, format);
    Print(call, Formatted(format, arguments));
    __builtin_ms_va_end(arguments);
    return 0;
}

HOST_EXPORT VOID NTAPI KeBugCheckEx(ULONG code, ULONG_PTR first, ULONG_PTR second, ULONG_PTR third, ULONG_PTR fourth)
{
    char text[160];
    std::snprintf(text, sizeof(text), "bugcheck 0x%X (0x%llX, 0x%llX, 0x%llX, 0x%llX)", code, first, second, third,
                  fourth);
    {
        const PlatformCall call("KeBugCheckEx", HOST_CALLER, 31);
        call.Violation(Rule::kBugCheck, text);
    }
    host::schedule::ParkThisThread(text);
}

HOST_EXPORT PVOID NTAPI MmGetSystemRoutineAddress(PUNICODE_STRING name)
{
    const bool isName = name != nullptr && host::kernel::IsWellFormed(*name);
    const std::string routine = host::kernel::NameText(name);
    const PlatformCall call("MmGetSystemRoutineAddress", HOST_CALLER, PASSIVE_LEVEL, routine.c_str());
    if (!isName) {
        call.Violation(host::checks::Rule::kBadParameter, "the name is no well-formed UNICODE_STRING");
        return nullptr;
    }
    if (call.fault()) {
        return nullptr;
    }
    return host::kernel::FindSystemRoutine(routine, host::Environment::Current().options);
}

// Declared by nobody's header: looked up by name.
#undef ExFreePool
extern "C" {
VOID NTAPI ExFreePool(PVOID address);
NTSTATUS NTAPI EtwRegisterClassicProvider(LPCGUID guid, ULONG type, PVOID callback, PVOID context, PREGHANDLE handle);
NTSTATUS NTAPI_VARIADIC WmiTraceMessage(TRACEHANDLE logger, ULONG flags, const GUID* guid, ULONG number, ...);
NTSTATUS NTAPI WmiQueryTraceInformation(ULONG informationClass, PVOID information, ULONG length, PULONG required,
                                        PVOID buffer);
}

namespace host::kernel {

void* FindSystemRoutine(const std::string& name, const MachineOptions& options)
{
    if (name == "PsGetVersion" && !options.exportsPsGetVersion) {
        return nullptr;
    }
    if (name == "EtwRegisterClassicProvider") {
        return options.traceRoutes == TraceRoutes::kWmi ? nullptr
                                                        : reinterpret_cast<void*>(&EtwRegisterClassicProvider);
    }
    return image::FindExport("ntoskrnl.exe", name);
}

void RegisterKernelExports()
{
    using image::Of;
    static const image::Export kExports[] = {
        Of("ExAllocatePool2", &ExAllocatePool2),
        Of("ExAllocatePoolWithTag", &ExAllocatePoolWithTag),
        Of("ExFreePool", &ExFreePool),
        Of("ExFreePool2", &ExFreePool2),
        Of("ExFreePoolWithTag", &ExFreePoolWithTag),
        Of("ExCreateCallback", &ExCreateCallback),
        Of("ExRegisterCallback", &ExRegisterCallback),
        Of("ExUnregisterCallback", &ExUnregisterCallback),
        Of("ExNotifyCallback", &ExNotifyCallback),
        Of("ObfDereferenceObject", &ObfDereferenceObject),
        Of("RtlInitUnicodeString", &RtlInitUnicodeString),
        Of("RtlCopyUnicodeString", &RtlCopyUnicodeString),
        Of("RtlCompareMemory", &RtlCompareMemory),
        Of("MmGetSystemRoutineAddress", &MmGetSystemRoutineAddress),
        Of("PsGetVersion", &PsGetVersion),
        Of("DbgPrint", &DbgPrint),
        Of("DbgPrintEx", &DbgPrintEx),
        Of("KeBugCheckEx", &KeBugCheckEx),
        Of("EtwRegister", &EtwRegister),
        Of("EtwUnregister", &EtwUnregister),
        Of("EtwWrite", &EtwWrite),
        Of("IoWMIRegistrationControl", &IoWMIRegistrationControl),
        Of("WmiTraceMessage", &WmiTraceMessage),
        Of("WmiQueryTraceInformation", &WmiQueryTraceInformation),
    };
    image::AddExports("ntoskrnl.exe", kExports);
    RegisterTimeExports();
    RegisterCLibraryExports();
}

}  // namespace host::kernel
