// Registry keys: the Parameters key of a driver's service, and the values in it.
#include "host/framework/functions.h"

#include <cstring>

namespace host::framework {

struct KeyObject final : Object {
    explicit KeyObject(DriverInstance* owner) : Object(ObjectType::kKey, owner) {}
    std::string service;
    ACCESS_MASK access = 0;  // that it was opened for
};

template <>
inline constexpr ObjectType kTypeOf<KeyObject> = ObjectType::kKey;

namespace functions {
namespace {

constexpr ACCESS_MASK kQueryValue = 0x1;
constexpr ACCESS_MASK kSetValue = 0x2;
constexpr ACCESS_MASK kCreateSubKey = 0x4;
constexpr ACCESS_MASK kMaximumAllowed = 0x02000000;
constexpr ACCESS_MASK kGenericAll = 0x10000000;
constexpr ACCESS_MASK kGenericWrite = 0x40000000;
constexpr ACCESS_MASK kGenericRead = 0x80000000;
constexpr ACCESS_MASK kEverything = kMaximumAllowed | kGenericAll;

}  // namespace

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

NTSTATUS NTAPI RegistryQueryULong(PWDF_DRIVER_GLOBALS, WDFKEY handle, PCUNICODE_STRING name, PULONG value)
{
    const std::string text = name != nullptr && kernel::IsWellFormed(*name) ? kernel::Narrow(*name) : std::string();
    const PlatformCall call("WdfRegistryQueryULong", HOST_CALLER, PASSIVE_LEVEL, text.c_str());
    if (call.IsRefused()) {
        return call.fault()->status;
    }
    Framework& framework = Framework::Current();
    std::string service;
    {
        const std::lock_guard lock(framework.mutex);
        const auto* key = framework.objects.Resolve<KeyObject>(call, handle, "Key");
        if (key == nullptr || !Requires(call, name, "ValueName") || !Requires(call, value, "Value")) {
            return STATUS_INVALID_PARAMETER;
        }
        if (!kernel::IsWellFormed(*name)) {
            return STATUS_INVALID_PARAMETER;
        }
        if ((key->access & (kQueryValue | kGenericRead | kEverything)) == 0) {
            return STATUS_ACCESS_DENIED;
        }
        service = key->service;
    }
    const std::optional<kernel::RegistryValue> found = framework.kernel.registry().Query(service, text);
    if (!found) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    if (found->type != kernel::kTypeDword) {
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    if (found->data.size() > sizeof(ULONG)) {
        return STATUS_BUFFER_OVERFLOW;
    }
    // A value that is shorter than its type leaves the rest of the number undefined.
    std::memset(value, kernel::kUninitializedFill, sizeof(ULONG));
    std::memcpy(value, found->data.data(), found->data.size());
    return call.Done();
}

namespace {

// Changes a value if the key was opened for that.
template <class Change>
NTSTATUS ChangeValue(const PlatformCall& call, WDFKEY handle, PCUNICODE_STRING name, const Change& change)
{
    if (call.fault()) {
        return call.fault()->status;
    }
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    const auto* key = framework.objects.Resolve<KeyObject>(call, handle, "Key");
    if (key == nullptr || !Requires(call, name, "ValueName") || !kernel::IsWellFormed(*name)) {
        return STATUS_INVALID_PARAMETER;
    }
    if ((key->access & (kSetValue | kGenericWrite | kEverything)) == 0) {
        return STATUS_ACCESS_DENIED;
    }
    return change(framework.kernel.registry(), key->service, kernel::Narrow(*name));
}

}  // namespace

NTSTATUS NTAPI RegistryAssignULong(PWDF_DRIVER_GLOBALS, WDFKEY handle, PCUNICODE_STRING name, ULONG value)
{
    const PlatformCall call("WdfRegistryAssignULong", HOST_CALLER, PASSIVE_LEVEL);
    return ChangeValue(call, handle, name,
                       [&](kernel::Registry& registry, const std::string& service, const std::string& text) {
                           registry.SetDword(service, text, value);
                           return STATUS_SUCCESS;
                       });
}

NTSTATUS NTAPI RegistryAssignValue(PWDF_DRIVER_GLOBALS, WDFKEY handle, PCUNICODE_STRING name, ULONG type, ULONG length,
                                   PVOID value)
{
    const PlatformCall call("WdfRegistryAssignValue", HOST_CALLER, PASSIVE_LEVEL);
    if (!Requires(call, value, "Value")) {
        return STATUS_INVALID_PARAMETER;
    }
    const auto* bytes = static_cast<const std::byte*>(value);
    return ChangeValue(call, handle, name,
                       [&](kernel::Registry& registry, const std::string& service, const std::string& text) {
                           registry.SetData(service, text, type, {bytes, bytes + length});
                           return STATUS_SUCCESS;
                       });
}

NTSTATUS NTAPI RegistryRemoveValue(PWDF_DRIVER_GLOBALS, WDFKEY handle, PCUNICODE_STRING name)
{
    const PlatformCall call("WdfRegistryRemoveValue", HOST_CALLER, PASSIVE_LEVEL);
    return ChangeValue(call, handle, name,
                       [](kernel::Registry& registry, const std::string& service, const std::string& text) {
                           return registry.Remove(service, text) ? STATUS_SUCCESS : STATUS_OBJECT_NAME_NOT_FOUND;
                       });
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

}  // namespace functions
}  // namespace host::framework
