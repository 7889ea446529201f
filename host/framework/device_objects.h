// The system's device objects behind a device: the driver's own and the one of the bus below it.
#pragma once

#include "host/framework/lent_buffer.h"

struct WDFDEVICE_INIT;

namespace host::framework {

struct DriverInstance;

// Gone, and inaccessible, with the device.
class WdmDeviceObjects {
public:
    WdmDeviceObjects(kernel::Kernel& kernel, DriverInstance& driver, const WDFDEVICE_INIT& init);

    [[nodiscard]] DEVICE_OBJECT* functional() const { return reinterpret_cast<DEVICE_OBJECT*>(functional_.get()); }
    [[nodiscard]] DEVICE_OBJECT* physical() const { return reinterpret_cast<DEVICE_OBJECT*>(physical_.get()); }

private:
    LentBuffer functional_;
    LentBuffer physical_;
};

}  // namespace host::framework
