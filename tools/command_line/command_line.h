// What all our programs do with their command line and with their output.
#pragma once

#include <CLI/CLI.hpp>

#include <optional>

namespace tools {

inline constexpr int kBadInput = 2;

// Reads the arguments into what the app's options are bound to. The status to end with when there is nothing more to
// do: 0 after --help, kBadInput after a wrong call or without a standard output, which has been explained; else empty.
[[nodiscard]] std::optional<int> ReadCommandLine(CLI::App& app, int argumentCount, char** arguments);

// The status to end with: this one, or kBadInput when what was printed did not arrive, as on a full disk, which is
// explained then.
[[nodiscard]] int EndWith(const CLI::App& app, int status);

// For options: a number of decimal digits that fits 64 bits, without a sign.
[[nodiscard]] CLI::Validator Unsigned();

}  // namespace tools
