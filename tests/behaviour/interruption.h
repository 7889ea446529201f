// An action in the middle of a driver's call, before one chosen instruction of the driver: what another processor may
// do at that very moment. The controlled scheduler switches at platform calls; this comes between instructions.
#pragma once

#include "host/machine.h"
#include "tests/kit/single_steps.h"

#include <functional>

namespace tests {

struct Interruption {
    const char* function;      // counting begins when the calling thread calls this platform function
    unsigned skip = 0;         // let this many calls of it pass first
    unsigned instruction = 1;  // of the driver's, from there on; 0: no action
    std::function<void()> action;
};

// Runs work on the calling thread. Gives the number of the driver's instructions between the platform call and the
// end of the work, or of the counting.
unsigned RunInterrupted(host::Machine& machine, const host::Driver& driver, const Interruption& interruption,
                        const std::function<void()>& work);

}  // namespace tests
