#include "host/driver.h"

#include "host/framework/device_callbacks.h"
#include "host/framework/driver_load.h"
#include "host/framework/plug_play.h"
#include "host/machine.h"

namespace host {

using framework::DeviceObject;
using framework::DriverInstance;
using framework::Framework;

namespace {

DeviceObject& NewestDevice(const DriverInstance& instance)
{
    if (instance.devices.empty()) {
        throw HostError(instance.service + ": it has no device");
    }
    return *instance.devices.back();
}

}  // namespace

Driver::Driver(Machine& machine, framework::DriverInstance& instance) : machine_(machine), instance_(instance)
{
}

Driver::~Driver() = default;

NTSTATUS Driver::EntryStatus() const
{
    return instance_.entryStatus;
}

NTSTATUS Driver::AddDevice()
{
    if (!instance_.loaded || instance_.extension.AddDevice == nullptr) {
        throw HostError(instance_.service + ": it is not loaded, or has no add-device routine");
    }
    return instance_.extension.AddDevice(&instance_.driverObject, nullptr);
}

NTSTATUS Driver::StartDevice()
{
    return framework::StartDevice(Framework::Current(), NewestDevice(instance_));
}

NTSTATUS Driver::QueryStopDevice()
{
    DeviceObject& device = NewestDevice(instance_);
    return device.stopRemoveRefusals != 0 ? STATUS_INVALID_DEVICE_STATE
                                          : framework::CallDeviceRoutine(Framework::Current(), "EvtDeviceQueryStop",
                                                                         device.power.EvtDeviceQueryStop, device);
}

NTSTATUS Driver::QueryRemoveDevice()
{
    return framework::QueryRemove(Framework::Current(), NewestDevice(instance_));
}

NTSTATUS Driver::Sleep()
{
    return framework::SleepDevice(Framework::Current(), NewestDevice(instance_));
}

NTSTATUS Driver::Wake()
{
    return framework::WakeDevice(Framework::Current(), NewestDevice(instance_));
}

NTSTATUS Driver::SurpriseRemoveDevice()
{
    return framework::SurpriseRemoveDevice(Framework::Current(), NewestDevice(instance_));
}

Outcome Driver::RemoveDevice()
{
    Framework& framework = Framework::Current();
    DeviceObject& device = NewestDevice(instance_);
    if (device.openFiles != 0) {
        throw HostError(instance_.service + ": handles are open, so the system does not remove the device yet");
    }
    return framework.threads.RunOnThread("device removal", "device removal", nullptr,
                                         [&] { framework::RemoveDevice(framework, device); });
}

bool Driver::HasDevice() const
{
    return !instance_.devices.empty();
}

WDFDEVICE Driver::Device() const
{
    return static_cast<WDFDEVICE>(NewestDevice(instance_).handle);
}

Outcome Driver::Unload()
{
    return framework::UnloadDriver(Framework::Current(), machine_.tracing(), instance_);
}

bool Driver::IsLoaded() const
{
    return instance_.loaded;
}

NTSTATUS Driver::QueryInterface(const GUID& type, std::span<std::byte> buffer, std::uint16_t version)
{
    if (instance_.devices.empty()) {
        return STATUS_NO_SUCH_DEVICE;
    }
    return framework::QueryInterface(Framework::Current(), NewestDevice(instance_), type, buffer, version);
}

bool Driver::IsInterfaceEnabled(const GUID& interfaceClass) const
{
    const std::lock_guard lock(Framework::Current().mutex);
    if (instance_.devices.empty()) {
        return false;
    }
    for (const framework::DeviceInterface& interface : NewestDevice(instance_).interfaces) {
        if (framework::SameGuid(interface.interfaceClass, interfaceClass) && interface.enabled) {
            return true;
        }
    }
    return false;
}

std::vector<Driver::InterfaceChange> Driver::InterfaceChanges() const
{
    const std::lock_guard lock(Framework::Current().mutex);
    std::vector<InterfaceChange> changes;
    for (const framework::InterfaceChangeRecord& change : instance_.interfaceChanges) {
        changes.push_back({change.interfaceClass, change.enabled});
    }
    return changes;
}

unsigned Driver::OpenHandles() const
{
    const std::lock_guard lock(Framework::Current().mutex);
    unsigned count = 0;
    for (const DeviceObject* device : instance_.devices) {
        count += device->openFiles;
    }
    return count;
}

std::vector<framework::Holding> Driver::Holdings() const
{
    return framework::HoldingsOf(Framework::Current(), instance_);
}

IoResult Driver::Open(FileId& file)
{
    file = 0;
    if (instance_.devices.empty()) {
        return {STATUS_NO_SUCH_DEVICE, 0, true};
    }
    framework::FileObjectObject* object = nullptr;
    const framework::RequestResult result = framework::OpenFile(Framework::Current(), NewestDevice(instance_), object);
    if (object != nullptr) {
        const std::lock_guard lock(filesMutex_);
        file = nextFile_++;
        files_[file] = object;
    }
    return {result.status, result.information, result.completed};
}

framework::FileObjectObject& Driver::FileOf(FileId file, bool forget)
{
    const std::lock_guard lock(filesMutex_);
    const auto found = files_.find(file);
    if (found == files_.end()) {
        throw HostError(instance_.service + ": no such open handle");
    }
    framework::FileObjectObject& object = *found->second;
    if (forget) {
        files_.erase(found);
    }
    return object;
}

void Driver::Close(FileId file)
{
    framework::CloseFile(Framework::Current(), FileOf(file, true));
}

IoResult Driver::DeviceControl(FileId file, std::uint32_t code, std::span<const std::byte> input,
                               std::span<std::byte> output)
{
    const framework::RequestResult result =
        framework::DeviceControl(Framework::Current(), FileOf(file, false), code, input, output);
    return {result.status, result.information, result.completed};
}

WDFDRIVER Driver::Handle() const
{
    return instance_.driver == nullptr ? nullptr : static_cast<WDFDRIVER>(instance_.driver->handle);
}

std::uint32_t Driver::PoolTag() const
{
    return instance_.globals == nullptr ? 0 : instance_.globals->DriverTag;
}

const void* Driver::ImageBase() const
{
    return instance_.imageBase;
}

std::size_t Driver::ImageSizeBytes() const
{
    return instance_.imageSizeBytes;
}

}  // namespace host
