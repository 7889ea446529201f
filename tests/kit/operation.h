// One step of a sequence: what the system, a client or the crash-dump driver does to the driver. Fault injection and
// the model-based test are sequences of these.
#pragma once

#include "tools/peers/operation.h"

#include <ntddk.h>

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <string>

namespace tests {

using peers::IsOfClient;
using peers::Kind;
using peers::Name;

struct Operation {
    Kind kind = Kind::kDeliver;
    unsigned client = 0;      // who acts
    unsigned other = 0;       // the target of a subscription or command
    std::uint32_t state = 0;  // posted or awaited; ZEP_STATE_ANY awaits every state
    std::uint32_t value = 0;  // command id, capacity, milliseconds, control code, table of the crash-dump driver
    std::string null{};       // the argument passed as NULL, by its name in scenario files; empty: none
};

// The operation as a step of a scenario: {"do":"post","client":"client1","state":4}.
[[nodiscard]] nlohmann::ordered_json StepOf(const Operation& operation);
[[nodiscard]] std::string Text(const Operation& operation);

// What follows from the operation alone; both sides of a comparison use it.
inline constexpr std::uint32_t kPostedSize = 77;  // nobody looks at it
inline constexpr std::uint32_t kPostedReserved = 0xABCD;
[[nodiscard]] inline std::uint32_t CommandArgument(const Operation& operation)
{
    return 100 + operation.state % 16;
}

}  // namespace tests
