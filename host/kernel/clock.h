// The machine's clock. It moves only when somebody moves it: a test, a scenario, or a driver's own delay or time-out
// when nothing else can run. What is due on the way runs at its moment, so that every run of a test is the same.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>

namespace host::kernel {

// Of 100 ns, as the platform counts time.
using TimeUnits = std::int64_t;
inline constexpr TimeUnits kUnitsPerMillisecond = 10'000;
inline constexpr TimeUnits kUnitsPerSecond = 10'000'000;

class Clock {
public:
    // Since boot, and since the year 1601.
    [[nodiscard]] TimeUnits Now() const;
    [[nodiscard]] TimeUnits SystemTime() const { return kBootTime + Now(); }

    // When a driver's due time is: negative values count from now, others are a system time.
    [[nodiscard]] TimeUnits MomentOf(TimeUnits dueTime) const;

    // Runs `action` once, on the thread that moves the clock to this moment or past it, with no lock of the clock held.
    // Moments that are over are due at the next move. Returns what Cancel takes.
    std::uint64_t Schedule(TimeUnits moment, std::function<void()> action);
    // False when the action has begun, or was cancelled before.
    bool Cancel(std::uint64_t id);
    // When the next action is due; empty when none is scheduled.
    [[nodiscard]] std::optional<TimeUnits> NextMoment() const;

    // Moves the clock on; what comes due runs in order of its moment. It never goes back.
    void AdvanceTo(TimeUnits moment);
    void Advance(TimeUnits duration) { AdvanceTo(Now() + duration); }

private:
    // Some moment in the year 2024: long enough after 1601 that absolute times in tests can lie before it.
    static constexpr TimeUnits kBootTime = 133'500'000'000'000'000;

    struct Due {
        std::uint64_t id;
        std::function<void()> action;
    };
    mutable std::mutex mutex_;
    TimeUnits now_ = 0;
    std::uint64_t nextId_ = 0;
    std::multimap<TimeUnits, Due> scheduled_;  // of one moment: in order of scheduling
};

}  // namespace host::kernel
