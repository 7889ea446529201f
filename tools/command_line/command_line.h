// What all our programs do with their command line.
#pragma once

#include <CLI/CLI.hpp>

#include <optional>

namespace tools {

inline constexpr int kBadInput = 2;

// Reads the arguments into what the app's options are bound to. The status to end with when there is nothing more to
// do: 0 after --help, kBadInput after a wrong call, which has been explained; else empty.
[[nodiscard]] std::optional<int> ReadCommandLine(CLI::App& app, int argumentCount, char** arguments);

}  // namespace tools
