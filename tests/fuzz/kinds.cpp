#include "tests/fuzz/kinds.h"

#include <algorithm>
#include <fstream>
#include <iterator>

namespace fuzz {

const std::vector<FileKind>& FileKinds()
{
    static const std::vector<FileKind> kKinds = {Scenarios(), Captures(), Manifests(), Formats(), Images()};
    return kKinds;
}

std::vector<std::string> ContentsOf(const std::filesystem::path& folder, const std::string& extension)
{
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        if (entry.path().extension() == extension) {
            files.push_back(entry.path());
        }
    }
    std::ranges::sort(files);
    std::vector<std::string> contents;
    for (const std::filesystem::path& file : files) {
        std::ifstream stream(file, std::ios::binary);
        contents.emplace_back(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
    }
    return contents;
}

}  // namespace fuzz
