// By which functions of a loaded image a platform call was reached.
#pragma once

#include "host/checks/modules.h"

#include <string>
#include <vector>

namespace host::checks {

// The functions of loaded modules on the calling thread's stack, outermost first, by name; an inlined one does not show.
// Walks as far as the frames can be unwound: all the way for native drivers, nowhere for images, which bring no unwind
// tables of this system's kind.
[[nodiscard]] std::vector<std::string> CallPath(const Modules& modules);

}  // namespace host::checks
