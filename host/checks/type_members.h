// Names of structures' members, read from an image's debug information by LLVM's tools.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

namespace host::checks {

// What stands at an offset in a structure of the image: "wdfWaitLockGeneral", "Link.Lock" in a structure inside. Empty
// when the debug information or the tool is not to be had, or says nothing of it. Asks once for a file's structure in a
// process.
[[nodiscard]] std::string MemberName(const std::filesystem::path& image, const std::string& structure,
                                     std::uint64_t offset);

}  // namespace host::checks
