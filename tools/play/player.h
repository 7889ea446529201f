// Plays a scenario on a driver image in the host.
#pragma once

#include "tools/play/scenario.h"
#include "tools/play/timeline.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>

namespace play {

struct PlayOptions {
    std::filesystem::path image = {};                           // the Notifier's
    std::map<std::string, std::filesystem::path> drivers = {};  // of clients, in place of what the file says
    std::filesystem::path decodingFiles = {};                   // folder with zepn.man and the .tmf files
    std::optional<std::uint8_t> eventLevel = {};                // open an event session at this level
    bool traceMessages = false;          // open a trace-message session with all flags and levels
    std::filesystem::path capture = {};  // file for all reports, raw; empty: none
    bool allowMissing = false;           // images may need what the host does not play, until they call it
    bool realTime = false;               // the configured wait before sleep is really waited
};

// True when every step ended as the scenario expects and the host found nothing wrong. Throws ScenarioError when a
// client's image is missing, host::HostError when an image is refused.
[[nodiscard]] bool Play(const Scenario& scenario, const PlayOptions& options, Timeline& timeline);

}  // namespace play
