// A queue with a worker thread, as one writes it by hand around a signal library.
#pragma once

#include "bench/baselines/baseline.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace bench {

class WorkerQueue {
public:
    explicit WorkerQueue(std::function<void(const State&)> deliver)
        : deliver_(std::move(deliver)), thread_([this] { Run(); })
    {
    }
    ~WorkerQueue()
    {
        {
            const std::lock_guard lock(mutex_);
            ending_ = true;
        }
        changed_.notify_one();
        thread_.join();
    }
    WorkerQueue(const WorkerQueue&) = delete;
    WorkerQueue& operator=(const WorkerQueue&) = delete;

    void Push(const State& state)
    {
        {
            const std::lock_guard lock(mutex_);
            queue_.push_back(state);
        }
        changed_.notify_one();
    }

private:
    void Run()
    {
        std::unique_lock lock(mutex_);
        for (;;) {
            changed_.wait(lock, [this] { return ending_ || !queue_.empty(); });
            if (queue_.empty()) {
                return;
            }
            const State state = queue_.front();
            queue_.pop_front();
            lock.unlock();
            deliver_(state);
            lock.lock();
        }
    }

    const std::function<void(const State&)> deliver_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<State> queue_;
    bool ending_ = false;
    std::thread thread_;
};

}  // namespace bench
