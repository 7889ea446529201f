// The resources of the driver image: event template, message table, version; as the .res file that a linker takes.
#pragma once

#include "tools/trace_gen/event_template.h"

#include <optional>

namespace trace_gen {

struct Version {
    std::uint16_t part[4];  // the last is 0
};

// "1.2.3"; empty when it is no such text.
[[nodiscard]] std::optional<Version> ParseVersion(const std::string& text);

// Contents of the version resource.
[[nodiscard]] Bytes VersionInformation(const Version& version, const std::string& text);

// The whole .res file.
[[nodiscard]] Bytes ResourceFile(const ProviderDescription& provider, const Version& version, const std::string& text);

}  // namespace trace_gen
