// The explorer itself: it finds a race that needs one preemption, and what it prints replays it.
#include "host/schedule/explorer.h"
#include "tests/host/broken_world.h"

#include <gtest/gtest.h>

namespace tests {
namespace {

using host::schedule::Explorer;

// The rules broken in one schedule of two threads that delete one object.
std::vector<Rule> RunRace(Explorer& explorer)
{
    BrokenWorld world;
    world.table.Run(Scenario::kRacyPrepare);
    explorer.Run(world.machine, {{"one", [&] { world.table.Run(Scenario::kRacyDelete); }},
                                 {"two", [&] { world.table.Run(Scenario::kRacyDelete); }}});
    return world.TakeRules();
}

TEST(Explorer, FindsARaceAndReplaysIt)
{
    Explorer walk({.preemptions = 1});
    std::string schedule;
    unsigned found = 0;
    while (walk.Next()) {
        if (!RunRace(walk).empty()) {
            schedule = walk.Schedule();
            ++found;
        }
    }
    EXPECT_TRUE(walk.IsComplete());
    ASSERT_GE(found, 1u);
    EXPECT_LT(found, walk.Count());
    for (unsigned again = 0; again < 3; ++again) {
        Explorer replay({.replay = schedule});
        ASSERT_TRUE(replay.Next());
        EXPECT_FALSE(RunRace(replay).empty()) << schedule;
        EXPECT_EQ(replay.Schedule(), schedule);
        EXPECT_FALSE(replay.Next());
    }
}

TEST(Explorer, WithoutPreemptionsTheRaceStaysHidden)
{
    Explorer walk({.preemptions = 0});
    while (walk.Next()) {
        EXPECT_TRUE(RunRace(walk).empty()) << walk.Schedule();
    }
    EXPECT_EQ(walk.Count(), 2u);  // either thread first
}

TEST(Explorer, RandomPrioritiesFindItToo)
{
    Explorer random({.preemptions = 2, .everyCall = true, .random = 200, .seed = 3});
    unsigned found = 0;
    while (random.Next()) {
        found += RunRace(random).empty() ? 0 : 1;
    }
    EXPECT_GE(found, 1u);
    EXPECT_EQ(random.Count(), 200u);
}

TEST(Explorer, RefusesAScheduleThatIsNone)
{
    EXPECT_THROW(Explorer({.replay = "locks 12>"}), host::HostError);
}

}  // namespace
}  // namespace tests
