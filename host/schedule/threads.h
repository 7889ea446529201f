// Threads of the host: system workers and client threads. Work that can never end is set aside with its stack, and
// the reason is returned to whoever waits for it.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

namespace host::schedule {

// How work on a thread of the host ended.
struct Outcome {
    bool parked = false;  // the thread hangs and was set aside
    std::string reason;   // "waits for wait lock #9, which it holds itself"; empty when it returned
};

class Threads {
public:
    // Runs work as a thread that bears this name, with a stack and a ThreadState of its own, and returns when it has
    // returned or parked. What it throws, this throws. Since the caller has nothing to do meanwhile, the system thread
    // is the caller's.
    Outcome Run(const std::string& name, const std::function<void()>& work);

    // Whether a thread (ThreadState::id) was parked in this process.
    [[nodiscard]] static bool IsParked(std::uint64_t threadId);

    // Whether a thread of these is parked: what its stack leads into must stay.
    [[nodiscard]] bool HasParked() const { return hasParked_.load(std::memory_order_acquire); }

private:
    std::atomic<bool> hasParked_{false};
};

}  // namespace host::schedule
