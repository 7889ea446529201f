// IoGetDeviceInterfaces, IoRegisterPlugPlayNotification, IoUnregisterPlugPlayNotificationEx, and the notifications.
//
// Routines are notified of arrival and removal on a system thread, after the change; of interfaces that exist at
// registration inside the registering call.
#include "host/framework/plug_play.h"

#include "host/image/exports.h"
#include "host/kernel/guarded_string.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace host::framework {
namespace {

using checks::Rule;

constexpr GUID kArrival = {0xCB3A4004, 0x46F0, 0x11D0, {0xB0, 0x8F, 0x00, 0x60, 0x97, 0x13, 0x05, 0x3F}};
constexpr GUID kRemoval = {0xCB3A4005, 0x46F0, 0x11D0, {0xB0, 0x8F, 0x00, 0x60, 0x97, 0x13, 0x05, 0x3F}};
constexpr USHORT kNotificationVersion = 1;
constexpr std::uint32_t kPoolTag = 'pnpI';

std::string GuidText(const GUID& guid)
{
    char text[40];
    std::snprintf(text, sizeof(text), "{%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x}", guid.Data1, guid.Data2,
                  guid.Data3, guid.Data4[0], guid.Data4[1], guid.Data4[2], guid.Data4[3], guid.Data4[4], guid.Data4[5],
                  guid.Data4[6], guid.Data4[7]);
    return text;
}

// Calls one routine, which may be unregistered meanwhile. Record and name are freed when it returns.
void Notify(Framework& framework, PlugPlayRegistrations::Entry& entry, const GUID& event, const std::string& name)
{
    if (!framework.registrations.Enter(entry)) {
        return;
    }
    {
        const PlugPlayRegistration& registration = entry.registration;
        kernel::GuardedMemory& memory = framework.kernel.contextMemory();
        const kernel::GuardedString link(memory, name);
        auto* record = static_cast<DEVICE_INTERFACE_CHANGE_NOTIFICATION*>(
            memory.Allocate(sizeof(DEVICE_INTERFACE_CHANGE_NOTIFICATION), alignof(std::max_align_t)));
        *record = {kNotificationVersion, sizeof(DEVICE_INTERFACE_CHANGE_NOTIFICATION), event,
                   registration.interfaceClass, link.get()};
        (void)framework.threads.Guarded("plug and play notification",
                                        reinterpret_cast<const void*>(registration.routine),
                                        [&] { return registration.routine(record, registration.context); });
        (void)memory.Free(record);
    }
    framework.registrations.Leave(entry);
    const std::lock_guard lock(framework.mutex);
    framework.threads.NotifyWaiting();
}

// The names of all enabled interfaces of a class; the mutex is held.
std::vector<std::string> EnabledInterfaces(const Framework& framework, const GUID& interfaceClass)
{
    std::vector<std::string> names;
    for (const auto& instance : framework.drivers) {
        for (const DeviceObject* device : instance->devices) {
            for (const DeviceInterface& interface : device->interfaces) {
                if (interface.enabled && SameGuid(interface.interfaceClass, interfaceClass)) {
                    names.push_back(InterfaceName(*device, interface));
                }
            }
        }
    }
    return names;
}

}  // namespace

std::string InterfaceName(const DeviceObject& device, const DeviceInterface& interface)
{
    return "\\??\\ROOT#" + device.driver->service + "#0000#" + GuidText(interface.interfaceClass) +
           (interface.referenceString ? "\\" + *interface.referenceString : std::string());
}

void SetInterface(Framework& framework, DeviceObject& device, DeviceInterface& interface, bool enabled)
{
    if (interface.enabled == enabled) {
        return;
    }
    interface.enabled = enabled;
    const std::string name = InterfaceName(device, interface);
    for (const PlugPlayRegistrations::Reference& entry : framework.registrations.Of(interface.interfaceClass)) {
        framework.work.Defer(nullptr, nullptr, [&framework, entry, enabled, name] {
            Notify(framework, *entry, enabled ? kArrival : kRemoval, name);
        });
    }
}

void ReportRegistrationsLeft(Framework& framework, const DriverInstance& instance)
{
    for (const PlugPlayRegistrations::Reference& entry : framework.registrations.RemoveAllOf(instance)) {
        framework.environment.ReportLeft(Rule::kUnloadRegistration,
                                         "a routine is still registered for device interfaces; the system keeps the "
                                         "driver loaded for it",
                                         {{"registered", entry->registration.registeredBy}});
    }
}

}  // namespace host::framework

using host::PlatformCall;
using host::checks::Rule;
using host::framework::Framework;
using host::framework::PlugPlayRegistrations;

#define HOST_EXPORT extern "C" __attribute__((visibility("default"), used))

HOST_EXPORT NTSTATUS NTAPI IoGetDeviceInterfaces(const GUID* interfaceClass, PDEVICE_OBJECT device, ULONG flags,
                                                 PWSTR* list)
{
    const PlatformCall call("IoGetDeviceInterfaces", HOST_CALLER, PASSIVE_LEVEL);
    if (call.fault()) {
        return call.fault()->status;
    }
    if (interfaceClass == nullptr || list == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (device != nullptr || flags != 0) {
        call.Violation(Rule::kNotProvided, "this host lists the enabled interfaces of all devices only");
        return STATUS_NOT_IMPLEMENTED;
    }
    Framework& framework = Framework::Current();
    std::u16string text;
    {
        const std::lock_guard lock(framework.mutex);
        for (const std::string& name : host::framework::EnabledInterfaces(framework, *interfaceClass)) {
            text.append(name.begin(), name.end());
            text.push_back(0);
        }
    }
    text.push_back(0);
    const std::size_t bytes = text.size() * sizeof(WCHAR);
    void* memory = framework.kernel.AllocatePool({bytes, host::framework::kPoolTag, true, call.caller()},
                                                 alignof(std::max_align_t));
    if (memory == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    std::memcpy(memory, text.data(), bytes);
    *list = static_cast<PWSTR>(memory);
    return STATUS_SUCCESS;
}

HOST_EXPORT NTSTATUS NTAPI IoRegisterPlugPlayNotification(IO_NOTIFICATION_EVENT_CATEGORY category, ULONG flags,
                                                          PVOID data, PDRIVER_OBJECT driverObject,
                                                          PDRIVER_NOTIFICATION_CALLBACK_ROUTINE routine, PVOID context,
                                                          PVOID* entry)
{
    const PlatformCall call("IoRegisterPlugPlayNotification", HOST_CALLER, PASSIVE_LEVEL);
    if (call.fault()) {
        return call.fault()->status;
    }
    if (category != EventCategoryDeviceInterfaceChange) {
        call.Violation(Rule::kNotProvided, "this host notifies of device interfaces only");
        return STATUS_NOT_IMPLEMENTED;
    }
    Framework& framework = Framework::Current();
    PlugPlayRegistrations::Reference registered;
    std::vector<std::string> existing;
    {
        const std::lock_guard lock(framework.mutex);
        const host::framework::DriverInstance* driver = framework.drivers.Of(driverObject);
        if (driver == nullptr || data == nullptr || routine == nullptr || entry == nullptr) {
            call.Violation(Rule::kBadParameter, "no driver object of a loaded driver, or a required pointer is null");
            return STATUS_INVALID_PARAMETER;
        }
        const GUID& interfaceClass = *static_cast<const GUID*>(data);
        registered = framework.registrations.Add(
            {interfaceClass, routine, context, driver, framework.environment.PathNow(call.caller())});
        *entry = registered->handle;
        if ((flags & PNPNOTIFY_DEVICE_INTERFACE_INCLUDE_EXISTING_INTERFACES) != 0) {
            existing = host::framework::EnabledInterfaces(framework, interfaceClass);
        }
    }
    for (const std::string& name : existing) {
        host::framework::Notify(framework, *registered, host::framework::kArrival, name);
    }
    return STATUS_SUCCESS;
}

HOST_EXPORT NTSTATUS NTAPI IoUnregisterPlugPlayNotificationEx(PVOID entry)
{
    const PlatformCall call("IoUnregisterPlugPlayNotificationEx", HOST_CALLER, PASSIVE_LEVEL);
    Framework& framework = Framework::Current();
    const PlugPlayRegistrations::Reference removed = framework.registrations.Remove(entry);
    if (removed == nullptr) {
        call.Violation(Rule::kCallbackObject, "the entry is no registration, or was unregistered before");
        return STATUS_INVALID_PARAMETER;
    }
    const auto threads = [&] { return framework.registrations.RunningOn(*removed); };
    // The routine may unregister itself; anybody else waits until it has returned.
    if (std::ranges::count(threads(), host::ThreadState::Current().id) == 0) {
        std::unique_lock lock(framework.mutex);
        (void)framework.threads.WaitFor(lock,
                                        {.subject = [] { return "the return of a plug and play notification"; },
                                         .isReady = [&] { return threads().empty(); },
                                         .heldBy = threads},
                                        call.function(), call.caller());
    }
    return STATUS_SUCCESS;
}

void host::framework::RegisterPlugPlayExports()
{
    static const image::Export kExports[] = {
        image::Of("IoGetDeviceInterfaces", &IoGetDeviceInterfaces),
        image::Of("IoRegisterPlugPlayNotification", &IoRegisterPlugPlayNotification),
        image::Of("IoUnregisterPlugPlayNotificationEx", &IoUnregisterPlugPlayNotificationEx),
    };
    image::AddExports("ntoskrnl.exe", kExports);
}
