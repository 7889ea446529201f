// SHA-256: the template identifiers of an event provider are made by it.
#pragma once

#include "tools/trace_gen/bytes.h"

#include <array>

namespace trace_gen {

[[nodiscard]] std::array<std::uint8_t, 32> Sha256(Bytes message);

}  // namespace trace_gen
