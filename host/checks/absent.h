// Functions of the platform that this host does not play.
#pragma once

#include <string>

namespace host::checks {

// A driver called one: reported by its name, and the calling thread goes no further.
[[noreturn]] void StopAtAbsent(const std::string& name, const void* caller);

}  // namespace host::checks
