// The driver object: its creation, and the framework's own unload and add-device routines, which the system calls.
#include "host/framework/devices.h"
#include "host/framework/driver_load.h"
#include "host/framework/functions.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string_view>

namespace host::framework {
namespace {

// The framework answers every request itself; none reaches this host through the dispatch table.
NTSTATUS NTAPI Dispatch(PDEVICE_OBJECT, PIRP)
{
    return STATUS_NOT_SUPPORTED;
}

// The last component of the registry path, as the globals hold it.
void SetName(WDF_DRIVER_GLOBALS& globals, const std::string& registryPath)
{
    const std::size_t slash = registryPath.find_last_of('\\');
    const std::string name = slash == std::string::npos || slash == 0 ? "WDF" : registryPath.substr(slash + 1);
    const std::size_t length = std::min(name.size(), sizeof(globals.DriverName) - 1);
    std::fill(std::begin(globals.DriverName), std::end(globals.DriverName), '\0');
    std::copy_n(name.begin(), length, globals.DriverName);
}

// The tag of what the framework allocates for the driver: its own, else the first letters of its name.
void SetTag(WDF_DRIVER_GLOBALS& globals, ULONG wanted)
{
    constexpr ULONG kTagOfManySamples = ' kdD';
    if (wanted != 0 && wanted != kTagOfManySamples) {
        globals.DriverTag = wanted;
        return;
    }
    std::string_view name = globals.DriverName;
    if (kernel::LowerCase(std::string(name.substr(0, 3))) == "wdf") {
        name.remove_prefix(3);
    }
    if (name.size() > 2) {
        std::memcpy(&globals.DriverTag, name.data(), std::min(name.size(), sizeof(globals.DriverTag)));
    }
}

void TakeOver(DRIVER_OBJECT& driverObject, const WDF_DRIVER_CONFIG& config)
{
    const bool isNonPnp = (config.DriverInitFlags & WdfDriverInitNonPnpDriver) != 0;
    driverObject.DriverUnload = isNonPnp && config.EvtDriverUnload == nullptr ? nullptr : FrameworkUnload;
    driverObject.DriverExtension->AddDevice = isNonPnp ? nullptr : FrameworkAddDevice;
    std::fill(std::begin(driverObject.MajorFunction), std::end(driverObject.MajorFunction), Dispatch);
}

}  // namespace

void NTAPI FrameworkUnload(PDRIVER_OBJECT driverObject)
{
    Framework& framework = Framework::Current();
    std::unique_lock lock(framework.mutex);
    DriverInstance* instance = framework.drivers.Of(driverObject);
    if (instance == nullptr || instance->driver == nullptr) {
        return;
    }
    const PFN_WDF_DRIVER_UNLOAD unload = instance->driver->config.EvtDriverUnload;
    const auto handle = static_cast<WDFDRIVER>(instance->driver->handle);
    if (unload != nullptr) {
        lock.unlock();
        framework.threads.Guarded("EvtDriverUnload", reinterpret_cast<const void*>(unload), [&] { unload(handle); });
        lock.lock();
    }
    if (instance->driver != nullptr) {
        framework.objects.Delete(lock, *instance->driver);
    }
}

NTSTATUS NTAPI FrameworkAddDevice(PDRIVER_OBJECT driverObject, PDEVICE_OBJECT)
{
    Framework& framework = Framework::Current();
    DriverInstance* instance = nullptr;
    {
        const std::lock_guard lock(framework.mutex);
        instance = framework.drivers.Of(driverObject);
    }
    return instance == nullptr ? STATUS_NO_SUCH_DEVICE : AddDevice(framework, *instance);
}

namespace functions {

NTSTATUS NTAPI DriverCreate(PWDF_DRIVER_GLOBALS globals, PDRIVER_OBJECT driverObject, PCUNICODE_STRING registryPath,
                            PWDF_OBJECT_ATTRIBUTES attributes, PWDF_DRIVER_CONFIG config, WDFDRIVER* handle)
{
    const PlatformCall call("WdfDriverCreate", HOST_CALLER, PASSIVE_LEVEL);
    if (call.IsRefused()) {
        return call.fault()->status;
    }
    if (!Requires(call, driverObject, "DriverObject") || !Requires(call, registryPath, "RegistryPath") ||
        !Requires(call, config, "DriverConfig")) {
        return STATUS_INVALID_PARAMETER;
    }
    if (config->Size != sizeof(WDF_DRIVER_CONFIG)) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    const ULONG flags = config->DriverInitFlags;
    if ((flags & ~static_cast<ULONG>(WdfDriverInitNonPnpDriver | WdfDriverInitNoDispatchOverride)) != 0 ||
        !kernel::IsWellFormed(*registryPath)) {
        return STATUS_INVALID_PARAMETER;
    }
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    DriverInstance* instance = framework.drivers.Of(globals);
    if (instance == nullptr || &instance->driverObject != driverObject) {
        call.Violation(checks::Rule::kBadParameter, "the globals and the driver object do not belong together");
        return STATUS_INVALID_PARAMETER;
    }
    if (instance->driver != nullptr) {
        return STATUS_DRIVER_INTERNAL_ERROR;
    }
    ClearOnEntry(handle);
    SetName(*globals, kernel::Narrow(*registryPath));
    SetTag(*globals, config->DriverPoolTag);
    const bool takesOver = (flags & WdfDriverInitNoDispatchOverride) == 0;
    const bool isNonPnp = (flags & WdfDriverInitNonPnpDriver) != 0;
    if (takesOver && isNonPnp && config->EvtDriverDeviceAdd != nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    const NTSTATUS status = CheckAttributes(attributes, ObjectType::kDriver, ParentRule::kForbidden);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    auto object = std::make_unique<DriverObject>(instance);
    DriverObject& created = *object;
    created.config = *config;
    framework.objects.ApplyAttributes(created, attributes);
    framework.objects.Register(std::move(object), nullptr);
    instance->driver = &created;

    globals->DriverFlags |= flags;
    if (takesOver) {
        TakeOver(*driverObject, *config);
    }
    const bool unloads = (takesOver && !isNonPnp) || config->EvtDriverUnload != nullptr;
    globals->DisplaceDriverUnload = unloads ? TRUE : FALSE;
    const auto driver = static_cast<WDFDRIVER>(created.handle);
    if (handle != nullptr) {
        *handle = driver;
    }
    globals->Driver = driver;
    return call.Done();
}

PDRIVER_OBJECT NTAPI DriverWdmGetDriverObject(PWDF_DRIVER_GLOBALS, WDFDRIVER handle)
{
    const PlatformCall call("WdfDriverWdmGetDriverObject", HOST_CALLER, DISPATCH_LEVEL);
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    const auto* driver = framework.objects.Resolve<DriverObject>(call, handle, "Driver");
    return driver == nullptr ? nullptr : &driver->driver->driverObject;
}

}  // namespace functions
}  // namespace host::framework
