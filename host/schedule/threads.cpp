#include "host/schedule/threads.h"

#include "host/checks/crash.h"
#include "host/environment.h"
#include "host/schedule/parking.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <set>
#include <thread>
#include <utility>

namespace host::schedule {
namespace {

struct Parked {
    std::mutex mutex;
    std::set<std::uint64_t> ids;
};

Parked& TheParked()
{
    static Parked* parked = new Parked;  // parked threads may outlive everything
    return *parked;
}

}  // namespace

struct Threads::Worker {
    enum class State { kIdle, kBusy, kDone, kParked, kEnding };

    std::mutex mutex;
    std::condition_variable changed;
    State state = State::kIdle;
    std::function<void()> work;
    std::string name;
    std::string parkReason;
    std::exception_ptr exception;  // that the work ended by
    std::thread thread;
};

namespace {

thread_local void* t_worker = nullptr;  // Threads::Worker*

}  // namespace

Threads::Threads() = default;

Threads::~Threads()
{
    for (const auto& worker : workers_) {
        std::unique_lock lock(worker->mutex);
        if (worker->state == Worker::State::kParked) {
            worker->thread.detach();
            continue;
        }
        worker->state = Worker::State::kEnding;
        worker->changed.notify_all();
        lock.unlock();
        worker->thread.join();
    }
}

std::shared_ptr<Threads::Worker> Threads::TakeIdle()
{
    const std::lock_guard lock(mutex_);
    for (const auto& worker : workers_) {
        const std::lock_guard workerLock(worker->mutex);
        if (worker->state == Worker::State::kIdle) {
            worker->state = Worker::State::kBusy;
            return worker;
        }
    }
    auto worker = std::make_shared<Worker>();
    worker->state = Worker::State::kBusy;
    worker->thread = std::thread([worker] {
        t_worker = worker.get();
        checks::CatchMemoryFaults();
        std::unique_lock workerLock(worker->mutex);
        while (worker->state != Worker::State::kEnding) {
            if (worker->work == nullptr) {
                worker->changed.wait(workerLock);
                continue;
            }
            const std::function<void()> work = std::move(worker->work);
            worker->work = nullptr;
            ThreadState::Current().name = worker->name;
            workerLock.unlock();
            std::exception_ptr exception;
            try {
                work();
            } catch (...) {
                exception = std::current_exception();
            }
            workerLock.lock();
            worker->exception = std::move(exception);
            worker->state = Worker::State::kDone;
            worker->changed.notify_all();
        }
    });
    workers_.push_back(worker);
    return worker;
}

Outcome Threads::Run(const std::string& name, std::function<void()> work)
{
    const std::shared_ptr<Worker> worker = TakeIdle();
    std::unique_lock lock(worker->mutex);
    worker->name = name;
    worker->work = std::move(work);
    worker->changed.notify_all();
    worker->changed.wait(lock, [&] { return worker->state != Worker::State::kBusy; });
    if (worker->state == Worker::State::kParked) {
        return {.parked = true, .reason = worker->parkReason};
    }
    const std::exception_ptr exception = std::exchange(worker->exception, nullptr);
    worker->state = Worker::State::kIdle;  // not before: it would serve somebody else while this call still looks
    if (exception != nullptr) {
        std::rethrow_exception(exception);
    }
    return {};
}

bool Threads::IsParked(std::uint64_t threadId)
{
    Parked& parked = TheParked();
    const std::lock_guard lock(parked.mutex);
    return parked.ids.contains(threadId);
}

bool Threads::HasParked()
{
    const std::lock_guard lock(mutex_);
    return std::any_of(workers_.begin(), workers_.end(), [](const auto& worker) {
        const std::lock_guard workerLock(worker->mutex);
        return worker->state == Worker::State::kParked;
    });
}

// What Threads::Worker lets the free function below do.
struct ParkingAccess {
    static void Park(const std::string& reason)
    {
        auto* worker = static_cast<Threads::Worker*>(t_worker);
        const std::lock_guard lock(worker->mutex);
        worker->state = Threads::Worker::State::kParked;
        worker->parkReason = reason;
        worker->changed.notify_all();
    }
};

void ParkThisThread(const std::string& reason)
{
    const ThreadState& thread = ThreadState::Current();
    if (t_worker == nullptr) {
        std::fprintf(stderr, "host: thread \"%s\" can never go on: it %s\n", thread.name.c_str(), reason.c_str());
        if (Environment::Exists()) {
            for (const checks::Violation& violation : Environment::Current().violations.All()) {
                std::fprintf(stderr, "host: %s\n", violation.Text().c_str());
            }
        }
        _exit(3);
    }
    {
        Parked& parked = TheParked();
        const std::lock_guard lock(parked.mutex);
        parked.ids.insert(thread.id);
    }
    ParkingAccess::Park(reason);
    for (;;) {
        pause();
    }
}

}  // namespace host::schedule
