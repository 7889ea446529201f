// Commands: how their delivery can stop for good. What reaches the target is the model-based tests'.
#include "tests/kit/driver_fixture.h"

namespace tests {
namespace {

using host::checks::Rule;

class Commands : public OnDriver {};
FOR_ALL_CONTAINERS(Commands);

TEST_P(Commands, BothMissingPartiesAreReportedAndStopCommandDeliveryForGood)
{
    Peer& sender = Join(1);
    Peer& target = Join(Peer(2).TakesCommands());
    ASSERT_EQ(Send(sender, target, 1), STATUS_SUCCESS);
    ASSERT_EQ(Leave(sender), STATUS_SUCCESS);
    ASSERT_EQ(Leave(target), STATUS_SUCCESS);
    EXPECT_EQ(machine.RunWorkItems().parked.size(), 1u);
    const std::string run = "12 NotifierEvtWorkItemNotifyCommands: Unable to find client with , {0000000";
    const std::string tail = "-1111-2222-0102-030405060708}, 0xC0000001";
    EXPECT_EQ(TakeReports(), (Lines{run + "1" + tail, run + "2" + tail}));
    EXPECT_EQ(machine.violations().Take(Rule::kSelfWait).size(), 1u);
    Abandon();
}

}  // namespace
}  // namespace tests
