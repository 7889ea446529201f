// Calling a driver's callbacks for its device.
#pragma once

#include "host/framework/devices.h"

#include <type_traits>

namespace host::framework {

// Calls the routine, if there is one: what is not there succeeds. Without the mutex.
template <class Result, class... Arguments>
Result CallDeviceRoutine(Framework& framework, const char* name, Result(NTAPI* routine)(WDFDEVICE, Arguments...),
                         const DeviceObject& device, std::type_identity_t<Arguments>... arguments)
{
    if (routine == nullptr) {
        return Result();
    }
    return framework.threads.Guarded(name, reinterpret_cast<const void*>(routine),
                                     [&] { return routine(static_cast<WDFDEVICE>(device.handle), arguments...); });
}

}  // namespace host::framework
