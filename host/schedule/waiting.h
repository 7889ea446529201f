// How threads of driver code wait for one another: every wait names what it waits for and which threads must move
// first, so that a wait without an end is found when it begins, or as soon as the last thread that could end it parks.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace host::schedule {

using ThreadId = std::uint64_t;         // ThreadState::id
inline constexpr ThreadId kNobody = 0;  // among the threads of a wait: no thread is left that could end it

struct Wait {
    // "wait lock #9": asked when the wait has no end, for a name may have to be looked up.
    std::function<std::string()> subject;
    std::function<bool()> isReady;  // asked with the mutex held
    // Each of these must move on first; asked with the mutex held.
    std::function<std::vector<ThreadId>()> heldBy;
    std::optional<std::chrono::steady_clock::time_point> deadline = std::nullopt;
    bool anyEndsIt = false;  // one of them is enough, as for an event, which anybody may set
};

enum class Wake {
    kReady,
    kTimedOut,
    kSelf,   // the thread waits for something that it holds itself
    kNever,  // those who hold it can never go on
};

// All calls are made with one and the same mutex held.
class Waiting {
public:
    // Returns when the wait is ready, timed out, or found to be without an end. The lock is released meanwhile.
    [[nodiscard]] Wake Block(std::unique_lock<std::mutex>& lock, const Wait& wait);

    // Something changed that a wait may look at.
    void NotifyAll()
    {
        if (HasWaiting()) {
            ++notifications_;
            changed_.notify_all();
        }
    }
    // Asked without the mutex, by who has just ended what a thread may wait for.
    [[nodiscard]] bool HasWaiting() const { return waitingCount_.load() != 0; }

    // Waits that found themselves over when they looked again, without a notification since.
    [[nodiscard]] std::uint64_t EndedUnnotified() const { return endedUnnotified_.load(std::memory_order_relaxed); }

    // A thread hands its work to another one and waits until that ends or parks.
    void BeginSupervision(ThreadId supervisor, ThreadId worker) { supervised_[worker] = supervisor; }
    void EndSupervision(ThreadId worker) { supervised_.erase(worker); }

private:
    [[nodiscard]] bool CanNeverMove(ThreadId thread, ThreadId origin, unsigned depth) const;
    [[nodiscard]] bool CanNeverEnd(const Wait& wait, ThreadId origin, unsigned depth) const;
    [[nodiscard]] std::optional<Wake> Judge(const Wait& wait, ThreadId self) const;

    std::condition_variable changed_;
    std::uint64_t notifications_ = 0;
    std::atomic<unsigned> waitingCount_{0};  // counted before the wait is looked at
    std::atomic<std::uint64_t> endedUnnotified_{0};
    std::map<ThreadId, const Wait*> waits_;
    std::map<ThreadId, ThreadId> supervised_;  // worker to supervisor
};

}  // namespace host::schedule
