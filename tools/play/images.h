// Where the images of real clients lie.
#pragma once

#include "tools/play/player.h"

#include <filesystem>
#include <map>
#include <string>

namespace play {

// By client. A name without a folder lies beside the Notifier's image; any other is named from the scenario's folder.
// "{container}" in it stands for x64, arm64 or native, and what has no extension gets that of the container's images.
// Throws ScenarioError for an image that is not there, and for a driver that the options give to no real client.
[[nodiscard]] std::map<std::string, std::filesystem::path> ClientImages(const Scenario& scenario,
                                                                        const PlayOptions& options);

}  // namespace play
