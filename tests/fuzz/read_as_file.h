// For readers that take the path of a file.
#pragma once

#include <filesystem>
#include <functional>
#include <string>

namespace fuzz {

// Gives the bytes to a reader as a file of this process. Empty when the reader accepts it, else the sentence of the
// exception, which begins with kFileName where it begins with the file's own name.
[[nodiscard]] std::string ReadAsFile(const std::string& bytes,
                                     const std::function<void(const std::filesystem::path&)>& read);

}  // namespace fuzz
