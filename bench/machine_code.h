// The reporting sites as the compiler left them in an image: every load of an enable word, the test that follows it,
// and the site whose record the slow path after it names. Read from the disassembly and the link map.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace bench {

enum class Channel { kEvents, kMessages };

// One load of an enable word in code that is not the reporting's own.
struct SiteTest {
    std::uint64_t load;               // offset of the load from the image's base
    std::vector<std::uint64_t> path;  // offsets of the load, the test and the branch
    Channel channel;
    bool isTested = false;         // a single-bit test of the loaded value and a branch on it follow
    int site = -1;                 // number of the site whose record the branch leads to; -1: none found
    bool isColdOutOfLine = false;  // the branch is taken only when tracing is enabled
};

struct SiteCode {
    std::vector<SiteTest> tests;
    // The sites whose records calls of the writing routines pass.
    std::set<int> recordedSites;
};

// `machine` is "x64" or "arm64"; the image's link map lies beside it. Throws std::runtime_error when either cannot be
// read.
[[nodiscard]] SiteCode ReadSiteCode(const std::filesystem::path& image, const std::string& machine);

}  // namespace bench
