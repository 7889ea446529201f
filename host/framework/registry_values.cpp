// The values in a registry key: reading and writing them.
#include "host/framework/memory_objects.h"
#include "host/framework/registry_keys.h"
#include "host/framework/string_objects.h"

#include <algorithm>
#include <cstring>

namespace host::framework::functions {
namespace {

using checks::Rule;

// The service whose value a call is about, when its key was opened for that.
NTSTATUS CheckKey(const PlatformCall& call, WDFKEY handle, PCUNICODE_STRING name, ACCESS_MASK needed,
                  std::string& service)
{
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    const auto* key = framework.objects.Resolve<KeyObject>(call, handle, "Key");
    if (key == nullptr || !Requires(call, name, "ValueName") || !kernel::IsWellFormed(*name)) {
        return STATUS_INVALID_PARAMETER;
    }
    service = key->service;
    return (key->access & (needed | kEverything)) == 0 ? STATUS_ACCESS_DENIED : STATUS_SUCCESS;
}

NTSTATUS ReadValue(const PlatformCall& call, WDFKEY handle, PCUNICODE_STRING name, kernel::RegistryValue& value)
{
    if (call.IsRefused()) {
        return call.fault()->status;
    }
    std::string service;
    const NTSTATUS status = CheckKey(call, handle, name, kQueryValue | kGenericRead, service);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    std::optional<kernel::RegistryValue> found =
        Framework::Current().kernel.registry().Query(service, kernel::Narrow(*name));
    if (!found) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    value = std::move(*found);
    return STATUS_SUCCESS;
}

bool IsText(const kernel::RegistryValue& value)
{
    return value.type == REG_SZ || value.type == REG_EXPAND_SZ;
}

// Without a terminator at its end; one within it stays.
std::span<const std::byte> TextIn(const kernel::RegistryValue& value)
{
    std::span<const std::byte> text = value.data;
    if (text.size() >= sizeof(WCHAR) && std::ranges::count(text.last(sizeof(WCHAR)), std::byte{0}) == sizeof(WCHAR)) {
        text = text.first(text.size() - sizeof(WCHAR));
    }
    return text;
}

NTSTATUS WriteValue(const PlatformCall& call, WDFKEY handle, PCUNICODE_STRING name, std::uint32_t type,
                    std::vector<std::byte> data)
{
    if (call.IsRefused()) {
        return call.fault()->status;
    }
    std::string service;
    const NTSTATUS status = CheckKey(call, handle, name, kSetValue | kGenericWrite, service);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    Framework::Current().kernel.registry().SetData(service, kernel::Narrow(*name), type, std::move(data));
    return call.Done();
}

// As the registry keeps text: with a terminator.
std::vector<std::byte> TextData(const UNICODE_STRING& text)
{
    const auto* bytes = reinterpret_cast<const std::byte*>(text.Buffer);
    std::vector<std::byte> data(bytes, bytes + text.Length);
    data.resize(data.size() + sizeof(WCHAR));
    return data;
}

}  // namespace

NTSTATUS NTAPI RegistryQueryULong(PWDF_DRIVER_GLOBALS, WDFKEY handle, PCUNICODE_STRING name, PULONG value)
{
    const std::string text = kernel::NameText(name);
    const PlatformCall call("WdfRegistryQueryULong", HOST_CALLER, PASSIVE_LEVEL, text.c_str());
    kernel::RegistryValue found{};
    if (const NTSTATUS status = ReadValue(call, handle, name, found); !NT_SUCCESS(status)) {
        return status;
    }
    if (!Requires(call, value, "Value")) {
        return STATUS_INVALID_PARAMETER;
    }
    // What does not fit leaves the number undefined, and a value that is shorter than its type the rest of it.
    std::memset(value, kernel::kUninitializedFill, sizeof(ULONG));
    if (found.type != kernel::kTypeDword) {
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    if (found.data.size() > sizeof(ULONG)) {
        return STATUS_BUFFER_OVERFLOW;
    }
    std::memcpy(value, found.data.data(), found.data.size());
    return call.Done();
}

NTSTATUS NTAPI RegistryQueryValue(PWDF_DRIVER_GLOBALS, WDFKEY handle, PCUNICODE_STRING name, ULONG length, PVOID value,
                                  PULONG lengthQueried, PULONG type)
{
    const std::string text = kernel::NameText(name);
    const PlatformCall call("WdfRegistryQueryValue", HOST_CALLER, PASSIVE_LEVEL, text.c_str());
    kernel::RegistryValue found{};
    if (const NTSTATUS status = ReadValue(call, handle, name, found); !NT_SUCCESS(status)) {
        return status;
    }
    if (lengthQueried != nullptr) {
        *lengthQueried = static_cast<ULONG>(found.data.size());
    }
    if (type != nullptr) {
        *type = found.type;
    }
    if (found.data.size() > (value == nullptr ? 0 : length)) {
        return STATUS_BUFFER_OVERFLOW;
    }
    std::ranges::copy(found.data, static_cast<std::byte*>(value));
    return call.Done();
}

NTSTATUS NTAPI RegistryQueryMemory(PWDF_DRIVER_GLOBALS globals, WDFKEY handle, PCUNICODE_STRING name,
                                   POOL_TYPE poolType, PWDF_OBJECT_ATTRIBUTES attributes, WDFMEMORY* memory,
                                   PULONG type)
{
    const std::string text = kernel::NameText(name);
    const PlatformCall call("WdfRegistryQueryMemory", HOST_CALLER, PASSIVE_LEVEL, text.c_str());
    ClearOnEntry(memory);
    if (poolType == NonPagedPool) {
        call.Violation(Rule::kBadParameter, "plain non-paged pool is executable; use NonPagedPoolNx");
    }
    kernel::RegistryValue found{};
    NTSTATUS status = ReadValue(call, handle, name, found);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    void* buffer = nullptr;
    status = CreateMemory(
        call, globals, attributes,
        {found.data.size(), globals == nullptr ? 0 : globals->DriverTag, poolType == PagedPool, call.caller()}, memory,
        &buffer);
    if (NT_SUCCESS(status) && buffer != nullptr) {
        std::ranges::copy(found.data, static_cast<std::byte*>(buffer));
        if (type != nullptr) {
            *type = found.type;
        }
    }
    return status;
}

NTSTATUS NTAPI RegistryQueryUnicodeString(PWDF_DRIVER_GLOBALS, WDFKEY handle, PCUNICODE_STRING name, PUSHORT byteLength,
                                          PUNICODE_STRING value)
{
    const std::string text = kernel::NameText(name);
    const PlatformCall call("WdfRegistryQueryUnicodeString", HOST_CALLER, PASSIVE_LEVEL, text.c_str());
    if (value != nullptr && !kernel::IsWellFormed(*value)) {
        return STATUS_INVALID_PARAMETER;
    }
    kernel::RegistryValue found{};
    if (const NTSTATUS status = ReadValue(call, handle, name, found); !NT_SUCCESS(status)) {
        return status;
    }
    // On purpose: who asks for the length alone learns that of a value of any type.
    const bool fits = found.data.size() <= (value == nullptr ? 0 : value->MaximumLength);
    if (fits && !IsText(found)) {
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    if (byteLength != nullptr) {
        *byteLength = static_cast<USHORT>(found.data.size());
    }
    if (!fits) {
        return STATUS_BUFFER_OVERFLOW;
    }
    if (value != nullptr) {
        std::ranges::copy(found.data, reinterpret_cast<std::byte*>(value->Buffer));
        value->Length = static_cast<USHORT>(TextIn(found).size());
    }
    return call.Done();
}

NTSTATUS NTAPI RegistryQueryString(PWDF_DRIVER_GLOBALS, WDFKEY handle, PCUNICODE_STRING name, WDFSTRING string)
{
    constexpr std::size_t kStringBytesMaximum = 0xFFFF;
    const std::string text = kernel::NameText(name);
    const PlatformCall call("WdfRegistryQueryString", HOST_CALLER, PASSIVE_LEVEL, text.c_str());
    kernel::RegistryValue found{};
    const NTSTATUS status = ReadValue(call, handle, name, found);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (!IsText(found)) {
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    if (found.data.size() > kStringBytesMaximum) {
        return STATUS_INVALID_BUFFER_SIZE;
    }
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    auto* object = framework.objects.Resolve<StringObject>(call, string, "String");
    if (object == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    Assign(framework.kernel, *object, TextIn(found));
    return call.Done();
}

NTSTATUS NTAPI RegistryAssignULong(PWDF_DRIVER_GLOBALS, WDFKEY handle, PCUNICODE_STRING name, ULONG value)
{
    const PlatformCall call("WdfRegistryAssignULong", HOST_CALLER, PASSIVE_LEVEL);
    const auto* bytes = reinterpret_cast<const std::byte*>(&value);
    return WriteValue(call, handle, name, kernel::kTypeDword, {bytes, bytes + sizeof(value)});
}

NTSTATUS NTAPI RegistryAssignValue(PWDF_DRIVER_GLOBALS, WDFKEY handle, PCUNICODE_STRING name, ULONG type, ULONG length,
                                   PVOID value)
{
    const PlatformCall call("WdfRegistryAssignValue", HOST_CALLER, PASSIVE_LEVEL);
    if (!Requires(call, value, "Value")) {
        return STATUS_INVALID_PARAMETER;
    }
    const auto* bytes = static_cast<const std::byte*>(value);
    return WriteValue(call, handle, name, type, {bytes, bytes + length});
}

NTSTATUS NTAPI RegistryAssignUnicodeString(PWDF_DRIVER_GLOBALS, WDFKEY handle, PCUNICODE_STRING name,
                                           PCUNICODE_STRING value)
{
    const PlatformCall call("WdfRegistryAssignUnicodeString", HOST_CALLER, PASSIVE_LEVEL);
    if (!Requires(call, value, "Value") || !kernel::IsWellFormed(*value)) {
        return STATUS_INVALID_PARAMETER;
    }
    return WriteValue(call, handle, name, REG_SZ, TextData(*value));
}

NTSTATUS NTAPI RegistryAssignString(PWDF_DRIVER_GLOBALS, WDFKEY handle, PCUNICODE_STRING name, WDFSTRING string)
{
    const PlatformCall call("WdfRegistryAssignString", HOST_CALLER, PASSIVE_LEVEL);
    std::vector<std::byte> data;
    {
        Framework& framework = Framework::Current();
        const std::lock_guard lock(framework.mutex);
        const auto* object = framework.objects.Resolve<StringObject>(call, string, "String");
        if (object == nullptr) {
            return STATUS_INVALID_PARAMETER;
        }
        data = TextData(object->text);
    }
    return WriteValue(call, handle, name, REG_SZ, std::move(data));
}

NTSTATUS NTAPI RegistryRemoveValue(PWDF_DRIVER_GLOBALS, WDFKEY handle, PCUNICODE_STRING name)
{
    const PlatformCall call("WdfRegistryRemoveValue", HOST_CALLER, PASSIVE_LEVEL);
    if (call.IsRefused()) {
        return call.fault()->status;
    }
    std::string service;
    const NTSTATUS status = CheckKey(call, handle, name, kSetValue | kGenericWrite, service);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    return Framework::Current().kernel.registry().Remove(service, kernel::Narrow(*name)) ? call.Done()
                                                                                         : STATUS_OBJECT_NAME_NOT_FOUND;
}

}  // namespace host::framework::functions
