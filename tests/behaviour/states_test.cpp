// The delivery path of a state: posting, delivery in order, answers.
#include "tests/kit/driver_fixture.h"

#include <regex>

namespace tests {
namespace {

class States : public OnContainer {};
FOR_ALL_CONTAINERS(States);

std::vector<ULONG> StatesOf(const Peer& peer)
{
    std::vector<ULONG> states;
    for (const ZepState& state : peer.deliveries) {
        states.push_back(state.State);
    }
    return states;
}

TEST_P(States, PostRecordsQueuesAndReturnsWithoutDelivering)
{
    DriverFixture fixture(GetParam());
    Peer& poster = fixture.Join(1);
    Peer& subscriber = fixture.Join(2);
    ASSERT_EQ(fixture.Subscribe(subscriber, poster, 4), STATUS_SUCCESS);
    const ZepState odd{.Size = 0xDEAD, .InterfaceGUID = poster.guid, .State = 4, .Reserved = 0x77};
    ASSERT_EQ(fixture.helper.Notifier_HelperSendState(&odd), STATUS_SUCCESS);
    EXPECT_TRUE(subscriber.deliveries.empty());
    EXPECT_EQ(fixture.Client(poster)->currentState, 4u);
    EXPECT_EQ(fixture.Count(fixture.Context().states), 1u);
    EXPECT_EQ(fixture.Queued(), 2u) << "the announcement and the delivery";

    fixture.Deliver();
    ASSERT_EQ(subscriber.deliveries.size(), 1u);
    EXPECT_EQ(memcmp(&subscriber.deliveries[0], &odd, sizeof(odd)), 0) << "the whole record, Size unchecked";
    EXPECT_EQ(subscriber.responsesAtEntry[0], 0u);
    EXPECT_EQ(fixture.Alive(kStateContextName), 0u);
}

TEST_P(States, DeliveryIsInOrderOfPostingThenClientsThenSubscriptions)
{
    DriverFixture fixture(GetParam());
    Peer& poster = fixture.Join(1);
    Peer& early = fixture.Join(2);
    Peer& late = fixture.Join(3);
    std::vector<std::string> calls;
    const auto log = [&calls](const char* who) {
        return [&calls, who](const ZepState& state, ULONG&) { calls.push_back(who + std::to_string(state.State)); };
    };
    early.onState = log("early ");
    late.onState = log("late ");
    ASSERT_EQ(fixture.Subscribe(late, poster, 4), STATUS_SUCCESS);
    ASSERT_EQ(fixture.Subscribe(early, poster, 4), STATUS_SUCCESS);
    ASSERT_EQ(fixture.Subscribe(early, poster, 4), STATUS_SUCCESS);  // called twice
    ASSERT_EQ(fixture.Subscribe(early, poster, 5), STATUS_SUCCESS);
    ASSERT_EQ(fixture.Subscribe(poster, poster, 4), STATUS_SUCCESS);  // never notified of itself
    for (const ULONG state : {4u, 5u, 4u, 6u}) {
        ASSERT_EQ(fixture.Post(poster, state), STATUS_SUCCESS);
    }
    fixture.Deliver();
    EXPECT_EQ(calls,
              (std::vector<std::string>{"early 4", "early 4", "late 4", "early 5", "early 4", "early 4", "late 4"}));
    EXPECT_TRUE(poster.deliveries.empty());
    EXPECT_EQ(fixture.TakeReports().back(), "10 NotifierEvtWorkItemNotifyStates: <states>")
        << "a run ends with the empty queue, at error level";
}

TEST_P(States, AnswersAreDeliveredInTheSameRunBehindAllOthersWithSizeZero)
{
    DriverFixture fixture(GetParam());
    Peer& poster = fixture.Join(1);
    Peer& answering = fixture.Join(2);
    Peer& watcher = fixture.Join(3);
    ASSERT_EQ(fixture.Post(answering, 1), STATUS_SUCCESS);
    fixture.Deliver();
    ASSERT_EQ(fixture.Subscribe(answering, poster, 4), STATUS_SUCCESS);
    ASSERT_EQ(fixture.Subscribe(watcher, poster, ZEP_STATE_ANY), STATUS_SUCCESS);
    ASSERT_EQ(fixture.Subscribe(watcher, answering, 8), STATUS_SUCCESS);
    watcher.deliveries.clear();
    ULONG seenState = 0;
    answering.onState = [&](const ZepState&, ULONG& response) { response = 8; };
    watcher.onState = [&](const ZepState&, ULONG&) { seenState = fixture.Client(answering)->currentState; };
    const std::size_t addQueueBefore = fixture.Count(fixture.Context().addQueue);
    ASSERT_EQ(fixture.Post(poster, 4), STATUS_SUCCESS);
    ASSERT_EQ(fixture.Post(poster, 5), STATUS_SUCCESS);
    (void)fixture.machine.RunOneWorkItem();  // the announcement
    (void)fixture.machine.RunOneWorkItem();  // one delivery run
    EXPECT_EQ(StatesOf(watcher), (std::vector<ULONG>{4, 5, 8}));
    EXPECT_EQ(watcher.deliveries[2].Size, 0u);
    EXPECT_EQ(seenState, 8u) << "the answer is the state at once";
    EXPECT_EQ(fixture.Count(fixture.Context().addQueue), addQueueBefore) << "no announcement for an answer";
    EXPECT_EQ(fixture.Queued(), 1u) << "the answer enqueued one more run";
    (void)fixture.TakeReports();
    fixture.Deliver();
    EXPECT_EQ(fixture.TakeReports(), (Lines{"10 NotifierEvtWorkItemNotifyStates: <states>"}));
}

TEST_P(States, PostFromInsideACallbackHangs)
{
    DriverFixture fixture(GetParam(), {.records = false});
    Peer& poster = fixture.Join(1);
    Peer& subscriber = fixture.Join(2);
    ASSERT_EQ(fixture.Subscribe(subscriber, poster, 4), STATUS_SUCCESS);
    subscriber.onState = [&](const ZepState&, ULONG&) { (void)fixture.Post(subscriber, 1); };
    ASSERT_EQ(fixture.Post(poster, 4), STATUS_SUCCESS);
    const auto result = fixture.machine.RunWorkItems();
    ASSERT_EQ(result.parked.size(), 1u);
    EXPECT_NE(result.parked[0].reason.find("(wdfWaitLockClientsCollection), which it holds itself"), std::string::npos)
        << result.parked[0].reason;
    const auto selfWaits = fixture.machine.violations().Take(host::checks::Rule::kSelfWait);
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
    EXPECT_GE(fixture.machine.violations().Take(host::checks::Rule::kDeadlock).size(), 2u);
    fixture.Abandon();
}

// The call throws, through the driver.
TEST_P(States, HangOnTheTestsOwnThreadFailsItsCaseAlone)
{
    for (const bool again : {false, true}) {
        SCOPED_TRACE(again);
        DriverFixture fixture(GetParam(), {.records = false});
        Peer poster(1);
        ASSERT_EQ(fixture.Register(poster), STATUS_SUCCESS);
        ASSERT_EQ(fixture.Post(poster, 4), STATUS_SUCCESS);
        Peer subscriber(2);
        ASSERT_EQ(fixture.Register(subscriber), STATUS_SUCCESS);
        subscriber.onState = [&](const ZepState&, ULONG&) { (void)fixture.Post(subscriber, 1); };
        EXPECT_THROW((void)fixture.Subscribe(subscriber, poster, ZEP_STATE_ANY), host::Hang);
        EXPECT_EQ(fixture.machine.violations().Take(host::checks::Rule::kSelfWait).size(), 1u);
        fixture.Abandon();
    }
}

}  // namespace
}  // namespace tests
