#include "host/schedule/waiting.h"

#include "host/environment.h"
#include "host/schedule/threads.h"
#include "host/schedule/yield.h"

#include <algorithm>

namespace host::schedule {
namespace {

// A thread can park in a place that notifies nobody here; waits look again this often.
constexpr std::chrono::milliseconds kLookAgain{20};
constexpr unsigned kDepthMaximum = 256;

}  // namespace

bool Waiting::CanNeverMove(ThreadId thread, ThreadId origin, unsigned depth) const
{
    if (thread == origin || thread == kNobody || Threads::IsParked(thread)) {
        return true;
    }
    if (depth == kDepthMaximum) {
        return false;
    }
    for (const auto& [worker, supervisor] : supervised_) {
        // A supervisor goes on when its worker parks, so only a worker in a circle holds it up for ever.
        if (supervisor == thread && !Threads::IsParked(worker) && CanNeverMove(worker, origin, depth + 1)) {
            return true;
        }
    }
    const auto found = waits_.find(thread);
    if (found == waits_.end() || found->second->deadline || found->second->isReady()) {
        return false;
    }
    return CanNeverEnd(*found->second, origin, depth + 1);
}

bool Waiting::CanNeverEnd(const Wait& wait, ThreadId origin, unsigned depth) const
{
    const std::vector<ThreadId> holders = wait.heldBy();
    const auto never = [&](ThreadId holder) { return CanNeverMove(holder, origin, depth); };
    return wait.anyEndsIt ? std::ranges::all_of(holders, never) : std::ranges::any_of(holders, never);
}

std::optional<Wake> Waiting::Judge(const Wait& wait, ThreadId self) const
{
    if (wait.isReady()) {
        return Wake::kReady;
    }
    if (wait.deadline) {
        return std::chrono::steady_clock::now() >= *wait.deadline ? std::optional(Wake::kTimedOut) : std::nullopt;
    }
    if (!wait.anyEndsIt) {
        const std::vector<ThreadId> holders = wait.heldBy();
        if (std::ranges::find(holders, self) != holders.end()) {
            return Wake::kSelf;
        }
    }
    return CanNeverEnd(wait, self, 0) ? std::optional(Wake::kNever) : std::nullopt;
}

Wake Waiting::Block(std::unique_lock<std::mutex>& lock, const Wait& wait)
{
    const ThreadId self = ThreadState::Current().id;
    waits_[self] = &wait;
    ++waitingCount_;
    bool isNotified = true;
    for (;;) {
        if (const std::optional<Wake> verdict = Judge(wait, self)) {
            endedUnnotified_ += !isNotified && *verdict == Wake::kReady ? 1 : 0;
            waits_.erase(self);
            --waitingCount_;
            return *verdict;
        }
        if (Controller* controller = theController.load(std::memory_order_acquire)) {
            controller->OnBlock(lock);
            continue;
        }
        auto until = std::chrono::steady_clock::now() + kLookAgain;
        if (wait.deadline) {
            until = std::min(until, *wait.deadline);
        }
        // By number: on a busy machine the time may be over as well before a notified thread runs.
        const std::uint64_t before = notifications_;
        changed_.wait_until(lock, until);
        isNotified = notifications_ != before;
    }
}

}  // namespace host::schedule
