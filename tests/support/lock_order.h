// The driver's own order of locks, read from the one table where it stands.
#pragma once

#include "host/machine.h"

namespace tests {

// Tells a machine with a started driver in which order that driver may take its locks. `context` is where the driver
// context lies.
void DeclareLockOrder(host::Machine& machine, const void* context);

}  // namespace tests
