#include "host/framework/self_managed_io.h"

#include "host/framework/device_callbacks.h"

namespace host::framework {
NTSTATUS SelfManagedIo::Start(Framework& framework, const DeviceObject& device)
{
    NTSTATUS status = STATUS_SUCCESS;
    if (state_ == State::kCreated) {
        status =
            CallDeviceRoutine(framework, "EvtDeviceSelfManagedIoInit", device.power.EvtDeviceSelfManagedIoInit, device);
        state_ = NT_SUCCESS(status) ? State::kStarted : State::kInitFailed;
    } else if (state_ == State::kStopped || state_ == State::kFlushed) {
        status = CallDeviceRoutine(framework, "EvtDeviceSelfManagedIoRestart",
                                   device.power.EvtDeviceSelfManagedIoRestart, device);
        state_ = NT_SUCCESS(status) ? State::kStarted : State::kFailed;
    }
    return status;
}

NTSTATUS SelfManagedIo::Suspend(Framework& framework, const DeviceObject& device)
{
    if (state_ != State::kStarted) {
        return STATUS_SUCCESS;
    }
    const NTSTATUS status = CallDeviceRoutine(framework, "EvtDeviceSelfManagedIoSuspend",
                                              device.power.EvtDeviceSelfManagedIoSuspend, device);
    state_ = NT_SUCCESS(status) ? State::kStopped : State::kFailed;
    return status;
}

void SelfManagedIo::Flush(Framework& framework, const DeviceObject& device)
{
    if (state_ == State::kInitFailed || state_ == State::kStopped || state_ == State::kFailed) {
        CallDeviceRoutine(framework, "EvtDeviceSelfManagedIoFlush", device.power.EvtDeviceSelfManagedIoFlush, device);
        state_ = State::kFlushed;
    }
}

void SelfManagedIo::Cleanup(Framework& framework, const DeviceObject& device)
{
    if (state_ == State::kFlushed) {
        CallDeviceRoutine(framework, "EvtDeviceSelfManagedIoCleanup", device.power.EvtDeviceSelfManagedIoCleanup,
                          device);
    }
    state_ = State::kFinal;
}

}  // namespace host::framework
