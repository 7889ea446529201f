// Delays, and what time it is.
#include "host/image/exports.h"
#include "host/kernel/kernel.h"

#include <thread>

using host::PlatformCall;
using host::kernel::Kernel;
using host::kernel::TimeUnits;

#define HOST_EXPORT extern "C" __attribute__((visibility("default"), used))

HOST_EXPORT NTSTATUS NTAPI KeDelayExecutionThread(KPROCESSOR_MODE mode, BOOLEAN alertable, PLARGE_INTEGER interval)
{
    const std::string detail =
        std::string(mode == KernelMode ? "kernel mode" : "user mode") + (alertable != FALSE ? ", alertable" : "");
    const PlatformCall call("KeDelayExecutionThread", HOST_CALLER, APC_LEVEL, detail.c_str());
    if (call.fault()) {
        return call.fault()->status;
    }
    Kernel& kernel = Kernel::Current();
    {
        const std::lock_guard lock(kernel.mutex);
        kernel.delays.push_back(interval->QuadPart);
    }
    const TimeUnits moment = kernel.clock.MomentOf(interval->QuadPart);
    if (kernel.environment.options.realTime && moment > kernel.clock.Now()) {
        constexpr std::int64_t kNanosecondsPerUnit = 100;
        std::this_thread::sleep_for(std::chrono::nanoseconds((moment - kernel.clock.Now()) * kNanosecondsPerUnit));
    }
    kernel.clock.AdvanceTo(moment);
    return STATUS_SUCCESS;
}

HOST_EXPORT VOID NTAPI KeStallExecutionProcessor(ULONG microseconds)
{
    const PlatformCall call("KeStallExecutionProcessor", HOST_CALLER, HIGH_LEVEL);
    constexpr TimeUnits kUnitsPerMicrosecond = 10;
    Kernel::Current().clock.Advance(microseconds * kUnitsPerMicrosecond);
}

HOST_EXPORT VOID NTAPI KeQuerySystemTimePrecise(PLARGE_INTEGER time)
{
    const PlatformCall call("KeQuerySystemTime", HOST_CALLER, HIGH_LEVEL);
    time->QuadPart = Kernel::Current().clock.SystemTime();
}

HOST_EXPORT ULONG64 NTAPI KeQueryInterruptTimePrecise(PULONG64 counter)
{
    const PlatformCall call("KeQueryInterruptTime", HOST_CALLER, HIGH_LEVEL);
    const TimeUnits now = Kernel::Current().clock.Now();
    *counter = static_cast<ULONG64>(now);
    return static_cast<ULONG64>(now);
}

// Counts in the units of the clock.
HOST_EXPORT LARGE_INTEGER NTAPI KeQueryPerformanceCounter(PLARGE_INTEGER frequency)
{
    const PlatformCall call("KeQueryPerformanceCounter", HOST_CALLER, HIGH_LEVEL);
    if (frequency != nullptr) {
        frequency->QuadPart = host::kernel::kUnitsPerSecond;
    }
    LARGE_INTEGER counter;
    counter.QuadPart = Kernel::Current().clock.Now();
    return counter;
}

namespace host::kernel {

void RegisterTimeExports()
{
    using image::Of;
    static const image::Export kExports[] = {
        Of("KeDelayExecutionThread", &KeDelayExecutionThread),
        Of("KeStallExecutionProcessor", &KeStallExecutionProcessor),
        Of("KeQuerySystemTimePrecise", &KeQuerySystemTimePrecise),
        Of("KeQueryInterruptTimePrecise", &KeQueryInterruptTimePrecise),
        Of("KeQueryPerformanceCounter", &KeQueryPerformanceCounter),
    };
    image::AddExports("ntoskrnl.exe", kExports);
    image::AddExports("hal.dll", kExports);  // where older import libraries look for the last ones
}

}  // namespace host::kernel
