// The page docs/platform.md: what the host plays of the platform, and what drivers often use and it does not play.
#pragma once

#include <filesystem>
#include <string>

namespace platform_page {

// From the host's own tables, and from the platform's headers in this folder.
[[nodiscard]] std::string Page(const std::filesystem::path& headers);

}  // namespace platform_page
