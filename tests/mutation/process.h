// Other programs, started and waited for.
#pragma once

#include <string>

namespace mutation {

// A word as the shell reads it unchanged.
[[nodiscard]] std::string ShellWord(const std::string& word);

// Runs a line of the shell in a folder; true when it ended with status 0.
bool Run(const std::string& folder, const std::string& line);

// What a line prints on its standard output. Throws std::runtime_error when it fails.
[[nodiscard]] std::string OutputOf(const std::string& folder, const std::string& line);

}  // namespace mutation
