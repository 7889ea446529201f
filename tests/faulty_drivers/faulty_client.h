// The mistakes that the faulty client can make, by the number in its Parameters key.
#pragma once

enum class Mistake : unsigned {
    kNone,
    kPostsInCallback,
    kNeverDeregisters,
    kUsesFreedMemory,
    kLeaks,
    kCallsAtDispatchLevel,
    // These show only when a call fails.
    kTrustsAllocation,
    kForgetsFailedStart,  // and stays registered
};
