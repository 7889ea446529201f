// Threads that hang: they are set aside inside the host, and whoever waits for their work gets the reason.
#pragma once

#include <string>

namespace host::schedule {

// Sets the calling thread aside; it never returns into the image. On a thread that is not one of the host's own
// (the main thread of a test) nobody could go on: the reason is printed and the process ends with status 3.
[[noreturn]] void ParkThisThread(const std::string& reason);

}  // namespace host::schedule
