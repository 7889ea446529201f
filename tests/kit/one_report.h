// An error event and the trace message after it are one report of one site.
#pragma once

#include "host/machine.h"
#include "host/tracing/decode.h"

#include <functional>

namespace tests {

// How the two differ, "" when they are one: function, level, description and values must agree. Messages that are
// bare of the values have words of their own.
[[nodiscard]] std::string DifferenceOf(const host::tracing::DecodedEvent& event,
                                       const host::tracing::CapturedMessage& message,
                                       const host::tracing::DecodedMessage& decoded);

// "1 Notifier_HelperInit: WdfObjectCreate, 0xC0000001"; handles by the name that the function gives them.
[[nodiscard]] std::string LineOf(const host::tracing::DecodedEvent& event,
                                 const std::function<std::string(std::uint64_t handle)>& nameOf);
// "<driver>", "<clients>"; any other object as `describe` says.
[[nodiscard]] std::string
NameOfHandle(host::Machine& machine, const host::Driver* driver, std::uint64_t handle,
             const std::function<std::string(const host::framework::ObjectSnapshot& object)>& describe);
[[nodiscard]] bool IsHandle(const host::tracing::DecodedField& field);

// The numbers that a message carries: the first eight bytes of each argument.
[[nodiscard]] std::vector<std::uint64_t> NumbersOf(const host::tracing::CapturedMessage& message);

}  // namespace tests
