// What the environment may set for all test programs.
//
//     ZEPN_NATIVE_DRIVER=FILE   the cases on the native driver run this one instead of the build's own; statistics then
//                               go beside it, and not among those of the build
//
// kit/main.cpp adds ZEPN_WATCHDOG_SECONDS=N, how long the watchdog waits for progress.
#pragma once

#include <filesystem>

namespace tests {

// The folder of the images that this machine runs.
#if defined(__x86_64__)
inline constexpr const char* kMachine = "x64";
#else
inline constexpr const char* kMachine = "arm64";
#endif

[[nodiscard]] std::filesystem::path NativeDriver();

// Where the tests leave their statistics and lists.
[[nodiscard]] std::filesystem::path ResultsFolder();

}  // namespace tests
