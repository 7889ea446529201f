// How callbacks and their arguments read. The driver's side of a comparison and the models write the same lines.
#pragma once

#include "tests/kit/operation.h"

#include <cstdint>
#include <string>

namespace tests {

[[nodiscard]] std::string ClientName(unsigned client);
[[nodiscard]] std::string Hex(std::uint32_t value);

namespace lines {

[[nodiscard]] std::string State(unsigned subscriber, const std::string& from, std::uint64_t sizeBytes,
                                std::uint32_t state, std::uint32_t reserved, std::uint32_t response);
[[nodiscard]] std::string Command(unsigned target, std::uint32_t id, std::uint64_t sizeBytes, std::uint32_t argument,
                                  const std::string& source, std::uint32_t sourceState, std::uint32_t ownState);
[[nodiscard]] std::string AppsState(unsigned client, std::uint32_t reason, std::uint32_t ownState);
[[nodiscard]] std::string Descriptor(const std::string& client, const std::string& name, const std::string& description,
                                     bool wantsAppsState, bool hasEntries, unsigned entryCount);
[[nodiscard]] std::string Withdrawal(const std::string& client, const std::string& name,
                                     const std::string& description);
[[nodiscard]] std::string Dump(Kind kind, unsigned client);
// A line of the crash-dump driver, by the number of the table that was called.
[[nodiscard]] std::string FromTable(unsigned table, const std::string& line);
[[nodiscard]] std::string Count(std::uint64_t count);
[[nodiscard]] std::string Wait(std::int64_t milliseconds);

}  // namespace lines
}  // namespace tests
