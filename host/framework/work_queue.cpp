#include "host/framework/work_queue.h"

#include "host/framework/framework.h"

#include <algorithm>
#include <utility>

namespace host::framework {

// ---- Queueing ----

void WorkQueue::Enqueue(WorkItemObject& item)
{
    item.queued = true;
    items_.push_back(&item);
    added_.notify_one();
}

void WorkQueue::Defer(const Object* owner, const Object* object, std::function<void()> work)
{
    deferred_.push_back({owner, object, std::move(work)});
    added_.notify_one();
}

void WorkQueue::Forget(const Object& object)
{
    std::erase(items_, &object);
    std::erase_if(deferred_, [&](const Deferred& deferred) { return deferred.object == &object; });
    ended_.notify_all();  // nothing may be left to wait for
}

// ---- Runs ----

void WorkQueue::CallBack(WorkItemObject& item)
{
    const std::uint64_t self = ThreadState::Current().id;
    {
        const std::lock_guard lock(framework_.mutex);
        --item.starting;
        item.runningOn.push_back(self);
        item.callbackThread = self;
    }
    schedule::Acquire(&item.queued);
    framework_.threads.Guarded("EvtWorkItem", reinterpret_cast<const void*>(item.routine),
                               [&] { item.routine(static_cast<WDFWORKITEM>(item.handle)); });
    schedule::Release(&item.runningOn);
    std::unique_lock lock(framework_.mutex);
    std::erase(item.runningOn, self);
    item.callbackThread = 0;
    framework_.threads.NotifyWaiting();
    framework_.objects.Dereference(lock, item);
}

void WorkQueue::RunItem(std::unique_lock<std::mutex>& lock, WorkItemObject& item, const std::string& threadName,
                        schedule::Outcome& outcome)
{
    std::erase(items_, &item);
    item.queued.exchange(false);  // who still finds it queued has done before what the run is to see
    ++item.starting;
    ++running_;
    ObjectTree::Reference(item);
    lock.unlock();
    outcome = framework_.threads.RunOnThread(threadName, "work item", nullptr, [this, &item] { CallBack(item); });
    lock.lock();
    EndRun();
}

bool WorkQueue::RunDeferred(std::unique_lock<std::mutex>& lock, const std::string& threadName,
                            schedule::Outcome& outcome, const Object* onlyOf)
{
    const auto next = std::find_if(deferred_.begin(), deferred_.end(), [onlyOf](const Deferred& deferred) {
        return onlyOf == nullptr || deferred.owner == onlyOf;
    });
    if (next == deferred_.end()) {
        return false;
    }
    const Deferred deferred = std::move(*next);
    deferred_.erase(next);
    const auto running = deferredRunning_.insert(deferredRunning_.end(), {deferred.owner, schedule::kNobody});
    ++running_;
    lock.unlock();
    outcome = framework_.threads.RunOnThread(threadName, "framework work", nullptr, [&] {
        {
            const std::lock_guard begin(framework_.mutex);
            running->thread = ThreadState::Current().id;
        }
        deferred.work();
    });
    lock.lock();
    if (!outcome.parked) {
        deferredRunning_.erase(running);
        framework_.threads.NotifyWaiting();
    }
    EndRun();
    return true;
}

void WorkQueue::EndRun()
{
    if (--running_ == 0) {
        ended_.notify_all();
        framework_.threads.NotifyWaiting();  // a queue that ends waits for the last one
    }
}

bool WorkQueue::RunNext(std::unique_lock<std::mutex>& lock, const std::string& threadName, schedule::Outcome& outcome)
{
    if (RunDeferred(lock, threadName, outcome)) {
        return true;
    }
    if (items_.empty()) {
        return false;
    }
    RunItem(lock, *items_.front(), threadName, outcome);
    return true;
}

bool WorkQueue::RunOne(std::unique_lock<std::mutex>& lock, schedule::Outcome& outcome)
{
    return RunNext(lock, "system worker", outcome);
}

// ---- Waits ----

void WorkQueue::WaitForDisposals(std::unique_lock<std::mutex>& lock, const Object& owner)
{
    schedule::Outcome outcome;
    while (RunDeferred(lock, "system worker", outcome, &owner)) {
    }
    const auto threads = [&] {
        std::vector<schedule::ThreadId> begun;
        for (const RunningDeferred& running : deferredRunning_) {
            if (running.owner == &owner && running.thread != schedule::kNobody) {
                begun.push_back(running.thread);
            }
        }
        return begun;
    };
    const auto isOver = [&] {
        return std::none_of(deferredRunning_.begin(), deferredRunning_.end(),
                            [&](const RunningDeferred& running) { return running.owner == &owner; });
    };
    (void)framework_.threads.WaitFor(lock,
                                     {.subject = [&owner] { return "the deferred disposals of " + Describe(owner); },
                                      .isReady = isOver,
                                      .heldBy = threads},
                                     "removal", nullptr);
}

void WorkQueue::WaitForRuns(std::unique_lock<std::mutex>& lock, WorkItemObject& item, const char* function,
                            const void* caller)
{
    // Whether or not a worker is free: one that waits for a lock of this thread's would never get to it.
    while (item.queued) {
        schedule::Outcome outcome;
        RunItem(lock, item, "system worker", outcome);
    }
    const schedule::Wait wait{
        .subject = [&item] { return "the runs of " + Describe(item); },
        .isReady = [&item] { return !item.queued && item.starting == 0 && item.runningOn.empty(); },
        .heldBy = [&item] { return item.runningOn; },
    };
    (void)framework_.threads.WaitFor(lock, wait, function, caller);
    schedule::Acquire(&item.runningOn);
}

void WorkQueue::WaitUntilEmpty()
{
    const IdleScope idle;
    std::unique_lock lock(framework_.mutex);
    ended_.wait(lock, [this] { return items_.empty() && deferred_.empty() && running_ == 0; });
}

// ---- Workers ----

void WorkQueue::WorkerLoop(unsigned number)
{
    const std::string name = "system worker " + std::to_string(number);
    ThreadState::Current().Rename(name + " (dispatch)");
    std::unique_lock lock(framework_.mutex);
    schedule::Outcome outcome;
    const schedule::ThreadId self = ThreadState::Current().id;
    bool hasRun = false;
    while (!stopping_) {
        if (RunNext(lock, name, outcome)) {
            hasRun = true;
            continue;
        }
        const IdleScope idle;
        sleeping_.push_back(self);
        if (std::exchange(hasRun, false)) {
            // More often follows at once from a thread that waited for a lock of the run's: on one processor it goes on
            // now, and finds nobody to wake.
            lock.unlock();
            std::this_thread::yield();
            lock.lock();
        } else {
            added_.wait(lock);
        }
        std::erase(sleeping_, self);
    }
}

void WorkQueue::StartWorkers(unsigned count)
{
    for (unsigned number = 1; number <= count; ++number) {
        workers_.emplace_back([this, number] { WorkerLoop(number); });
    }
}

void WorkQueue::StopWorkers()
{
    {
        const std::lock_guard lock(framework_.mutex);
        stopping_ = true;
        added_.notify_all();
    }
    for (std::thread& worker : workers_) {
        worker.join();
    }
    workers_.clear();
}

}  // namespace host::framework
