// The machine's clock: what is due runs at its moment and in order, however far one move goes.
#include "host/kernel/clock.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace tests {
namespace {

using host::kernel::Clock;
using host::kernel::TimeUnits;

TEST(Clock, RunsWhatIsDueAtItsMomentAndInOrder)
{
    Clock clock;
    std::vector<std::pair<std::string, TimeUnits>> ran;
    const auto note = [&](const std::string& what) { return [&, what] { ran.emplace_back(what, clock.Now()); }; };
    clock.Schedule(30, note("third"));
    clock.Schedule(10, note("first"));
    clock.Schedule(10, note("second"));
    const std::uint64_t dropped = clock.Schedule(20, note("dropped"));
    // Due within the same move, as a periodic timer is.
    clock.Schedule(40, [&] { clock.Schedule(clock.Now() + 5, note("again")); });
    EXPECT_TRUE(clock.Cancel(dropped));
    EXPECT_FALSE(clock.Cancel(dropped));
    EXPECT_EQ(clock.NextMoment(), 10);

    clock.Advance(100);
    using Row = std::pair<std::string, TimeUnits>;
    EXPECT_EQ(ran, (std::vector<Row>{{"first", 10}, {"second", 10}, {"third", 30}, {"again", 45}}));
    EXPECT_EQ(clock.Now(), 100);
    EXPECT_EQ(clock.NextMoment(), std::nullopt);
}

TEST(Clock, NeverGoesBackAlsoWhenWhatIsDueMovesIt)
{
    Clock clock;
    TimeUnits seen = 0;
    clock.Schedule(10, [&] { clock.Advance(50); });
    clock.Schedule(20, [&] { seen = clock.Now(); });
    clock.AdvanceTo(30);
    EXPECT_EQ(seen, 20);
    EXPECT_EQ(clock.Now(), 60);
    clock.AdvanceTo(5);
    EXPECT_EQ(clock.Now(), 60);
    bool isRun = false;
    clock.Schedule(1, [&] { isRun = true; });  // over already: at the next move
    clock.Advance(0);
    EXPECT_TRUE(isRun);
}

TEST(Clock, TakesDueTimesAsDriversGiveThem)
{
    Clock clock;
    clock.Advance(1000);
    EXPECT_EQ(clock.MomentOf(-500), 1500);                    // relative
    EXPECT_EQ(clock.MomentOf(clock.SystemTime() + 7), 1007);  // absolute
    EXPECT_LT(clock.MomentOf(0), 0);
}

}  // namespace
}  // namespace tests
