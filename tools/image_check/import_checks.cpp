// The imports: what of the kernel and the framework an image may ask for.
#include "tools/image_check/report.h"
#include "tools/image_check/text.h"

#include <algorithm>
#include <iterator>
#include <span>

namespace image_check {
namespace {

struct AllowedModule {
    std::string_view name;
    std::span<const std::string_view> names;
};

// Documented exports on both machines, from Windows 10 on. Memory routines are not among them: images bring their own.
constexpr std::string_view kKernelNames[] = {
    "DbgPrintEx",
    "EtwRegister",
    "EtwUnregister",
    "EtwWrite",
    "ExAllocatePool2",
    "ExAllocatePoolWithTag",
    "ExCreateCallback",
    "ExFreePool2",
    "ExFreePoolWithTag",
    "ExNotifyCallback",
    "ExRegisterCallback",
    "ExUnregisterCallback",
    "IoGetDeviceInterfaces",
    "IoRegisterPlugPlayNotification",
    "IoUnregisterPlugPlayNotificationEx",
    "IoWMIRegistrationControl",
    "KeAcquireSpinLockAtDpcLevel",
    "KeAcquireSpinLockRaiseToDpc",
    "KeBugCheckEx",
    "KeClearEvent",
    "KeDelayExecutionThread",
    "KeGetCurrentIrql",
    "KeInitializeEvent",
    "KeLowerIrql",
    "KeQueryInterruptTimePrecise",
    "KeQueryPerformanceCounter",
    "KeQuerySystemTimePrecise",
    "KeReadStateEvent",
    "KeReleaseSpinLock",
    "KeReleaseSpinLockFromDpcLevel",
    "KeResetEvent",
    "KeSetEvent",
    "KeStallExecutionProcessor",
    "KeWaitForSingleObject",
    "KfRaiseIrql",
    "MmGetSystemRoutineAddress",
    "ObfDereferenceObject",
    "PsGetVersion",
    "RtlCompareMemory",
    "RtlCopyUnicodeString",
    "RtlInitUnicodeString",
    "_vsnprintf",
    "_vsnwprintf",
};
constexpr std::string_view kFrameworkLoaderNames[] = {"WdfVersionBind", "WdfVersionUnbind"};
constexpr AllowedModule kAllowedModules[] = {{"ntoskrnl.exe", kKernelNames}, {"WDFLDR.SYS", kFrameworkLoaderNames}};

}  // namespace

void CheckImports(const PeReader& image, Report& report)
{
    const std::vector<ImportedModule> modules = image.Imports();
    for (const ImportedModule& module : modules) {
        const auto* allowed = std::ranges::find(kAllowedModules, module.name, &AllowedModule::name);
        if (allowed == std::end(kAllowedModules)) {
            report.Add("imports from " + module.name);
            continue;
        }
        for (const std::string& name : module.names) {
            if (std::ranges::find(allowed->names, name) == allowed->names.end()) {
                report.Add(Join(module.name, ": ", name, " is not on the list of allowed names"));
            }
        }
        if (module.ordinals != 0) {
            report.Add(Join(module.name, ": ", module.ordinals, " imports by number"));
        }
    }
    report.Require(modules.size() == std::size(kAllowedModules), "not exactly two modules are imported");
}

}  // namespace image_check
