// Plain results of the machine's doings, shared by the façade and the parts that produce them.
#pragma once

#include "host/schedule/threads.h"

#include <ntddk.h>

#include <cstdint>
#include <vector>

namespace host {

using Outcome = schedule::Outcome;

struct PumpResult {
    unsigned runs = 0;            // callbacks that were started
    std::vector<Outcome> parked;  // those that will never return
};

struct IoResult {
    NTSTATUS status;
    std::uint64_t information;
    bool completed;  // FALSE: still pending when the call came back
};

// An open handle of a device; 0 is none.
using FileId = std::uint64_t;

}  // namespace host
