// The kinds of files that are fuzzed. Each has a source file of its own; a new one is added to the list in kinds.cpp.
#pragma once

#include "tests/fuzz/file_fuzzer.h"

#include <filesystem>
#include <string>
#include <vector>

namespace fuzz {

[[nodiscard]] const std::vector<FileKind>& FileKinds();

// Scenarios are read and played on the native driver.
[[nodiscard]] FileKind Scenarios();

// What zepn decode reads.
[[nodiscard]] FileKind Captures();
[[nodiscard]] FileKind Manifests();
[[nodiscard]] FileKind Formats();

// Damaged driver images, for the checks of images and for the host's loader.
[[nodiscard]] FileKind Images();

// The contents of a folder's files with this extension, in the order of their names.
[[nodiscard]] std::vector<std::string> ContentsOf(const std::filesystem::path& folder, const std::string& extension);

// Gives the bytes to a reader as a file of this process. Empty when the reader accepts it, else the sentence of the
// exception, which begins with kFileName where it begins with the file's own name.
[[nodiscard]] std::string ReadAsFile(const std::string& bytes,
                                     const std::function<void(const std::filesystem::path&)>& read);

}  // namespace fuzz
