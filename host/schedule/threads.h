// The host's own threads: system workers and client threads. Work that can never end is set aside with its thread, and
// whoever waits for it is told why.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace host::schedule {

// How a stretch of work on a thread of the host ended.
struct Outcome {
    bool parked = false;  // the thread waits for ever and was set aside
    std::string reason;   // "waits for wait lock #9, which it holds itself"; empty when it returned
};

class Threads {
public:
    Threads();
    ~Threads();  // idle threads end; parked ones stay parked for the life of the process
    Threads(const Threads&) = delete;
    Threads& operator=(const Threads&) = delete;

    // Runs work on a thread that bears this name meanwhile, and waits until it returns or parks. What it throws, this
    // throws.
    Outcome Run(const std::string& name, std::function<void()> work);

    // Whether a thread (ThreadState::id) was parked in this process.
    [[nodiscard]] static bool IsParked(std::uint64_t threadId);

    // Whether a thread of these is parked: what its stack leads into must stay.
    [[nodiscard]] bool HasParked();

private:
    struct Worker;
    friend struct ParkingAccess;
    std::shared_ptr<Worker> TakeIdle();

    std::mutex mutex_;
    std::vector<std::shared_ptr<Worker>> workers_;
};

}  // namespace host::schedule
