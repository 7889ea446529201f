// The version of the framework that plays, as drivers ask for it.
#include "host/framework/functions.h"
#include "host/framework/string_objects.h"

#include <algorithm>

namespace host::framework::functions {
namespace {

constexpr std::uint32_t kMajorVersion = 1;

}  // namespace

NTSTATUS NTAPI DriverRetrieveVersionString(PWDF_DRIVER_GLOBALS, WDFDRIVER driver, WDFSTRING handle)
{
    const PlatformCall call("WdfDriverRetrieveVersionString", HOST_CALLER, PASSIVE_LEVEL);
    if (call.IsRefused()) {
        return call.fault()->status;
    }
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    auto* string = framework.objects.Resolve<StringObject>(call, handle, "String");
    if (framework.objects.Resolve<DriverObject>(call, driver, "Driver") == nullptr || string == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    // Two digits, three digits, and a build number, which is 0 in every published framework.
    std::string minor = std::to_string(framework.environment.options.frameworkMinor);
    minor.insert(0, 3 - std::min<std::size_t>(minor.size(), 3), '0');
    const std::string text = "Kernel Mode Driver Framework version 01." + minor + ".0";
    const std::u16string wide(text.begin(), text.end());
    Assign(framework.kernel, *string, std::as_bytes(std::span(wide)));
    return call.Done();
}

BOOLEAN NTAPI DriverIsVersionAvailable(PWDF_DRIVER_GLOBALS, WDFDRIVER driver,
                                       PWDF_DRIVER_VERSION_AVAILABLE_PARAMS parameters)
{
    const PlatformCall call("WdfDriverIsVersionAvailable", HOST_CALLER, PASSIVE_LEVEL);
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    if (framework.objects.Resolve<DriverObject>(call, driver, "Driver") == nullptr ||
        !Requires(call, parameters, "VersionAvailableParams")) {
        return FALSE;
    }
    if (parameters->Size != sizeof(*parameters)) {
        call.Violation(checks::Rule::kBadParameter, "a structure of " + std::to_string(parameters->Size) +
                                                        " bytes instead of " + std::to_string(sizeof(*parameters)));
        return FALSE;
    }
    return parameters->MajorVersion == kMajorVersion &&
                   parameters->MinorVersion <= framework.environment.options.frameworkMinor
               ? TRUE
               : FALSE;
}

}  // namespace host::framework::functions
