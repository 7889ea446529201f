#include "tests/fuzz/kinds.h"

#include <algorithm>
#include <fstream>
#include <iterator>

#include <unistd.h>

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

std::string ReadAsFile(const std::string& bytes, const std::function<void(const std::filesystem::path&)>& read)
{
    const std::filesystem::path file =
        std::filesystem::temp_directory_path() / ("zepn-fuzzed-" + std::to_string(getpid()));
    std::ofstream(file, std::ios::binary) << bytes;
    std::string sentence;
    try {
        read(file);
    } catch (const std::exception& error) {
        sentence = error.what();
    }
    std::filesystem::remove(file);
    for (const std::string& name : {file.string(), file.filename().string()}) {
        if (sentence.starts_with(name)) {
            return kFileName + sentence.substr(name.size());
        }
    }
    return sentence;
}

}  // namespace fuzz
