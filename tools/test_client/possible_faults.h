// How platform functions can fail on a real system. What cannot happen there is left out: a wait without a timeout that
// ends without the lock, a context that an object does not have.
#pragma once

#include "host/checks/faults.h"

#include <string_view>
#include <vector>

namespace test_client {

struct PossibleFault {
    host::checks::FaultForm form;
    NTSTATUS status;               // with kStatus
    std::string_view detail = {};  // only calls with this detail can fail so; empty: all
};

// Of a call with this detail; empty when it cannot fail.
[[nodiscard]] std::vector<PossibleFault> FaultsOf(std::string_view function, std::string_view detail);

// The functions that the table of faults names, and those that return a status or a pointer and cannot fail through no
// fault of the driver's. Together these are all that return one.
[[nodiscard]] std::vector<std::string_view> FunctionsThatCanFail();
[[nodiscard]] std::vector<std::string_view> FunctionsThatCannotFail();

}  // namespace test_client
