// The scheduler itself: it finds a race that needs one preemption, and what it prints replays it.
#include "host/schedule/controlled_scheduler.h"
#include "tests/host/faulty_driver_fixture.h"

#include <algorithm>
#include <functional>

namespace tests {
namespace {

using host::schedule::ControlledScheduler;

// The rules broken in one schedule of two threads that delete one object.
std::vector<Rule> RunRace(ControlledScheduler& scheduler)
{
    FaultyDriverFixture fixture;
    fixture.Call("RacyPrepare");
    scheduler.Run(fixture.machine,
                  {{"one", [&] { fixture.Call("RacyDelete"); }}, {"two", [&] { fixture.Call("RacyDelete"); }}});
    return fixture.TakeRules();
}

// What the run looks for is found in some schedules of one preemption, and what they print replays it.
void ExpectFoundAndReplayed(const std::function<bool(ControlledScheduler& scheduler)>& isFoundBy)
{
    ControlledScheduler walk({.preemptions = 1});
    std::string schedule;
    unsigned found = 0;
    while (walk.Next()) {
        if (isFoundBy(walk)) {
            schedule = walk.Schedule();
            ++found;
        }
    }
    EXPECT_TRUE(walk.IsComplete());
    ASSERT_GE(found, 1u);
    EXPECT_LT(found, walk.Count());
    for (unsigned again = 0; again < 3; ++again) {
        ControlledScheduler replay({.replay = schedule});
        ASSERT_TRUE(replay.Next());
        EXPECT_TRUE(isFoundBy(replay)) << schedule;
        EXPECT_EQ(replay.Schedule(), schedule);
        EXPECT_FALSE(replay.Next());
    }
}

TEST(ControlledScheduler, FindsARaceAndReplaysIt)
{
    ExpectFoundAndReplayed([](ControlledScheduler& scheduler) { return !RunRace(scheduler).empty(); });
}

TEST(ControlledScheduler, WithoutPreemptionsTheRaceStaysHidden)
{
    ControlledScheduler walk({.preemptions = 0});
    while (walk.Next()) {
        EXPECT_TRUE(RunRace(walk).empty()) << walk.Schedule();
    }
    EXPECT_EQ(walk.Count(), 2u);  // either thread first
}

TEST(ControlledScheduler, RandomPrioritiesFindItToo)
{
    ControlledScheduler random({.preemptions = 2, .everyCall = true, .random = 200, .seed = 3});
    unsigned found = 0;
    while (random.Next()) {
        found += RunRace(random).empty() ? 0 : 1;
    }
    EXPECT_GE(found, 1u);
    EXPECT_EQ(random.Count(), 200u);
}

// Two threads take two locks in opposite orders.
TEST(ControlledScheduler, FindsADeadlockAndReplaysIt)
{
    ExpectFoundAndReplayed([](ControlledScheduler& scheduler) {
        FaultyDriverFixture fixture;
        const WDFWAITLOCK first = NewLock();
        const WDFWAITLOCK second = NewLock();
        const auto outcomes = scheduler.Run(
            fixture.machine, {{"one", [&] { TakeBoth(first, second); }}, {"two", [&] { TakeBoth(second, first); }}});
        const auto parked = static_cast<std::size_t>(std::ranges::count(outcomes, true, &host::Outcome::parked));
        EXPECT_TRUE(parked == 0 || parked == 2) << parked << " in " << scheduler.Schedule();
        EXPECT_EQ(fixture.machine.violations().Take(Rule::kLockOrder).size(), 1u);
        EXPECT_EQ(fixture.machine.violations().Take(Rule::kDeadlock).size(), parked);
        if (parked != 0) {
            fixture.Abandon();
        }
        return parked != 0;
    });
}

TEST(ControlledScheduler, AScheduleThatTheThreadsDoNotFollowIsNoResult)
{
    EXPECT_THROW(ControlledScheduler({.replay = "locks 12>"}), host::HostError);
    // Of other code: no such point, or no such thread there.
    for (const char* schedule : {"locks 500>1", "locks 0>7"}) {
        ControlledScheduler replay({.replay = schedule});
        ASSERT_TRUE(replay.Next());
        EXPECT_THROW((void)RunRace(replay), host::HostError) << schedule;
    }
    // Of code that does something else every time.
    ControlledScheduler walk({.preemptions = 1});
    unsigned turn = 0;
    const auto play = [&] {
        FaultyDriverFixture fixture;
        const WDFWAITLOCK lock = NewLock();
        const auto take = [&, times = ++turn % 2 == 0 ? 1u : 3u] {
            for (unsigned time = 0; time < times; ++time) {
                (void)WdfWaitLockAcquire(lock, nullptr);
                WdfWaitLockRelease(lock);
            }
        };
        (void)walk.Run(fixture.machine, {{"one", take}, {"two", take}});
    };
    EXPECT_THROW(while (walk.Next()) { play(); }, host::HostError);
}

}  // namespace
}  // namespace tests
