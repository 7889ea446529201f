// Mutants of the native driver, built and tested.
#pragma once

#include "tests/mutation/campaign.h"
#include "tests/mutation/native_build.h"

#include <filesystem>
#include <vector>

namespace mutation {

[[nodiscard]] std::vector<Mutant> MutantsOf(const NativeBuild& build);

// Builds mutants and runs the build folder's tests on them; what the workers write lies in folders of their own in its
// mutants/. Tests the unchanged driver first and throws std::runtime_error when a test fails on it: every mutant would
// count as killed. The build must outlive what is returned.
[[nodiscard]] Judge DriverJudge(const NativeBuild& build, const std::filesystem::path& buildFolder);

}  // namespace mutation
