// What every part of the host shares while a machine exists: options, checks, modules, and per-thread state.
//
// Platform functions have no parameter for the machine they belong to, so one machine at a time is current in a
// process; Environment::Current() is how they find it.
#pragma once

#include "host/checks/call_path.h"
#include "host/checks/faults.h"
#include "host/checks/modules.h"
#include "host/checks/paged_code.h"
#include "host/checks/violations.h"
#include "host/schedule/happens_before.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace host {

// Misuse of the host's own interface: an image refused, no such device, a second machine.
class HostError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// A thread that is not one of the host's own can never go on: driver code that it called waits for what cannot come, or
// has stopped the system. What it says includes everything that was found.
class Hang : public HostError {
public:
    using HostError::HostError;
};

enum class WorkItems {
    kPumped,   // run only when asked to, one at a time, in queue order: every run of a test is the same
    kThreads,  // run at once on real worker threads
};

enum class TraceRoutes {
    kClassic,  // the system exports EtwRegisterClassicProvider and reports the version that the options say
    kWmi,      // it reports version 5 and does not
};

struct MachineOptions {
    WorkItems workItems = WorkItems::kPumped;
    unsigned workerCount = 2;  // with kThreads
    TraceRoutes traceRoutes = TraceRoutes::kClassic;
    unsigned majorVersion = 10;         // of the system, with kClassic
    bool exportsPsGetVersion = true;    // FALSE: the version look-up finds nothing
    bool hasPowerStateCallback = true;  // \Callback\PowerState exists
    bool guardPages = true;             // allocations end at inaccessible pages and are never reused
    std::size_t poolBytesMaximum = std::size_t{256} << 20;  // of all blocks together; what exceeds it gets null
    bool recordsPaths = true;           // who allocates, creates, registers and frees is known by the whole call path
    bool realTime = false;              // KeDelayExecutionThread waits; otherwise it only advances the clock
    bool keepsCode = false;             // of an unloaded PE image, for its next load: host/image/kept_code.h
    bool allowMissing = false;          // an image that needs functions which the host lacks loads until it calls one
    std::uint32_t frameworkMinor = 33;  // version of the framework that plays: 1.<minor>
    bool onlyDriverLocks = false;       // the thread sanitizer learns of these alone: schedule/happens_before.h
};

// One call of a platform function, as an observer sees it.
struct ObservedCall {
    const char* function;  // "WdfCollectionAdd"
    const void* caller;    // return address in the image
    const char* detail;    // context type, routine name or place in the source where the function has one, else ""
};

// An earlier call: "allocated", and by which path.
struct Made {
    const char* how;
    checks::Addresses path;
};

// Memory that a driver has given back.
struct FreedMemory {
    std::size_t sizeBytes;
    checks::Addresses freedBy;
};

class Environment {
public:
    explicit Environment(MachineOptions options);
    ~Environment();
    Environment(const Environment&) = delete;
    Environment& operator=(const Environment&) = delete;

    // The machine that exists now; aborts with a message when there is none.
    static Environment& Current();
    static bool Exists();

    const MachineOptions options;
    checks::Violations violations;
    checks::FaultPlan faults;
    checks::Modules modules;
    checks::PagedCode pagedCode;

    // Called for every platform call before it acts; an empty one for nobody. Set only while no driver code runs.
    using Observer = std::function<void(const ObservedCall&)>;
    void SetObserver(Observer observer);
    [[nodiscard]] const Observer& observer() const { return observer_; }

    // Called for every line that a driver prints for the debugger, with the address that printed it; empty by default.
    std::function<void(const std::string& line, const void* caller)> onDebugPrint;

    // Called for every call that an injected fault makes fail; empty by default.
    std::function<void(const checks::Fault& fault, const void* caller)> onFault;

    // Called when a driver has got the function table of another, with the table in that driver's memory: what is put
    // into it now, the driver calls. Empty by default.
    std::function<void(const GUID& type, std::span<std::byte> table)> onInterface;

    // The block that an address was in, when that was freed not long ago. For the fault handler: never waits.
    std::function<std::optional<FreedMemory>(const void* address)> findFreed;

    // A thread was parked: what is left at an unload from now on follows from that.
    std::atomic<bool> hasHung{false};

    // A rule is broken by the code at `caller`; null: by the host's own doing.
    void Report(checks::Rule rule, std::string function, std::string message, const void* caller,
                const std::vector<Made>& origins = {});
    // A callback has returned otherwise than it may.
    void ReportCallback(checks::Rule rule, std::string name, std::string message, const void* routine,
                        const std::vector<Made>& origins = {});
    // What an image leaves when it is unloaded, and by which of its calls that was made.
    void ReportLeft(checks::Rule rule, std::string message, const std::vector<Made>& origins);

    // Where the calling thread stands, for a finding about what it makes now: what the path costs is a walk over the
    // stack. The caller alone, or nothing, where paths are not recorded.
    [[nodiscard]] checks::Addresses PathNow(const void* caller = nullptr) const;
    [[nodiscard]] std::vector<checks::CodePlace> PlacesOf(const checks::Addresses& path) const;
    // The calling thread waits for what it can never get: for what ("wait lock #1, which this thread holds"), and where
    // its holder took it; null when that is not known.
    void ReportWait(checks::Rule rule, std::string function, std::string message, const void* caller,
                    std::string waitsFor, const void* heldSince);

private:
    [[nodiscard]] checks::Violation ViolationAt(checks::Rule rule, std::string function, std::string message,
                                                const void* caller) const;
    void AddOrigins(checks::Violation& violation, const std::vector<Made>& origins) const;
    void Add(checks::Violation violation);

    Observer observer_;
};

// State of the calling thread as the platform would keep it.
struct ThreadState {
    const std::uint64_t id;     // never reused within a process
    std::string name = "main";  // changed by Rename
    KIRQL irql = PASSIVE_LEVEL;
    int criticalRegions = 0;  // wait locks entered and not left
    // The wait locks that it holds, in the order taken. Handles, for a lock may go while it is held.
    std::vector<void*> heldLocks;
    unsigned scheduledAs = ~0u;  // which thread of a controlled schedule it runs for; ~0: none

    ThreadState();
    ~ThreadState();
    ThreadState(const ThreadState&) = delete;
    ThreadState& operator=(const ThreadState&) = delete;

    void Rename(const std::string& newName);
    void BeginWork(const std::string& newName);  // as a thread of this name that has done nothing yet
    // The name of any thread, for reports; of one that has ended: "a thread that has ended".
    static std::string NameOf(std::uint64_t id);
    // The system threads that may still do something for others, each by its own state: those that are not idle.
    static std::vector<std::uint64_t> ThatRun();

    // Whether the calling thread is known and at this level or below.
    static bool IsAtMost(KIRQL level) { return current_ != nullptr && current_->irql <= level; }
    // Null as long as nobody asked for the calling thread's.
    static ThreadState* Known() { return current_; }
    static ThreadState& Current() { return current_ != nullptr ? *current_ : OfSystemThread(); }

    // Makes the calling system thread run as another thread; returns what it ran as before.
    static ThreadState* Exchange(ThreadState* next) { return std::exchange(current_, next); }

private:
    friend class IdleScope;
    static ThreadState& OfSystemThread();
    bool isSystemThread_ = false;
    bool isIdle_ = false;
    static inline constinit thread_local ThreadState* current_ = nullptr;
};

// While one exists, the calling system thread only waits for what others do: it can end no wait of a driver's.
class IdleScope {
public:
    IdleScope();
    ~IdleScope();
    IdleScope(const IdleScope&) = delete;
    IdleScope& operator=(const IdleScope&) = delete;

private:
    ThreadState& state_;
    const bool before_;
};

// Raises the calling thread's level for a scope: how a test calls an operation at DISPATCH_LEVEL.
class ScopedIrql {
public:
    explicit ScopedIrql(KIRQL level);
    ~ScopedIrql();
    ScopedIrql(const ScopedIrql&) = delete;
    ScopedIrql& operator=(const ScopedIrql&) = delete;

private:
    KIRQL before_;
};

// The first line of every platform function: checks the level, notifies the observer, asks for an injected fault.
class PlatformCall {
public:
    PlatformCall(const char* function, const void* caller, KIRQL maximum, const char* detail = "");

    [[nodiscard]] const std::optional<checks::Fault>& fault() const { return fault_; }
    // Whether the fault, if any, keeps the function from its work; one that only informs does not.
    [[nodiscard]] bool IsRefused() const { return fault_ && fault_->form != checks::FaultForm::kInforms; }
    // What the function answers when it did its work.
    [[nodiscard]] NTSTATUS Done() const { return fault_ && !IsRefused() ? fault_->status : STATUS_SUCCESS; }
    void Violation(checks::Rule rule, std::string message, const std::vector<Made>& origins = {}) const;
    [[nodiscard]] const char* function() const { return function_; }
    [[nodiscard]] const void* caller() const { return caller_; }

private:
    [[maybe_unused, no_unique_address]] schedule::HostWork hostWork_;  // until the function returns
    const char* function_;
    const void* caller_;
    std::optional<checks::Fault> fault_;
};

// An address in the instruction by which a platform function was called. Another function may begin after it already:
// nothing follows a call that does not return.
#define HOST_CALLER (static_cast<const char*>(__builtin_return_address(0)) - 1)

}  // namespace host
