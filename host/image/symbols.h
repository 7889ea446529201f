// Function names of an image, so that reports name places in the driver.
#pragma once

#include "host/checks/modules.h"

#include <filesystem>

namespace host::image {

// Each reads a file once in a process and again when it has changed: an image may be loaded thousands of times.

// From the linker's map beside a PE image ("zepn.map" beside "zepn.sys"); empty when there is none.
[[nodiscard]] checks::Symbols MapFileSymbols(const std::filesystem::path& image);

// From an ELF file's symbol table; empty when it has none.
[[nodiscard]] checks::Symbols ElfSymbols(const std::filesystem::path& file);

}  // namespace host::image
