// Device interfaces as the rest of the system sees them: their names, who is notified of arrival and removal, and the
// drivers that hold a device open through an I/O target.
#pragma once

#include "host/framework/devices.h"

namespace host::framework {

struct IoTargetObject final : Object {
    explicit IoTargetObject(DriverInstance* owner) : Object(ObjectType::kIoTarget, owner) {}
    void OnDispose(Framework& framework, std::unique_lock<std::mutex>& lock) override;
    [[nodiscard]] bool NeedsPassiveLevel() const override { return true; }

    enum class State { kClosed, kOpen, kClosedForQueryRemove };
    State state = State::kClosed;
    DeviceObject* device = nullptr;    // that it is open on, or was before the query
    FileObjectObject* file = nullptr;  // while open
    PFN_WDF_IO_TARGET_QUERY_REMOVE queryRemove = nullptr;
    PFN_WDF_IO_TARGET_REMOVE_CANCELED removeCanceled = nullptr;
    PFN_WDF_IO_TARGET_REMOVE_COMPLETE removeComplete = nullptr;
};

template <>
inline constexpr ObjectType kTypeOf<IoTargetObject> = ObjectType::kIoTarget;

// ---- Interfaces (plug_play.cpp) ----

// The symbolic name by which an interface is opened.
[[nodiscard]] std::string InterfaceName(const DeviceObject& device, const DeviceInterface& interface);

// Enables or disables; those who registered for the class are notified of a change later, on a system thread. The mutex
// is held.
void SetInterface(Framework& framework, DeviceObject& device, DeviceInterface& interface, bool enabled);

// Registrations that an unloaded driver did not remove: each is reported and dropped.
void ReportRegistrationsLeft(Framework& framework, const DriverInstance& instance);

void RegisterPlugPlayExports();

// ---- Targets open on a device (io_targets.cpp) ----

// Asks everybody who holds the device open, then the device itself; after a refusal those who agreed are notified.
NTSTATUS QueryRemove(Framework& framework, DeviceObject& device);

// Notifies everybody who holds the device open, or closed it for the query, that it is removed.
void NotifyRemoveComplete(Framework& framework, DeviceObject& device);

// Closes what is open. The lock is released meanwhile.
void CloseTarget(Framework& framework, std::unique_lock<std::mutex>& lock, IoTargetObject& target,
                 IoTargetObject::State state);

}  // namespace host::framework
