// Memory faults of image code: printed with the place in the image, then the process ends.
#pragma once

namespace host::checks {

// Installs the handler once per process and gives the calling thread a stack of its own for it. Does nothing in
// sanitizer builds, whose runtimes say more.
void CatchMemoryFaults();

// The exit status of a process that ended so.
inline constexpr int kMemoryFaultExit = 4;

}  // namespace host::checks
