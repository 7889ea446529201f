// The sequences that are swept.
#pragma once

#include "tests/fault_injection/sequence.h"

namespace fault_injection {

// From load to unload through every operation, with what each refuses.
[[nodiscard]] Sequence WholeLife();

// A short one, for the other route of the trace messages.
[[nodiscard]] Sequence ClassicProvider();

// The device is removed and added once more: the second device add finds the driver context as the first has left it.
[[nodiscard]] Sequence SecondDevice();

// A client leaves, or changes, while commands from or to it are under way: how command delivery stops for good.
[[nodiscard]] Sequence CommandToOneself();
[[nodiscard]] Sequence CommandOfTheDeparted();
[[nodiscard]] Sequence CommandToTheChanged();

}  // namespace fault_injection
