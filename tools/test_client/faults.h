// Faults: each call that the client makes, of the platform and of the Notifier, failing once.
#pragma once

#include "tools/test_client/run.h"

#include <string>
#include <vector>

namespace test_client {

struct Fault {
    std::string name;                   // for the report
    host::checks::Fault platform = {};  // with a platform function
    std::size_t notifierCall = 0;       // without one: the call of the Notifier, counted from 0
    [[nodiscard]] bool IsOfNotifier() const { return platform.function.empty(); }
};

// Runs all that the cases do without a fault and writes down the calls that can fail, in their order. As lines, for
// ReadFaults in another process.
[[nodiscard]] std::string RecordFaults(const CourseSetup& setup, Seen& seen, std::vector<Finding>& findings);
[[nodiscard]] std::vector<Fault> ReadFaults(const CourseSetup& setup, const std::string& lines);

// The same run with one fault, and another after it without.
[[nodiscard]] std::vector<Finding> RunFault(const CourseSetup& setup, Seen& seen, const Fault& fault);

// Does the work and returns what it found. What the host throws meanwhile is a finding, too.
[[nodiscard]] std::vector<Finding> FindingsOf(Run& run, const std::function<void(Run&)>& work);

}  // namespace test_client
