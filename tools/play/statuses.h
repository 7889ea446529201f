// Names of the statuses that a run can show.
#pragma once

#include <ntddk.h>

#include <optional>
#include <string>
#include <vector>

namespace play {

// "STATUS_NOT_FOUND", or "0xC0001234" for one without a name here.
[[nodiscard]] std::string StatusText(NTSTATUS status);

// The names that ParseStatus knows.
[[nodiscard]] std::vector<std::string> StatusNames();

// By name or as a hexadecimal number.
[[nodiscard]] std::optional<NTSTATUS> ParseStatus(const std::string& text);

}  // namespace play
