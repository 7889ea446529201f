// Threads that hang: they are set aside inside the host, and whoever waits for their work gets the reason.
#pragma once

#include <string>

namespace host::schedule {

// Sets the calling thread aside; it never returns into the image. A thread that is not one of the host's own, as the
// main thread of a test, throws Hang instead, through the frames of the driver: a case of GoogleTest fails with it, and
// the others run. Where nobody catches it, or an image has no unwind tables, the process ends.
[[noreturn]] void ParkThisThread(const std::string& reason);

}  // namespace host::schedule
