// The framework's loader: WdfVersionBind and WdfVersionUnbind, and what the framework keeps for each client.
#include "host/framework/driver_load.h"
#include "host/image/exports.h"
#include "host/image/table_reads.h"

#include <fxldr.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace host::framework {
namespace {

using checks::Rule;

struct Release {
    unsigned minor;
    ULONG functionCount;
};

// Releases of the framework by their table size; the newest of each size is what decides.
constexpr std::array kReleases = {
    Release{0, 383},  Release{1, 386},  Release{5, 387},  Release{7, 387},  Release{9, 396},  Release{11, 432},
    Release{13, 438}, Release{15, 444}, Release{17, 444}, Release{19, 446}, Release{21, 448}, Release{23, 451},
    Release{25, 453}, Release{27, 453}, Release{29, 454}, Release{31, 458}, Release{33, 458},
};
constexpr ULONG kMajor = 1;
constexpr ULONG kDefaultTag = 'rDxF';  // "FxDr" in memory

ULONG FunctionCountOf(unsigned minor)
{
    ULONG count = 0;
    for (const Release& release : kReleases) {
        if (release.minor <= minor) {
            count = release.functionCount;
        }
    }
    return count;
}

bool IsComponent(const WCHAR* component)
{
    static constexpr char16_t kComponent[] = u"KmdfLibrary";
    return component != nullptr &&
           std::equal(std::begin(kComponent), std::end(kComponent), reinterpret_cast<const char16_t*>(component));
}

// What the loader and then the framework say to a client's demand.
NTSTATUS CheckDemand(const WDF_BIND_INFO& info, unsigned runningMinor)
{
    if ((info.Size != sizeof(WDF_BIND_INFO) && info.Size != sizeof(WDF_BIND_INFO2)) || info.FuncTable == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (!IsComponent(info.Component) || info.Version.Major != kMajor) {
        return STATUS_OBJECT_NAME_NOT_FOUND;  // no such library version is installed
    }
    if (info.Version.Minor > runningMinor) {
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    const bool isSomeRelease = std::any_of(kReleases.begin(), kReleases.end(), [&](const Release& release) {
        return release.functionCount == info.FuncCount;
    });
    return isSomeRelease && info.FuncCount <= FunctionCountOf(runningMinor) ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
}

}  // namespace

void Unbind(Framework& framework, DriverInstance& instance)
{
    std::unique_lock lock(framework.mutex);
    if (instance.driver != nullptr) {
        framework.objects.Delete(lock, *instance.driver);
    }
    (void)framework.kernel.contextMemory().Free(instance.globals);
    instance.globals = nullptr;
}

void RegisterLoaderExports()
{
    static const image::Export kExports[] = {
        image::Of("WdfVersionBind", &WdfVersionBind),
        image::Of("WdfVersionUnbind", &WdfVersionUnbind),
    };
    image::AddExports("WDFLDR.SYS", kExports);
    image::SetAbsentEntryName([](unsigned index) -> const char* {
        return index < kFunctionCount && !EntryAt(index).isPlayed ? EntryAt(index).name : nullptr;
    });
    RegisterClassBindingExports();
}

}  // namespace host::framework

#define HOST_EXPORT extern "C" __attribute__((visibility("default"), used))

using host::PlatformCall;
using host::checks::Rule;
using host::framework::DriverInstance;
using host::framework::Framework;

HOST_EXPORT NTSTATUS NTAPI WdfVersionBind(PDRIVER_OBJECT driverObject, PUNICODE_STRING registryPath,
                                          PWDF_BIND_INFO info, PWDF_DRIVER_GLOBALS* globals)
{
    const PlatformCall call("WdfVersionBind", HOST_CALLER, PASSIVE_LEVEL);
    if (call.fault()) {
        return call.fault()->status;
    }
    using host::framework::Requires;
    if (!Requires(call, driverObject, "DriverObject") || !Requires(call, registryPath, "RegistryPath") ||
        !Requires(call, info, "BindInfo") || !Requires(call, globals, "ComponentGlobals")) {
        return STATUS_INVALID_PARAMETER;
    }
    Framework& framework = Framework::Current();
    const NTSTATUS status = host::framework::CheckDemand(*info, framework.environment.options.frameworkMinor);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    const std::lock_guard lock(framework.mutex);
    DriverInstance* instance = framework.drivers.Of(driverObject);
    if (instance == nullptr || instance->globals != nullptr) {
        call.Violation(Rule::kBadParameter, "the driver object is unknown, or its driver is bound already");
        return STATUS_INVALID_PARAMETER;
    }
    // In guarded memory: a use after the unbinding faults at once.
    auto* made = static_cast<PWDF_DRIVER_GLOBALS>(
        framework.kernel.contextMemory().Allocate(sizeof(WDF_DRIVER_GLOBALS), alignof(WDF_DRIVER_GLOBALS)));
    made->DriverTag = host::framework::kDefaultTag;
    instance->globals = made;
    const WDFFUNC* table = host::framework::FunctionTable();
    if (info->FuncCount > host::image::kLastCountWithOwnTable) {
        *static_cast<const WDFFUNC**>(info->FuncTable) = table;
    } else {
        std::memcpy(info->FuncTable, table, info->FuncCount * sizeof(WDFFUNC));
    }
    // Clients from 1.25 on want to know, too, what they may use of a framework that is older than they are. Here it
    // never is, so they look at nothing else.
    if (info->Size == sizeof(WDF_BIND_INFO2)) {
        const auto& later = *reinterpret_cast<const WDF_BIND_INFO2*>(info);
        *later.ClientVersionHigherThanFramework = FALSE;
        *later.FunctionCount = host::framework::FunctionCountOf(framework.environment.options.frameworkMinor);
    }
    info->Module = instance;
    *globals = made;
    return STATUS_SUCCESS;
}

HOST_EXPORT NTSTATUS NTAPI WdfVersionUnbind(PUNICODE_STRING, PWDF_BIND_INFO info, PWDF_DRIVER_GLOBALS globals)
{
    const PlatformCall call("WdfVersionUnbind", HOST_CALLER, PASSIVE_LEVEL);
    Framework& framework = Framework::Current();
    DriverInstance* instance = nullptr;
    {
        const std::lock_guard lock(framework.mutex);
        instance = framework.drivers.Of(globals);
    }
    if (instance == nullptr || info == nullptr || info->Module != instance) {
        call.Violation(Rule::kBadParameter, "the bind record or the globals are not those of a bound driver");
        return STATUS_INVALID_PARAMETER;
    }
    host::framework::Unbind(framework, *instance);
    info->Module = nullptr;
    return STATUS_SUCCESS;
}
