// What happens to a client in the course, case by case.
#pragma once

#include "tools/test_client/run.h"

#include <span>

namespace test_client {

struct Case {
    const char* name;
    void (*run)(Run& run);
};

[[nodiscard]] std::span<const Case> AllCases();

// All that the cases do, in one run: what faults are injected into.
void RunWhole(Run& run);
// After a fault: the client is loaded once more and must be as good as new.
void RunAgain(Run& run);
// The first run: the client shows what it does with the Notifier, and its peers are made from that.
void Watch(Run& run, Seen& seen);

}  // namespace test_client
