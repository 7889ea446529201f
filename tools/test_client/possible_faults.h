// How platform functions can fail on a real system. What cannot happen there is left out: a wait without a time-out that
// ends without the lock, a context that an object does not have.
#pragma once

#include "host/checks/faults.h"

#include <string_view>
#include <vector>

namespace test_client {

struct PossibleFault {
    host::checks::FaultForm form;
    NTSTATUS status;  // with kStatus
};

// Empty for a function that cannot fail, or of which nothing is known here.
[[nodiscard]] std::vector<PossibleFault> FaultsOf(std::string_view function);

}  // namespace test_client
