// What the measurements need of an image's link map: where the linker put the data and the code of the reporting.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <vector>

namespace bench {

// Offsets from the image's base.
struct Range {
    std::uint64_t begin;
    std::uint64_t end;
};

struct LinkMap {
    std::uint64_t words = 0;               // offset of g_TraceEnable
    std::map<std::uint64_t, int> records;  // offset of a site's record to its number
    std::vector<Range> reporting;          // code of the reporting itself
};

// Throws std::runtime_error when the file cannot be read or names none of these.
[[nodiscard]] LinkMap ReadLinkMap(const std::filesystem::path& file);

}  // namespace bench
