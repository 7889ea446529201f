// What a shared object still needs when it is loaded.
#pragma once

#include <string>
#include <vector>

namespace host::image {

// Functions and variables that a loaded library refers to and that nothing in the process defines, by name.
[[nodiscard]] std::vector<std::string> UndefinedSymbols(void* handle);

}  // namespace host::image
