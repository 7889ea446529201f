// What runs at PASSIVE_LEVEL on threads of the host, either when asked to or at once: work items, and what the
// framework itself leaves to a system thread, disposals above all.
#pragma once

#include "host/framework/driver_threads.h"
#include "host/framework/object.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace host::framework {

// Queued at most once; runs of one item may overlap. The framework's mutex guards it.
struct WorkItemObject final : Object, KeepsKind<WorkItemObject> {
    // An enqueue looks at the flag without the mutex, perhaps when the item is gone: its memory serves work items only.
    using KeepsKind<WorkItemObject>::operator new;
    using KeepsKind<WorkItemObject>::operator delete;
    explicit WorkItemObject(DriverInstance* owner) : Object(ObjectType::kWorkItem, owner) {}
    void OnDispose(Framework& framework, std::unique_lock<std::mutex>& lock) override;
    [[nodiscard]] bool NeedsPassiveLevel() const override { return true; }
    void Show(ObjectSnapshot& view) const override { view.queued = queued; }

    PFN_WDF_WORKITEM routine = nullptr;
    std::atomic<bool> queued{false};       // set with the mutex
    bool disposing = false;                // disposal has begun: enqueue is dropped
    std::vector<std::uint64_t> runningOn;  // thread ids
    std::uint64_t callbackThread = 0;  // of the run that began last, until any run ends: all that the framework keeps
};

template <>
inline constexpr ObjectType kTypeOf<WorkItemObject> = ObjectType::kWorkItem;

// The framework's mutex guards it, because waits look at runs.
class WorkQueue {
public:
    explicit WorkQueue(Framework& framework) : framework_(framework) {}

    // ---- With the mutex; those that take the lock release it meanwhile ----

    void Enqueue(WorkItemObject& item);
    // Leaves work to a system thread. The removal of the owner, a device or driver, waits for it; null: nobody's does.
    // The object is the one that it is for; null for none.
    void Defer(const Object* owner, const Object* object, std::function<void()> work);
    // The object is freed: nothing is left to do for it.
    void Forget(const Object& object);
    // The calling thread does itself what was left to a system thread for this object and for nobody's removal, so not
    // its disposal. It counts as running until EndRun.
    void TakeOver(const Object& object);
    void EndRun();

    // Waits until nothing is deferred for this device or driver; what no thread has begun yet is run for it.
    void WaitForDisposals(std::unique_lock<std::mutex>& lock, const Object& owner);
    // Waits until the item is neither queued nor running; a queued callback is run for it.
    void WaitForRuns(std::unique_lock<std::mutex>& lock, WorkItemObject& item, const char* function,
                     const void* caller);
    // Runs what is oldest; false when there is nothing.
    bool RunOne(std::unique_lock<std::mutex>& lock, schedule::Outcome& outcome);

    // The workers that sleep although something is queued: one of them is about to run it.
    [[nodiscard]] std::vector<schedule::ThreadId> AboutToRun() const
    {
        return Size() == 0 ? std::vector<schedule::ThreadId>() : sleeping_;
    }
    [[nodiscard]] bool HasItems() const { return !items_.empty(); }
    [[nodiscard]] bool IsRunning() const { return running_ != 0; }
    [[nodiscard]] std::size_t Size() const { return items_.size() + deferred_.size(); }
    [[nodiscard]] std::string NextItem() const { return items_.empty() ? std::string() : items_.front()->name; }
    [[nodiscard]] const DriverInstance* NextItemsDriver() const
    {
        return items_.empty() ? nullptr : items_.front()->driver;
    }

    // ---- Without the mutex ----

    // From now on what is queued runs at once, on so many threads.
    void StartWorkers(unsigned count);
    void StopWorkers();
    void WaitUntilEmpty();

private:
    struct Deferred {
        const Object* owner;
        const Object* object;
        std::function<void()> work;
    };
    struct RunningDeferred {
        const Object* owner;
        schedule::ThreadId thread;
    };

    // Take a run off the queue, for the calling thread: an item's, which may be destroyed by it unless the thread parks;
    // the oldest deferred work's, of one owner or of all; what is to run next.
    DriverThreads::Work Begin(WorkItemObject& item);
    std::optional<DriverThreads::Work> BeginDeferred(const Object* onlyOf);
    std::optional<DriverThreads::Work> BeginNext();
    // Runs what `next` takes off, on one thread; false when that was nothing.
    bool Run(std::unique_lock<std::mutex>& lock, const std::string& threadName, schedule::Outcome& outcome,
             const std::function<std::optional<DriverThreads::Work>()>& next);
    void WorkerLoop(unsigned number);

    Framework& framework_;
    std::deque<WorkItemObject*> items_;
    std::deque<Deferred> deferred_;
    std::list<RunningDeferred> deferredRunning_;
    unsigned running_ = 0;
    bool stopping_ = false;
    std::condition_variable added_;  // workers wait for work
    std::condition_variable ended_;  // and others for its end
    std::vector<std::thread> workers_;
    std::vector<schedule::ThreadId> sleeping_;  // of them, those with nothing to run when they last looked
};

}  // namespace host::framework
