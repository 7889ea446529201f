// The driver's own order of locks, read from the one table where it stands. Nothing else here looks into the driver.
#pragma once

#include "host/machine.h"

namespace layout {

// Gives the machine the order in which a driver whose device has started may take its locks, and the names of locks
// and collections for its reports. Throws host::HostError when the driver has no context.
void DeclareLockOrder(host::Machine& machine, const host::Driver& driver);

}  // namespace layout
