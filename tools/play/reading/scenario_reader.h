// Reads scenario files. docs/scenarios.md describes them for people.
#pragma once

#include "tools/play/scenario.h"

#include <filesystem>
#include <string>

namespace play {

// Throw ScenarioError with all mistakes of the file.
[[nodiscard]] Scenario ReadScenario(const std::filesystem::path& file);
// `fileName` is what mistakes name.
[[nodiscard]] Scenario ParseScenario(const std::string& text, const std::string& fileName);

}  // namespace play
