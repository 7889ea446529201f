// The mistakes that the faulty client can make, by the number in its Parameters key.
#pragma once

enum class Mistake : unsigned {
    kNone,
    kPostsInCallback,
    kNeverDeregisters,
    kUsesFreedMemory,
    kLeaks,
    kCallsAtDispatchLevel,
    kPostsInTimer,        // which one command starts and the next stops
    kLeavesTimerRunning,  // which uses what was freed
    kCreatesWithoutEnd,   // an object for each command, below the device
    kCallsAfterClosing,   // the Notifier's device, by the table that it still has
    kWorksAfterLeaving,   // what a command made it queue posts without asking whether the Notifier is there
    // These show only when a call fails.
    kTrustsAllocation,
    kForgetsFailedStart,  // and stays registered
};
