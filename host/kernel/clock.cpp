#include "host/kernel/clock.h"

#include <algorithm>
#include <utility>

namespace host::kernel {

TimeUnits Clock::Now() const
{
    const std::lock_guard lock(mutex_);
    return now_;
}

TimeUnits Clock::MomentOf(TimeUnits dueTime) const
{
    return dueTime < 0 ? Now() - dueTime : dueTime - kBootTime;
}

std::uint64_t Clock::Schedule(TimeUnits moment, std::function<void()> action)
{
    const std::lock_guard lock(mutex_);
    scheduled_.emplace(moment, Due{++nextId_, std::move(action)});
    return nextId_;
}

bool Clock::Cancel(std::uint64_t id)
{
    const std::lock_guard lock(mutex_);
    const auto found =
        std::ranges::find_if(scheduled_, [id](const auto& scheduled) { return scheduled.second.id == id; });
    if (found == scheduled_.end()) {
        return false;
    }
    scheduled_.erase(found);
    return true;
}

std::optional<TimeUnits> Clock::NextMoment() const
{
    const std::lock_guard lock(mutex_);
    return scheduled_.empty() ? std::nullopt : std::optional(scheduled_.begin()->first);
}

void Clock::AdvanceTo(TimeUnits moment)
{
    std::unique_lock lock(mutex_);
    while (!scheduled_.empty() && scheduled_.begin()->first <= moment) {
        now_ = std::max(now_, scheduled_.begin()->first);
        const std::function<void()> action = std::move(scheduled_.begin()->second.action);
        scheduled_.erase(scheduled_.begin());
        lock.unlock();
        action();
        lock.lock();
    }
    now_ = std::max(now_, moment);
}

}  // namespace host::kernel
