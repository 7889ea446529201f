// The lives that are swept.
#pragma once

#include "tests/fault_injection/life.h"

namespace sweep {

// From load to unload through every operation, with what each refuses.
[[nodiscard]] Life WholeLife();

// A short one, for the other route of the trace messages.
[[nodiscard]] Life LegacyLife();

// The device is removed and added once more: the second device add finds the driver context as the first has left it.
[[nodiscard]] Life SecondDevice();

// A client leaves, or changes, while commands from or to it are under way: how command delivery stops for good.
[[nodiscard]] Life CommandToOneself();
[[nodiscard]] Life CommandOfTheDeparted();
[[nodiscard]] Life CommandToTheChanged();

}  // namespace sweep
