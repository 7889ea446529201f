// Memory faults of image code: printed with the place in the image and with what was being played, then the process
// ends.
#pragma once

#include <functional>
#include <string>

namespace host::checks {

// Installs the handler once per process and gives the calling thread a stack of its own for it. In sanitizer builds
// the runtimes report the fault, and say more; there this only adds the crash contexts.
void CatchMemoryFaults();

// The exit status of a process that ended so.
inline constexpr int kMemoryFaultExit = 4;

// What is printed on stderr when the process ends by a memory fault or by std::abort while this object exists: who
// plays something says what it is, so that it can be played again.
//
//     const CrashContext context([&] { return "sequence 12 of seed 7"; });
//
// The faulting thread asks all that exist, the newest first, and prints a line for each; the other threads go on
// meanwhile. The routine runs inside the signal handler. It may read what the stopped thread does not change at that
// time, and may allocate, as the handler itself does: a fault in driver code leaves the allocator whole. Where it is
// not, the process ends with less printed: a routine that faults, or ends in abort, is passed over, and one that hangs
// is ended by an alarm after half a minute. It must not throw and must not wait for another thread.
//
// Nothing is printed when the process ends itself, or is killed. Objects may be made on any thread and must be
// destroyed in the reverse order, as those in nested scopes are.
class CrashContext {
public:
    explicit CrashContext(std::function<std::string()> describe);
    ~CrashContext();
    CrashContext(const CrashContext&) = delete;
    CrashContext& operator=(const CrashContext&) = delete;

private:
    friend void PrintCrashContexts();

    const std::function<std::string()> describe_;
    CrashContext* const outer_;
};

// Prints every crash context that exists, newest first, each at most once in a process. Called by the handler.
void PrintCrashContexts();

}  // namespace host::checks
