// A driver as an image: mapped, entered, unloaded, unmapped.
#pragma once

#include "host/framework/framework.h"
#include "host/tracing/tracing.h"

#include <filesystem>

namespace host::framework {

// Maps an image and runs its entry point, whose status stands in the instance; after a failed entry the image is
// unmapped again. Throws HostError when the image is refused or the service runs already.
DriverInstance& LoadDriver(Framework& framework, tracing::Tracing& tracing, const std::filesystem::path& file,
                           const std::string& service);

// Runs the unload routine on a thread of the host, reports what is left and unmaps; a driver whose routine parks stays.
// Throws HostError while a device exists.
schedule::Outcome UnloadDriver(Framework& framework, tracing::Tracing& tracing, DriverInstance& instance);

// Drops a driver without running any of its code, with the machine. The image stays mapped if threads are parked.
void AbandonDriver(Framework& framework, DriverInstance& instance);

// The framework's share in both, entered through the driver object (driver.cpp).
void NTAPI FrameworkUnload(PDRIVER_OBJECT driverObject);
NTSTATUS NTAPI FrameworkAddDevice(PDRIVER_OBJECT driverObject, PDEVICE_OBJECT physicalDevice);

// Deletes the driver object if there is one and frees the globals (binding.cpp).
void Unbind(Framework& framework, DriverInstance& instance);

}  // namespace host::framework
