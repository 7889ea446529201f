// The sequences that faults are injected into.
#pragma once

#include "tests/fault_injection/sequence.h"

namespace fault_injection {

// From load to unload through every operation, with what each refuses.
[[nodiscard]] Sequence WholeSequence();

// A short one, for the classic (WMI) registration of the trace messages' provider, and for an image loaded again.
[[nodiscard]] Sequence ShortSequence();

// The device is removed and added once more: the second device add finds the driver context as the first has left it.
[[nodiscard]] Sequence SecondDevice();

// A client is deregistered, or registers without a callback, while a command from or to it is queued: how command
// delivery hangs.
[[nodiscard]] Sequence CommandToOneself();
[[nodiscard]] Sequence CommandOfADeregisteredClient();
[[nodiscard]] Sequence CommandToAClientWithoutCallback();

}  // namespace fault_injection
