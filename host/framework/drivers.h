// The drivers of the machine: what the framework knows of each, from its image to its framework objects.
#pragma once

#include "host/framework/object.h"
#include "host/image/image.h"

#include <list>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace host::framework {

struct DeviceObject;

struct DriverObject final : Object {
    explicit DriverObject(DriverInstance* owner) : Object(ObjectType::kDriver, owner) { noDelete = true; }
    void OnDispose(Framework& framework, std::unique_lock<std::mutex>& lock) override;
    void OnFree(Framework& framework) override;

    WDF_DRIVER_CONFIG config{};
};

template <>
inline constexpr ObjectType kTypeOf<DriverObject> = ObjectType::kDriver;

struct InterfaceChangeRecord {
    GUID interfaceClass;
    bool enabled;
};

// A driver that is loaded, from its image to its framework objects. What the driver's calls may change is guarded by
// the framework's mutex; the image and its status belong to who loads and unloads.
struct DriverInstance {
    std::string service;
    std::unique_ptr<image::LoadedImage> image;  // null after the unload and after a failed entry
    const void* imageBase = nullptr;            // kept for reports
    std::size_t imageSizeBytes = 0;
    NTSTATUS entryStatus = STATUS_SUCCESS;
    DRIVER_OBJECT driverObject{};
    DRIVER_EXTENSION extension{};
    WDF_DRIVER_GLOBALS* globals = nullptr;                // null while not bound
    WDFDRIVER hiddenDriver = nullptr;                     // what the globals held before a fault hid it
    DriverObject* driver = nullptr;                       // null before creation and after destruction
    std::list<DeviceObject*> devices;                     // oldest first
    std::vector<InterfaceChangeRecord> interfaceChanges;  // asked for by the driver, oldest first
    std::set<const void*> handedOut;                      // what stands in its interface tables
    bool loaded = false;
};

// All that were ever loaded, oldest first: they stay, for reports. All calls are made with the framework's mutex held.
class Drivers {
public:
    DriverInstance& Add(std::unique_ptr<DriverInstance> instance);

    // Null for globals or a driver object of none.
    [[nodiscard]] DriverInstance* Of(const WDF_DRIVER_GLOBALS* globals) const;
    [[nodiscard]] DriverInstance* Of(const DRIVER_OBJECT* driverObject) const;
    // The one that is loaded and runs as this service, or whose mapped image has this address; null when none does.
    [[nodiscard]] DriverInstance* Running(const std::string& service) const;
    [[nodiscard]] DriverInstance* At(const void* address) const;

    [[nodiscard]] auto begin() const { return instances_.begin(); }
    [[nodiscard]] auto end() const { return instances_.end(); }

    // Takes the driver handles out of the globals, or puts them back: a fault that drivers can meet.
    void HideHandles(bool hide);

private:
    std::list<std::unique_ptr<DriverInstance>> instances_;
};

}  // namespace host::framework
