#include "host/framework/driver_load.h"

#include "host/framework/devices.h"
#include "host/framework/plug_play.h"
#include "host/framework/pointers_left.h"
#include "host/kernel/guarded_string.h"

namespace host::framework {
namespace {

using checks::Rule;
using Entry = NTSTATUS(NTAPI*)(PDRIVER_OBJECT, PUNICODE_STRING);

constexpr SHORT kDriverObjectType = 4;

void PrepareDriverObject(DriverInstance& instance)
{
    DRIVER_OBJECT& object = instance.driverObject;
    object.Type = kDriverObjectType;
    object.Size = sizeof(DRIVER_OBJECT);
    object.DriverStart = const_cast<void*>(instance.image->base());
    object.DriverSize = static_cast<ULONG>(instance.image->sizeBytes());
    object.DriverExtension = &instance.extension;
    object.DriverInit = reinterpret_cast<PDRIVER_INITIALIZE>(instance.image->entry());
    instance.extension.DriverObject = &object;
}

// What follows a failed entry and an unload: what is left is reported, then the image is unmapped.
void ReleaseImage(Framework& framework, tracing::Tracing& tracing, DriverInstance& instance)
{
    const void* base = instance.imageBase;
    const std::size_t sizeBytes = instance.imageSizeBytes;
    if (instance.globals != nullptr) {
        framework.environment.ReportLeft(Rule::kLeak, instance.service + " is still bound to the framework", {});
        Unbind(framework, instance);
    }
    ReportRegistrationsLeft(framework, instance);
    {
        const std::lock_guard lock(framework.mutex);
        framework.objects.ReportLeftBy(instance);
        instance.driver = nullptr;
    }
    framework.kernel.ReportLeaksOf(base, sizeBytes);
    tracing.ReportLeaksOf(base, sizeBytes);
    ReportPointersLeft(framework, instance);
    if (framework.threads.HasParked()) {
        instance.image->KeepMapped();
    }
    instance.image.reset();
    instance.loaded = false;
}

}  // namespace

DriverInstance& LoadDriver(Framework& framework, tracing::Tracing& tracing, const std::filesystem::path& file,
                           const std::string& service)
{
    {
        const std::lock_guard lock(framework.mutex);
        if (framework.drivers.Running(service) != nullptr) {
            throw HostError(service + ": the service runs already");
        }
    }
    auto made = std::make_unique<DriverInstance>();
    made->service = service;
    made->image = image::LoadedImage::Load(framework.environment, file);
    made->imageBase = made->image->base();
    made->imageSizeBytes = made->image->sizeBytes();
    DriverInstance& instance = *made;
    PrepareDriverObject(instance);
    {
        const std::lock_guard lock(framework.mutex);
        framework.drivers.Add(std::move(made));
    }
    {
        const kernel::GuardedString path(framework.kernel.contextMemory(),
                                         "\\Registry\\Machine\\System\\CurrentControlSet\\Services\\" + service);
        const auto entry = reinterpret_cast<Entry>(instance.image->entry());
        instance.entryStatus = framework.threads.Guarded("DriverEntry", instance.image->entry(),
                                                         [&] { return entry(&instance.driverObject, path.get()); });
    }
    if (NT_SUCCESS(instance.entryStatus)) {
        instance.loaded = true;
        instance.image->SealAfterEntry();
    } else {
        ReleaseImage(framework, tracing, instance);
    }
    return instance;
}

schedule::Outcome UnloadDriver(Framework& framework, tracing::Tracing& tracing, DriverInstance& instance)
{
    if (!instance.loaded) {
        throw HostError(instance.service + ": it is not loaded");
    }
    if (!instance.devices.empty()) {
        throw HostError(instance.service + ": a device exists, so the system does not unload its driver");
    }
    PDRIVER_UNLOAD unload = instance.driverObject.DriverUnload;
    if (unload == nullptr) {
        throw HostError(instance.service + ": the driver has no unload routine");
    }
    schedule::Outcome outcome =
        framework.threads.RunOnThread("driver unload", "DriverUnload", reinterpret_cast<const void*>(unload),
                                      [&] { unload(&instance.driverObject); });
    if (!outcome.parked) {
        ReleaseImage(framework, tracing, instance);
    }
    return outcome;
}

void AbandonDriver(Framework& framework, DriverInstance& instance)
{
    if (instance.image != nullptr && framework.threads.HasParked()) {
        instance.image->KeepMapped();
    }
    const std::lock_guard lock(framework.mutex);
    instance.image.reset();
    instance.loaded = false;
}

}  // namespace host::framework
