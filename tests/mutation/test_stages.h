// The tests of the native driver, the quickest first, on another driver than the build's own.
#pragma once

#include <filesystem>
#include <string>

namespace mutation {

// Runs them until the first fails. The name of the stage that failed; empty when all passed. What was printed lies in
// the driver's folder, in tests.log.
[[nodiscard]] std::string FirstFailure(const std::filesystem::path& buildFolder, const std::filesystem::path& driver);

}  // namespace mutation
