// Self-managed I/O: what a driver starts and stops with the device's power, beside its queues.
#pragma once

#include "host/framework/object.h"

namespace host::framework {

struct DeviceObject;

// Called without the mutex, by who drives the device.
class SelfManagedIo {
public:
    // The device is in D0: the first time it is initialised, later restarted.
    NTSTATUS Start(Framework& framework, const DeviceObject& device);
    // It is about to leave D0.
    NTSTATUS Suspend(Framework& framework, const DeviceObject& device);
    // It is gone from the bus, or is being removed.
    void Flush(Framework& framework, const DeviceObject& device);
    // It is removed; its children are still there.
    void Cleanup(Framework& framework, const DeviceObject& device);

private:
    enum class State { kCreated, kInitFailed, kStarted, kStopped, kFailed, kFlushed, kFinal };
    State state_ = State::kCreated;
};

}  // namespace host::framework
