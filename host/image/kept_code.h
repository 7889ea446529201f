// The code of images that were unloaded, for the next load of the same file. An emulator translates code anew when it
// is mapped anew, which takes longer than what a short sequence runs of it.
//
// With MachineOptions::keepsCode an unloaded image's code stays where it is; all else of the image becomes
// inaccessible, so code that is called after its unload ends at the first access to data or to a function of the
// platform.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>

namespace host::image {

struct Mapping {
    std::uint8_t* reserved = nullptr;
    std::size_t reservedSize = 0;
    std::uint8_t* base = nullptr;             // of the image
    std::filesystem::file_time_type written;  // when the file was, of which this is the code
};

// What was kept of this very file, once; none when there is nothing, or when the file has changed.
[[nodiscard]] std::optional<Mapping> TakeKeptCode(const std::filesystem::path& file);
void KeepCode(const std::filesystem::path& file, const Mapping& mapping);

}  // namespace host::image
