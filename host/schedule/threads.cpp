#include "host/schedule/threads.h"

#include "host/environment.h"
#include "host/schedule/fiber.h"
#include "host/schedule/parking.h"

#include <exception>
#include <memory>
#include <mutex>
#include <set>
#include <utility>
#include <vector>

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

namespace {

// Stacks that no work is on. They serve one machine after the other.
class Idle {
public:
    std::unique_ptr<Fiber> Take()
    {
        {
            const std::lock_guard lock(mutex_);
            if (!fibers_.empty()) {
                std::unique_ptr<Fiber> fiber = std::move(fibers_.back());
                fibers_.pop_back();
                return fiber;
            }
        }
        return std::make_unique<Fiber>();
    }
    void Give(std::unique_ptr<Fiber> fiber)
    {
        const std::lock_guard lock(mutex_);
        fibers_.push_back(std::move(fiber));
    }

private:
    std::mutex mutex_;
    std::vector<std::unique_ptr<Fiber>> fibers_;
};

Idle& TheIdle()
{
    static Idle* idle = new Idle;  // threads may outlive everything
    return *idle;
}

}  // namespace

Outcome Threads::Run(const std::string& name, const std::function<void()>& work)
{
    std::unique_ptr<Fiber> fiber = TheIdle().Take();
    fiber->state.BeginWork(name);
    if (!fiber->Run(work)) {
        hasParked_.store(true, std::memory_order_release);
        return {.parked = true, .reason = fiber.release()->abandonReason};  // its stack stays for ever
    }
    const std::exception_ptr exception = std::exchange(fiber->exception, nullptr);
    TheIdle().Give(std::move(fiber));
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

void ParkThisThread(const std::string& reason)
{
    const ThreadState& thread = ThreadState::Current();
    Fiber* const fiber = Fiber::Current();
    if (Environment::Exists()) {
        Environment::Current().hasHung = true;
    }
    if (fiber == nullptr) {
        std::string text = "thread \"" + thread.name + "\" can never go on: it " + reason;
        if (Environment::Exists()) {
            for (const checks::Violation& violation : Environment::Current().violations.All()) {
                text += "\n" + violation.FullText();
            }
        }
        throw Hang(text);
    }
    {
        Parked& parked = TheParked();
        const std::lock_guard lock(parked.mutex);
        parked.ids.insert(thread.id);
    }
    fiber->abandonReason = reason;
    fiber->Abandon();
}

}  // namespace host::schedule
