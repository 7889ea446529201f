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

void WorkQueue::TakeOver(const Object& object)
{
    ++running_;
    std::erase_if(deferred_,
                  [&](const Deferred& deferred) { return deferred.object == &object && deferred.owner == nullptr; });
}

// ---- Runs ----

DriverThreads::Work WorkQueue::Begin(WorkItemObject& item)
{
    std::erase(items_, &item);
    item.queued.exchange(false);  // who still finds it queued has done before what the run is to see
    ++running_;
    ObjectTree::Reference(item);
    const schedule::ThreadId self = ThreadState::Current().id;
    item.runningOn.push_back(self);
    item.callbackThread = self;
    return {.what = "work item",
            .routine = nullptr,
            .call =
                [this, &item] {
                    schedule::Acquire(&item.queued);
                    framework_.threads.Guarded("EvtWorkItem", reinterpret_cast<const void*>(item.routine),
                                               [&] { item.routine(static_cast<WDFWORKITEM>(item.handle)); });
                    schedule::Release(&item.runningOn);
                },
            .end =
                [this, &item](std::unique_lock<std::mutex>& lock) {
                    std::erase(item.runningOn, ThreadState::Current().id);
                    item.callbackThread = 0;
                    framework_.threads.NotifyWaiting();
                    framework_.objects.Dereference(lock, item);
                    EndRun();
                }};
}

std::optional<DriverThreads::Work> WorkQueue::BeginDeferred(const Object* onlyOf)
{
    const auto next = std::find_if(deferred_.begin(), deferred_.end(), [onlyOf](const Deferred& deferred) {
        return onlyOf == nullptr || deferred.owner == onlyOf;
    });
    if (next == deferred_.end()) {
        return std::nullopt;
    }
    const auto running = deferredRunning_.insert(deferredRunning_.end(), {next->owner, ThreadState::Current().id});
    std::function<void()> work = std::move(next->work);
    deferred_.erase(next);
    ++running_;
    return DriverThreads::Work{.what = "framework work",
                               .routine = nullptr,
                               .call = std::move(work),
                               .end = [this, running](std::unique_lock<std::mutex>&) {
                                   deferredRunning_.erase(running);
                                   framework_.threads.NotifyWaiting();
                                   EndRun();
                               }};
}

std::optional<DriverThreads::Work> WorkQueue::BeginNext()
{
    std::optional<DriverThreads::Work> deferred = BeginDeferred(nullptr);
    return deferred || items_.empty() ? std::move(deferred) : Begin(*items_.front());
}

void WorkQueue::EndRun()
{
    if (--running_ == 0) {
        ended_.notify_all();
        framework_.threads.NotifyWaiting();  // a queue that ends waits for the last one
    }
}

bool WorkQueue::Run(std::unique_lock<std::mutex>& lock, const std::string& threadName, schedule::Outcome& outcome,
                    const std::function<std::optional<DriverThreads::Work>()>& next)
{
    if (Size() == 0) {
        return false;
    }
    bool hasRun = false;
    lock.unlock();
    outcome = framework_.threads.RunEach(threadName, [&] {
        std::optional<DriverThreads::Work> work = next();
        hasRun = hasRun || work;
        return work;
    });
    lock.lock();
    if (outcome.parked) {
        EndRun();
    }
    return hasRun;
}

bool WorkQueue::RunOne(std::unique_lock<std::mutex>& lock, schedule::Outcome& outcome)
{
    bool isTaken = false;
    return Run(lock, "system worker", outcome,
               [&] { return std::exchange(isTaken, true) ? std::nullopt : BeginNext(); });
}

// ---- Waits ----

void WorkQueue::WaitForDisposals(std::unique_lock<std::mutex>& lock, const Object& owner)
{
    const auto threads = [&] {
        std::vector<schedule::ThreadId> begun;
        for (const RunningDeferred& running : deferredRunning_) {
            if (running.owner == &owner) {
                begun.push_back(running.thread);
            }
        }
        return begun;
    };
    const auto isOver = [&] {
        return std::none_of(deferredRunning_.begin(), deferredRunning_.end(),
                            [&](const RunningDeferred& running) { return running.owner == &owner; });
    };
    const auto isLeft = [&] {
        return std::ranges::any_of(deferred_, [&](const Deferred& deferred) { return deferred.owner == &owner; });
    };
    do {
        while (isLeft()) {
            schedule::Outcome outcome;
            (void)Run(lock, "system worker", outcome, [&] { return BeginDeferred(&owner); });
        }
        (void)framework_.threads.WaitFor(
            lock,
            {.subject = [&owner] { return "the deferred disposals of " + Describe(owner); },
             .isReady = isOver,
             .heldBy = threads},
            "removal", nullptr);
    } while (isLeft());
}

void WorkQueue::WaitForRuns(std::unique_lock<std::mutex>& lock, WorkItemObject& item, const char* function,
                            const void* caller)
{
    // Whether or not a worker is free: one that waits for a lock of this thread's would never get to it.
    while (item.queued) {
        schedule::Outcome outcome;
        (void)Run(lock, "system worker", outcome,
                  [&] { return item.queued ? std::optional(Begin(item)) : std::nullopt; });
    }
    const schedule::Wait wait{
        .subject = [&item] { return "the runs of " + Describe(item); },
        .isReady = [&item] { return !item.queued && item.runningOn.empty(); },
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
        if (Size() != 0) {
            // The lock was released meanwhile: whether there is more, or an end, is looked at again.
            hasRun |= Run(lock, name, outcome, [this] { return stopping_ ? std::nullopt : BeginNext(); });
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
