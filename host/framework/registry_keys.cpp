// Registry keys: the Parameters key of a driver's service.
#include "host/framework/registry_keys.h"

namespace host::framework::functions {

NTSTATUS NTAPI DriverOpenParametersRegistryKey(PWDF_DRIVER_GLOBALS globals, WDFDRIVER driver, ACCESS_MASK access,
                                               PWDF_OBJECT_ATTRIBUTES attributes, WDFKEY* handle)
{
    // The rights that make the framework create a key that is missing.
    constexpr ACCESS_MASK kWriting = kSetValue | kCreateSubKey | kGenericWrite | kEverything;

    const PlatformCall call("WdfDriverOpenParametersRegistryKey", HOST_CALLER, PASSIVE_LEVEL);
    ClearOnEntry(handle);
    Framework& framework = Framework::Current();
    kernel::Registry& registry = framework.kernel.registry();
    std::string service;
    {
        const std::lock_guard lock(framework.mutex);
        const auto* object = framework.objects.Resolve<DriverObject>(call, driver, "Driver");
        if (object == nullptr) {
            return STATUS_INVALID_PARAMETER;
        }
        service = object->driver->service;
    }
    if (!call.fault() && !registry.HasParameters(service)) {
        if ((access & kWriting) == 0) {
            return STATUS_OBJECT_NAME_NOT_FOUND;
        }
        registry.CreateParameters(service);
    }
    const NTSTATUS status = Create<KeyObject>(call, globals, attributes, handle, "Key");
    if (NT_SUCCESS(status) && handle != nullptr && *handle != nullptr) {
        const std::lock_guard lock(framework.mutex);
        if (auto* key = framework.objects.Resolve<KeyObject>(call, *handle, "Key")) {
            key->service = service;
            key->access = access;
        }
    }
    return status;
}

void NTAPI RegistryClose(PWDF_DRIVER_GLOBALS, WDFKEY handle)
{
    const PlatformCall call("WdfRegistryClose", HOST_CALLER, PASSIVE_LEVEL);
    Framework& framework = Framework::Current();
    std::unique_lock lock(framework.mutex);
    if (auto* key = framework.objects.Resolve<KeyObject>(call, handle, "Key")) {
        framework.objects.Delete(lock, *key);
    }
}

}  // namespace host::framework::functions
