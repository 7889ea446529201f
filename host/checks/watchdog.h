// Ends a process that goes on without end. Time is counted in what the process uses of a processor, so that a busy or
// slow machine is no failure; a process that uses none is taken for hung.
#pragma once

#include <chrono>

namespace host::checks {

// While one exists, the process must make progress: each new CrashContext and each call of Progress is some.
// Without any, it ends by SIGALRM when it has used so much processor time, or has used next to none for as long and has
// no child that it could be waiting for. Before that it prints which, and what every CrashContext says.
//
// One at a time in a process. It takes SIGALRM and the real-time interval timer; a forked child begins without.
class Watchdog {
public:
    explicit Watchdog(std::chrono::milliseconds limit);
    ~Watchdog();
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

    // Any thread, at any time, with or without a watchdog.
    static void Progress();
};

}  // namespace host::checks
