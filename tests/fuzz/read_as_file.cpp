#include "tests/fuzz/read_as_file.h"

#include "tests/fuzz/file_fuzzer.h"

#include <fstream>

#include <unistd.h>

namespace fuzz {

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
