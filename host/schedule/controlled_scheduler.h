// Systematic concurrency testing: decides which thread of driver code goes on, at every platform call where that may
// matter and in every callback of a client (the scheduling points), and runs the schedules of a few threads one after
// the other, so that a race is found by search, not by chance, and can be replayed.
//
//     ControlledScheduler scheduler(machine options ...);
//     while (scheduler.Next()) {
//         DriverFixture fixture(...);
//         scheduler.Run(fixture.machine, {{"poster", [&] { ... }}, {"worker", [&] { fixture.machine.RunWorkItems(); }}});
//         ... look at the outcome; on a failure scheduler.Schedule() is what replays it
//     }
//
// Only one of the threads runs at a time. A thread goes on until it ends, waits, or is preempted. The search takes
// every choice at every scheduling point within a preemption bound: no more than so many choices of a schedule preempt
// a thread that could go on. Waits with a time-out cannot be explored: in a schedule no time passes.
//
// Beyond the bound there are random schedules by PCT (probabilistic concurrency testing; Burckhardt and others, 2010):
// the threads have random priorities, the highest that can go on does, and at d - 1 scheduling points, drawn from the
// length of a schedule, the thread that would go on falls below all others. The length is that of the longest schedule
// so far, and points at which only one thread can go on do not count: a change there would show at the next that does.
#pragma once

#include "host/machine.h"
#include "host/schedule/yield.h"

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <random>
#include <string>
#include <vector>

namespace host::schedule {

struct SchedulerOptions {
    unsigned preemptions = 2;           // bound for one schedule; with `random` the priority change points, d - 1
    bool everyCall = false;             // points at every platform call, not only at locks, work items and callbacks
    unsigned random = 0;                // this many schedules by PCT instead of the search
    std::uint64_t seed = 1;             // of those
    unsigned maximumSchedules = 20000;  // the search stops here
    std::string replay = {};            // one schedule, as Schedule() gave it, and nothing else
};

class ControlledScheduler final : public Controller {
public:
    struct Thread {
        std::string name;
        std::function<void()> work;
    };

    explicit ControlledScheduler(SchedulerOptions options);
    ~ControlledScheduler() override;
    ControlledScheduler(const ControlledScheduler&) = delete;
    ControlledScheduler& operator=(const ControlledScheduler&) = delete;

    // Makes the next schedule ready; false when all have run.
    bool Next();

    // Runs the threads on the machine by the schedule that is ready; returns, in the order of the threads, how each
    // ended: it came back, or it parked, which the machine has reported. Throws HostError, with the schedule, when the
    // threads leave it: a replay of other code, or code that does not do the same each time.
    std::vector<Outcome> Run(Machine& machine, const std::vector<Thread>& threads);

    // What replays the schedule that ran last: "calls 12>1 30>0": at the 12th scheduling point thread 1 goes on.
    [[nodiscard]] std::string Schedule() const;
    [[nodiscard]] unsigned Count() const { return count_; }
    [[nodiscard]] bool IsComplete() const { return isComplete_; }  // the search ended by itself

    void OnYield(YieldKind kind, const char* what) override;
    void OnBlock(std::unique_lock<std::mutex>& lock) override;

private:
    enum class State { kReady, kBlocked, kFinished };
    struct Choice {
        std::vector<unsigned> enabled;  // in the order tried: who would go on by himself first
        std::size_t taken = 0;          // index into it
        bool canStay = false;           // the first is the running thread
    };

    // All of these are called with mutex_ held.
    void Switch(std::unique_lock<std::mutex>& lock, unsigned self);
    unsigned Choose(unsigned self);
    std::size_t Pick(const Choice& choice);
    void WakeBlocked();
    void CheckKept() const;

    const SchedulerOptions options_;
    std::mutex mutex_;
    std::condition_variable turn_;
    std::vector<State> states_;
    std::vector<unsigned> priorities_;
    unsigned current_ = 0;
    std::vector<bool> released_;  // by thread: what it did last may end a wait once that has acted
    unsigned idle_ = 0;           // blocked threads looked again since the last step
    std::vector<Choice> choices_;
    std::vector<Choice> expected_;  // how the schedule begins, as the one before it met these points
    std::vector<std::pair<unsigned, unsigned>> replay_;
    std::string left_;  // where the threads did not do what the schedule says; empty: nowhere
    std::mt19937_64 random_;
    std::vector<unsigned> changePoints_;
    unsigned longest_ = 64;  // scheduling points in a schedule: a guess until a longer one has run
    unsigned count_ = 0;
    bool isComplete_ = false;
};

}  // namespace host::schedule
