// States and commands: when an answer counts, and how delivery stops for good. Who is notified of what, in which order,
// is the model-based tests'.
#include "tests/kit/driver_fixture.h"

#include <regex>

namespace tests {
namespace {

using host::checks::Rule;

class States : public OnDriver {};
FOR_ALL_CONTAINERS(States);
class Hangs : public OnContainer {};
FOR_ALL_CONTAINERS(Hangs);

TEST_P(States, AnAnswerIsTheStateAtOnce)
{
    Peer& poster = Join(1);
    Peer& answering = Join(2);
    Peer& watcher = Join(3);
    ASSERT_EQ(Subscribe(answering, poster, 4), STATUS_SUCCESS);
    ASSERT_EQ(Subscribe(watcher, poster, 4), STATUS_SUCCESS);
    ULONG seenState = 0;
    answering.onState = [&](const ZepState&, ULONG& response) { response = 8; };
    watcher.onState = [&](const ZepState&, ULONG&) { seenState = Client(answering)->currentState; };
    ASSERT_EQ(Post(poster, 4), STATUS_SUCCESS);
    Deliver();
    EXPECT_EQ(seenState, 8u);
}

TEST_P(States, AnAnswerToOneSubscriptionIsNoneToTheNext)
{
    Peer& poster = Join(1);
    Peer& subscriber = Join(2);
    Peer& watcher = Join(3);
    ASSERT_EQ(Subscribe(watcher, subscriber, ZEP_STATE_ANY), STATUS_SUCCESS);
    ASSERT_EQ(Subscribe(subscriber, poster, 4), STATUS_SUCCESS);
    ASSERT_EQ(Subscribe(subscriber, poster, ZEP_STATE_ANY), STATUS_SUCCESS);
    std::vector<ULONG> atEntry;
    subscriber.onState = [&](const ZepState&, ULONG& response) {
        atEntry.push_back(response);
        if (atEntry.size() == 1) {
            response = 8;  // and the second callback leaves it alone
        }
    };
    watcher.deliveries.clear();
    ASSERT_EQ(Post(poster, 4), STATUS_SUCCESS);
    Deliver();
    EXPECT_EQ(atEntry, (std::vector<ULONG>{0, 0}));
    EXPECT_EQ(watcher.deliveries.size(), 1u);
}

TEST_P(Hangs, OfAPostFromInsideACallbackStopDelivery)
{
    DriverFixture fixture(GetParam(), {.records = false});
    Peer& poster = fixture.Join(1);
    Peer& subscriber = fixture.Join(2);
    ASSERT_EQ(fixture.Subscribe(subscriber, poster, 4), STATUS_SUCCESS);
    subscriber.onState = [&](const ZepState&, ULONG&) { (void)fixture.Post(subscriber, 1); };
    ASSERT_EQ(fixture.Post(poster, 4), STATUS_SUCCESS);
    const auto result = fixture.machine.RunWorkItems();
    ASSERT_EQ(result.parked.size(), 1u);
    EXPECT_TRUE(Has(result.parked[0].reason, "(wdfWaitLockClientsCollection), which it holds itself"));
    const auto selfWaits = fixture.machine.violations().Take(Rule::kSelfWait);
    ASSERT_EQ(selfWaits.size(), 1u);
    // Through the driver, the subscriber here and the driver again, with source lines and what is inlined.
    const std::string path = selfWaits[0].PathText();
    EXPECT_TRUE(std::regex_search(
        path, std::regex("!NotifierEvtWorkItemNotifyStates \\(states\\.cpp:[0-9]+\\).*!DeliverToClient \\(states\\.cpp:[0-9]+"
                         "\\).*!Notifier_HelperSendState \\(state_posting\\.cpp:[0-9]+\\).*wait lock #[0-9]+ "
                         "\\(wdfWaitLockClientsCollection\\), which this thread holds since [^ ]+!"
                         "NotifierEvtWorkItemNotifyStates \\(states\\.cpp:[0-9]+\\)$")))
        << path;
    // Everybody else waits with it.
    EXPECT_TRUE(fixture.machine.OnThread("client", [&] { (void)fixture.Post(poster, 5); }).parked);
    EXPECT_TRUE(fixture.driver->HasDevice());
    fixture.driver->SurpriseRemoveDevice();
    EXPECT_TRUE(fixture.driver->RemoveDevice().parked);
    EXPECT_GE(fixture.machine.violations().Take(Rule::kDeadlock).size(), 2u);
    fixture.Abandon();
}

// The call throws, through the driver.
TEST_P(Hangs, OnTheTestsOwnThreadFailTheirCaseAlone)
{
    for (const bool again : {false, true}) {
        SCOPED_TRACE(again);
        DriverFixture fixture(GetParam(), {.records = false});
        Peer& poster = fixture.Join(1);
        Peer& subscriber = fixture.Join(2);
        ASSERT_EQ(fixture.Post(poster, 4), STATUS_SUCCESS);
        subscriber.onState = [&](const ZepState&, ULONG&) { (void)fixture.Post(subscriber, 1); };
        EXPECT_THROW((void)fixture.Subscribe(subscriber, poster, ZEP_STATE_ANY), host::Hang);
        EXPECT_EQ(fixture.machine.violations().Take(Rule::kSelfWait).size(), 1u);
        fixture.Abandon();
    }
}

// How the delivery of commands can stop for good.
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
