#include "host/framework/drivers.h"

#include "host/framework/framework.h"

#include <algorithm>

namespace host::framework {
namespace {

template <class Condition>
DriverInstance* FindDriver(const Drivers& drivers, const Condition& condition)
{
    const auto found =
        std::find_if(drivers.begin(), drivers.end(), [&](const auto& instance) { return condition(*instance); });
    return found == drivers.end() ? nullptr : found->get();
}

}  // namespace

void DriverObject::OnDispose(Framework& framework, std::unique_lock<std::mutex>& lock)
{
    framework.work.WaitForDisposals(lock, *this);
}

void DriverObject::OnFree(Framework& /*framework*/)
{
    if (driver->driver == this) {
        driver->driver = nullptr;
    }
}

DriverInstance& Drivers::Add(std::unique_ptr<DriverInstance> instance)
{
    return *instances_.emplace_back(std::move(instance));
}

DriverInstance* Drivers::Of(const WDF_DRIVER_GLOBALS* globals) const
{
    return globals == nullptr
               ? nullptr
               : FindDriver(*this, [&](const DriverInstance& instance) { return instance.globals == globals; });
}

DriverInstance* Drivers::Of(const DRIVER_OBJECT* driverObject) const
{
    return FindDriver(*this, [&](const DriverInstance& instance) { return &instance.driverObject == driverObject; });
}

DriverInstance* Drivers::Running(const std::string& service) const
{
    return FindDriver(*this,
                      [&](const DriverInstance& instance) { return instance.loaded && instance.service == service; });
}

DriverInstance* Drivers::At(const void* address) const
{
    return FindDriver(*this, [&](const DriverInstance& instance) {
        const auto* base = static_cast<const char*>(instance.imageBase);
        return instance.image != nullptr && address >= base && address < base + instance.imageSizeBytes;
    });
}

void Drivers::HideHandles(bool hide)
{
    for (const auto& instance : instances_) {
        if (instance->globals == nullptr) {
            continue;
        }
        if (hide && instance->globals->Driver != nullptr) {
            instance->hiddenDriver = instance->globals->Driver;
            instance->globals->Driver = nullptr;
        } else if (!hide && instance->hiddenDriver != nullptr) {
            instance->globals->Driver = instance->hiddenDriver;
            instance->hiddenDriver = nullptr;
        }
    }
}

}  // namespace host::framework
