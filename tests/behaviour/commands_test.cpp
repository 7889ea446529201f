// Commands: what reaches the target, one per run; what is refused, dropped, left alive, and how delivery can stop for
// good.
#include "tests/kit/driver_fixture.h"

namespace tests {
namespace {

using host::checks::Rule;

class Commands : public OnContainer {};
FOR_ALL_CONTAINERS(Commands);

struct Pair {
    Peer sender{1};
    Peer target{2};

    explicit Pair(DriverFixture& fixture)
    {
        target.TakesCommands();
        EXPECT_EQ(fixture.Register(sender), STATUS_SUCCESS);
        EXPECT_EQ(fixture.Register(target), STATUS_SUCCESS);
    }
};

TEST_P(Commands, ReachTheTargetWithTheSendersStateAndStayWithTheSender)
{
    DriverFixture fixture(GetParam());
    Pair pair(fixture);
    ASSERT_EQ(fixture.Post(pair.sender, 8), STATUS_SUCCESS);
    fixture.Deliver();
    ASSERT_EQ(fixture.Send(pair.sender, pair.target, 77, 1234), STATUS_SUCCESS);
    EXPECT_TRUE(pair.target.commands.empty());
    fixture.Deliver();
    ASSERT_EQ(pair.target.commands.size(), 1u);
    const auto& [id, info] = pair.target.commands[0];
    EXPECT_EQ(id, 77u);
    EXPECT_EQ(info.Size, 32u);
    EXPECT_EQ(info.CommandArgument, 1234u);
    EXPECT_EQ(info.SourceState, 8u);
    EXPECT_EQ(memcmp(&info.SourceGuid, &pair.sender.guid, sizeof(GUID)), 0);
    EXPECT_EQ(fixture.Count(fixture.Context().states), 0u) << "an unchanged state posts nothing";

    // A delivered command is not deleted: it goes with its sender.
    EXPECT_EQ(fixture.Count(fixture.Context().commands), 0u);
    EXPECT_EQ(fixture.Alive(kCommandContextName), 1u);
    ASSERT_EQ(fixture.Leave(pair.sender), STATUS_SUCCESS);
    EXPECT_EQ(fixture.Alive(kCommandContextName), 0u);
}

TEST_P(Commands, OneRunDeliversOneOfABurst)
{
    DriverFixture fixture(GetParam());
    Pair pair(fixture);
    for (const ULONG id : {1u, 2u, 3u}) {
        ASSERT_EQ(fixture.Send(pair.sender, pair.target, id), STATUS_SUCCESS);
    }
    EXPECT_EQ(fixture.Queued(), 1u);
    fixture.Deliver();
    EXPECT_EQ(pair.target.commands.size(), 1u);
    EXPECT_EQ(fixture.Count(fixture.Context().commands), 2u);
    ASSERT_EQ(fixture.Send(pair.sender, pair.target, 4), STATUS_SUCCESS);
    fixture.Deliver();
    ASSERT_EQ(pair.target.commands.size(), 2u);
    EXPECT_EQ(pair.target.commands[1].first, 2u) << "the oldest comes first";
}

TEST_P(Commands, BothMissingPartiesAreReportedAndStopCommandDeliveryForGood)
{
    DriverFixture fixture(GetParam());
    Pair pair(fixture);
    ASSERT_EQ(fixture.Send(pair.sender, pair.target, 1), STATUS_SUCCESS);
    ASSERT_EQ(fixture.Leave(pair.sender), STATUS_SUCCESS);
    ASSERT_EQ(fixture.Leave(pair.target), STATUS_SUCCESS);
    EXPECT_EQ(fixture.machine.RunWorkItems().parked.size(), 1u);
    const std::string run = "12 NotifierEvtWorkItemNotifyCommands: Unable to find client with , {0000000";
    const std::string tail = "-1111-2222-0102-030405060708}, 0xC0000001";
    EXPECT_EQ(fixture.TakeReports(), (Lines{run + "1" + tail, run + "2" + tail}));
    EXPECT_EQ(fixture.machine.violations().Take(Rule::kSelfWait).size(), 1u);
    fixture.Abandon();
}

}  // namespace
}  // namespace tests
