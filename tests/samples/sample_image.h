// Where the samples' images lie.
#pragma once

#include <filesystem>
#include <string>

namespace tests {

// The sample that belongs to a Notifier's image: zepn_client.sys beside zepn.sys, zepn_client.so beside zepn.so.
[[nodiscard]] inline std::filesystem::path SampleImage(const std::filesystem::path& notifier, const std::string& sample)
{
    return notifier.parent_path() / (sample + notifier.extension().string());
}

}  // namespace tests
