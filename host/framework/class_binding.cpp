// What the framework's loader has for class extensions, which this host does not play: a client of one is refused by
// the extension's name, as on a system where it is not installed. Entry stubs of the WDK import all of these, and call
// them only for such clients.
#include "host/framework/framework.h"
#include "host/image/exports.h"

#include <fxldr.h>

#include <cstdio>

using host::PlatformCall;
using host::checks::Rule;

#define HOST_EXPORT extern "C" __attribute__((visibility("default"), used))

HOST_EXPORT NTSTATUS NTAPI WdfVersionBindClass(PWDF_BIND_INFO, PWDF_DRIVER_GLOBALS, PWDF_CLASS_BIND_INFO info)
{
    const PlatformCall call("WdfVersionBindClass", HOST_CALLER, PASSIVE_LEVEL);
    if (!host::framework::Requires(call, info, "ClassBindInfo")) {
        return STATUS_INVALID_PARAMETER;
    }
    std::string name;
    for (const WCHAR* unit = info->ClassName; unit != nullptr && *unit != 0; ++unit) {
        name.push_back(static_cast<char>(*unit));
    }
    call.Violation(Rule::kNotProvided, "this host does not have the class extension " + name);
    return STATUS_OBJECT_NAME_NOT_FOUND;
}

HOST_EXPORT VOID NTAPI WdfVersionUnbindClass(PWDF_BIND_INFO, PWDF_DRIVER_GLOBALS, PWDF_CLASS_BIND_INFO)
{
    const PlatformCall call("WdfVersionUnbindClass", HOST_CALLER, PASSIVE_LEVEL);
    call.Violation(Rule::kBadParameter, "no class extension is bound");
}

HOST_EXPORT NTSTATUS NTAPI WdfLdrQueryInterface(PWDF_LOADER_INTERFACE_HEADER header)
{
    const PlatformCall call("WdfLdrQueryInterface", HOST_CALLER, PASSIVE_LEVEL);
    if (header == nullptr || header->InterfaceType == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    const GUID& type = *header->InterfaceType;
    char text[96];
    std::snprintf(text, sizeof(text), "the loader's interface {%08x-%04x-%04x-...} is not played", type.Data1,
                  type.Data2, type.Data3);
    call.Violation(Rule::kNotProvided, text);
    return STATUS_NOINTERFACE;
}

namespace host::framework {

void RegisterClassBindingExports()
{
    using image::Of;
    static const image::Export kExports[] = {
        Of("WdfVersionBindClass", &WdfVersionBindClass),
        Of("WdfVersionUnbindClass", &WdfVersionUnbindClass),
        Of("WdfLdrQueryInterface", &WdfLdrQueryInterface),
    };
    image::AddExports("WDFLDR.SYS", kExports);
}

}  // namespace host::framework
