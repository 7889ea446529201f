// A life in which every driver is a real image: the Notifier, two sample clients and the sample crash-dump driver.
#pragma once

#include "tools/play/timeline.h"

#include <filesystem>
#include <string>
#include <vector>

namespace play {

// The sample that belongs to a Notifier's image: zepn_client.sys beside zepn.sys, zepn_client.so beside zepn.so.
[[nodiscard]] std::filesystem::path SampleImage(const std::filesystem::path& notifier, const std::string& sample);

// Plays the life: peers before the Notifier and after it, states, a command, a dump, a sleep, a removal that is refused,
// one that is not asked for, the Notifier's return, the end. True when no driver broke a rule and nothing was left.
// Throws host::HostError when an image is missing or refused, or a driver does not start.
[[nodiscard]] bool PlaySamples(const std::filesystem::path& notifier, Timeline& timeline);

}  // namespace play
