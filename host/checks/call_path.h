// By which code of loaded images the calling thread came to where it is.
#pragma once

#include "host/checks/modules.h"

#include <vector>

namespace host::checks {

// Addresses in images, outermost first, each in the instruction that made the call.
using Addresses = std::vector<const void*>;

// Those on the calling thread's stack. Of a very deep stack the innermost part. A damaged stack ends the walk.
[[nodiscard]] Addresses CallPath(const Modules& modules);

// For the fault handler: when the thread faults while it walks its stack, ends the walk there and does not return.
void EndFaultingWalk();

}  // namespace host::checks
