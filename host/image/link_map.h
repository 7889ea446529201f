// The link map that lld writes beside an image: what lies where.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace host::image {

struct LinkMapEntry {
    enum class Kind { kSection, kInput, kSymbol };
    Kind kind;
    std::uint64_t offset;  // from the image's base
    std::uint64_t sizeBytes;
    std::string name;  // of the section, "<object file>:(<section>)", or the symbol with its parameters
};

// In the order of the file; empty when it cannot be read.
[[nodiscard]] std::vector<LinkMapEntry> ReadLinkMap(const std::filesystem::path& file);

}  // namespace host::image
