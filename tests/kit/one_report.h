// An error event and the trace message after it are one report of one site.
#pragma once

#include "host/tracing/decode.h"

namespace tests {

// How the two differ, "" when they are one: function, level, description and values must agree. Messages that are
// bare of the values have words of their own.
[[nodiscard]] std::string DifferenceOf(const host::tracing::DecodedEvent& event,
                                       const host::tracing::CapturedMessage& message,
                                       const host::tracing::DecodedMessage& decoded);

// The numbers that a message carries: the first eight bytes of each argument.
[[nodiscard]] std::vector<std::uint64_t> NumbersOf(const host::tracing::CapturedMessage& message);

}  // namespace tests
