// The course that a client runs: cases in which the Notifier and the system do what they may do to it, then, when
// all of them have passed, one run with each of its calls failing. Each runs in a process of its own, so that a memory
// fault or a hang ends no other.
#pragma once

#include "tools/test_client/run.h"

#include <functional>
#include <string>
#include <vector>

namespace test_client {

struct Result {
    std::string group;  // "course" or "faults"
    std::string name;
    double seconds = 0;
    std::vector<Finding> findings;
};

struct Report {
    Seen seen;
    std::vector<Result> results;
};

struct CourseOptions {
    std::string only;                                 // only results whose name contains this; empty: all
    bool inProcess = false;                           // for a debugger: no child processes
    std::function<void(const std::string&)> onBegin;  // with the name of what begins; may be empty
};

// Throws host::HostError when an image is refused, or a parameter of the setup is one that the client does not read.
[[nodiscard]] Report RunCourse(const CourseSetup& setup, const CourseOptions& options);

}  // namespace test_client
