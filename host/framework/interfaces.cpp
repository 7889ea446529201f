// Device interface classes, and the query interfaces by which peer drivers get function tables.
#include "host/framework/devices.h"
#include "host/framework/functions.h"
#include "host/framework/plug_play.h"
#include "host/framework/pointers_left.h"

#include <algorithm>
#include <cstring>

namespace host::framework {

bool SameGuid(const GUID& first, const GUID& second)
{
    return std::memcmp(&first, &second, sizeof(GUID)) == 0;
}

// IRP_MN_QUERY_INTERFACE. The caller's buffer is as large as the size it asks for. The first entry of the type decides:
// one that is larger or newer than what is asked for hides the later ones.
NTSTATUS QueryInterface(Framework& framework, DeviceObject& device, const GUID& type, std::span<std::byte> buffer,
                        std::uint16_t version)
{
    INTERFACE header{};
    const QueryInterfaceEntry* taken = nullptr;
    {
        const std::lock_guard lock(framework.mutex);
        const auto found = std::find_if(device.queryInterfaces.begin(), device.queryInterfaces.end(),
                                        [&](const QueryInterfaceEntry& entry) { return SameGuid(entry.type, type); });
        if (found == device.queryInterfaces.end() || buffer.size() < sizeof(header)) {
            return STATUS_NOT_SUPPORTED;
        }
        taken = &*found;
        if (!taken->table.empty()) {
            std::memcpy(&header, taken->table.data(), sizeof(header));
            if (header.Size > buffer.size() || header.Version > version) {
                return STATUS_NOT_SUPPORTED;
            }
            if (!taken->imports) {
                std::copy(taken->table.begin(), taken->table.end(), buffer.begin());
            }
        }
    }
    NTSTATUS status = STATUS_SUCCESS;
    if (taken->process != nullptr) {
        GUID typeCopy = type;
        status = framework.threads.Guarded(
            "EvtDeviceProcessQueryInterfaceRequest", reinterpret_cast<const void*>(taken->process), [&] {
                return taken->process(static_cast<WDFDEVICE>(device.handle), &typeCopy,
                                      reinterpret_cast<PINTERFACE>(buffer.data()), nullptr);
            });
        if (!NT_SUCCESS(status) && status != STATUS_NOT_SUPPORTED) {
            return status;
        }
    }
    {
        const std::lock_guard lock(framework.mutex);
        NoteHandedOut(*device.driver, buffer);
    }
    std::memcpy(&header, buffer.data(), sizeof(header));  // the callback may have changed it
    if (header.InterfaceReference != nullptr) {
        framework.threads.Guarded("InterfaceReference", reinterpret_cast<const void*>(header.InterfaceReference),
                                  [&] { header.InterfaceReference(header.Context); });
    }
    return status;
}

NTSTATUS QueryInterfaceForDriver(Framework& framework, DeviceObject& device, const GUID& type,
                                 std::span<std::byte> buffer, std::uint16_t version)
{
    const NTSTATUS status = QueryInterface(framework, device, type, buffer, version);
    if (NT_SUCCESS(status) && framework.environment.onInterface) {
        framework.environment.onInterface(type, buffer);
    }
    return status;
}

namespace functions {
namespace {

void NTAPI NoReference(PVOID)
{
}

std::optional<std::string> TextOf(PCUNICODE_STRING text)
{
    return text == nullptr ? std::nullopt : std::optional(kernel::Narrow(*text));
}

}  // namespace

NTSTATUS NTAPI DeviceCreateDeviceInterface(PWDF_DRIVER_GLOBALS, WDFDEVICE handle, const GUID* interfaceClass,
                                           PCUNICODE_STRING referenceString)
{
    const PlatformCall call("WdfDeviceCreateDeviceInterface", HOST_CALLER, PASSIVE_LEVEL);
    if (call.IsRefused()) {
        return call.fault()->status;
    }
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    auto* device = framework.objects.Resolve<DeviceObject>(call, handle, "Device");
    if (device == nullptr || !Requires(call, interfaceClass, "InterfaceClassGUID") ||
        (referenceString != nullptr && !kernel::IsWellFormed(*referenceString))) {
        return STATUS_INVALID_PARAMETER;
    }
    device->interfaces.push_back({*interfaceClass, TextOf(referenceString), device->pnpState == PnpState::kStarted});
    return call.Done();
}

void NTAPI DeviceSetDeviceInterfaceState(PWDF_DRIVER_GLOBALS, WDFDEVICE handle, const GUID* interfaceClass,
                                         PCUNICODE_STRING referenceString, BOOLEAN enable)
{
    const PlatformCall call("WdfDeviceSetDeviceInterfaceState", HOST_CALLER, PASSIVE_LEVEL);
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    auto* device = framework.objects.Resolve<DeviceObject>(call, handle, "Device");
    if (device == nullptr || !Requires(call, interfaceClass, "InterfaceClassGUID")) {
        return;
    }
    if (referenceString != nullptr && !kernel::IsWellFormed(*referenceString)) {
        call.Violation(checks::Rule::kBadParameter, "ReferenceString is malformed; nothing is changed");
        return;
    }
    for (DeviceInterface& interface : device->interfaces) {
        if (SameGuid(interface.interfaceClass, *interfaceClass) &&
            interface.referenceString == TextOf(referenceString)) {
            SetInterface(framework, *device, interface, enable != FALSE);
            device->driver->interfaceChanges.push_back({*interfaceClass, enable != FALSE});
            return;
        }
    }
}

NTSTATUS NTAPI DeviceAddQueryInterface(PWDF_DRIVER_GLOBALS, WDFDEVICE handle, PWDF_QUERY_INTERFACE_CONFIG config)
{
    const PlatformCall call("WdfDeviceAddQueryInterface", HOST_CALLER, PASSIVE_LEVEL);
    if (call.IsRefused()) {
        return call.fault()->status;
    }
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    auto* device = framework.objects.Resolve<DeviceObject>(call, handle, "Device");
    if (device == nullptr || !Requires(call, config, "InterfaceConfig") ||
        !Requires(call, config->InterfaceType, "InterfaceType")) {
        return STATUS_INVALID_PARAMETER;
    }
    if (config->Size != sizeof(WDF_QUERY_INTERFACE_CONFIG)) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    const bool passesOn = config->SendQueryToParentStack != FALSE;
    const bool imports = config->ImportInterface != FALSE;
    if (passesOn || (config->Interface == nullptr && !imports) ||
        (imports && config->EvtDeviceProcessQueryInterfaceRequest == nullptr)) {
        return STATUS_INVALID_PARAMETER;
    }
    QueryInterfaceEntry entry{.type = *config->InterfaceType,
                              .table = {},
                              .imports = imports,
                              .process = config->EvtDeviceProcessQueryInterfaceRequest};
    if (config->Interface != nullptr) {
        INTERFACE header = *config->Interface;
        if (header.Size < sizeof(INTERFACE)) {
            return STATUS_INVALID_PARAMETER;
        }
        const auto* bytes = reinterpret_cast<const std::byte*>(config->Interface);
        entry.table.assign(bytes, bytes + header.Size);
        if (header.InterfaceReference == nullptr) {
            header.InterfaceReference = NoReference;
        }
        if (header.InterfaceDereference == nullptr) {
            header.InterfaceDereference = NoReference;
        }
        std::memcpy(entry.table.data(), &header, sizeof(header));
    }
    device->queryInterfaces.push_back(std::move(entry));
    return call.Done();
}

// The query enters the device's own stack at its top: the device itself answers first, and below it nobody does.
NTSTATUS NTAPI FdoQueryForInterface(PWDF_DRIVER_GLOBALS, WDFDEVICE handle, LPCGUID type, PINTERFACE table, USHORT size,
                                    USHORT version, PVOID)
{
    const PlatformCall call("WdfFdoQueryForInterface", HOST_CALLER, PASSIVE_LEVEL);
    if (call.fault()) {
        return call.fault()->status;
    }
    Framework& framework = Framework::Current();
    DeviceObject* device = nullptr;
    {
        const std::lock_guard lock(framework.mutex);
        device = framework.objects.Resolve<DeviceObject>(call, handle, "Fdo");
    }
    if (device == nullptr || !Requires(call, type, "InterfaceType") || !Requires(call, table, "Interface")) {
        return STATUS_INVALID_PARAMETER;
    }
    return QueryInterfaceForDriver(framework, *device, *type, {reinterpret_cast<std::byte*>(table), size}, version);
}

}  // namespace functions
}  // namespace host::framework
