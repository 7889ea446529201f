// The road of a state: posting, delivery in order, answers, and what every failure on the way leaves behind.
#include "tests/kit/world.h"

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
    World world(GetParam());
    Peer poster(1);
    Peer subscriber(2);
    ASSERT_EQ(world.Register(poster), STATUS_SUCCESS);
    ASSERT_EQ(world.Register(subscriber), STATUS_SUCCESS);
    ASSERT_EQ(world.Subscribe(subscriber, poster, 4), STATUS_SUCCESS);
    const ZepState odd{.Size = 0xDEAD, .InterfaceGUID = poster.guid, .State = 4, .Reserved = 0x77};
    ASSERT_EQ(world.helper.Notifier_HelperSendState(&odd), STATUS_SUCCESS);
    EXPECT_TRUE(subscriber.deliveries.empty());
    EXPECT_EQ(world.Client(poster)->currentState, 4u);
    EXPECT_EQ(world.Count(world.Context().states), 1u);
    EXPECT_EQ(world.Queued(), 2u) << "the announcement and the delivery";

    world.Deliver();
    ASSERT_EQ(subscriber.deliveries.size(), 1u);
    EXPECT_EQ(memcmp(&subscriber.deliveries[0], &odd, sizeof(odd)), 0) << "the whole record, Size unchecked";
    EXPECT_EQ(subscriber.responsesAtEntry[0], 0u);
    EXPECT_EQ(world.Alive(kStateContextName), 0u);
}

TEST_P(States, DeliveryIsInOrderOfPostingThenClientsThenSubscriptions)
{
    World world(GetParam());
    Peer poster(1);
    Peer early(2);
    Peer late(3);
    std::vector<std::string> calls;
    const auto log = [&calls](const char* who) {
        return [&calls, who](const ZepState& state, ULONG&) { calls.push_back(who + std::to_string(state.State)); };
    };
    early.onState = log("early ");
    late.onState = log("late ");
    for (Peer* peer : {&poster, &early, &late}) {
        ASSERT_EQ(world.Register(*peer), STATUS_SUCCESS);
    }
    ASSERT_EQ(world.Subscribe(late, poster, 4), STATUS_SUCCESS);
    ASSERT_EQ(world.Subscribe(early, poster, 4), STATUS_SUCCESS);
    ASSERT_EQ(world.Subscribe(early, poster, 4), STATUS_SUCCESS);  // called twice
    ASSERT_EQ(world.Subscribe(early, poster, 5), STATUS_SUCCESS);
    ASSERT_EQ(world.Subscribe(poster, poster, 4), STATUS_SUCCESS);  // never told of itself
    for (const ULONG state : {4u, 5u, 4u, 6u}) {
        ASSERT_EQ(world.Post(poster, state), STATUS_SUCCESS);
    }
    world.Deliver();
    EXPECT_EQ(calls,
              (std::vector<std::string>{"early 4", "early 4", "late 4", "early 5", "early 4", "early 4", "late 4"}));
    EXPECT_TRUE(poster.deliveries.empty());
    EXPECT_EQ(world.TakeReports().back(), "10 NotifierEvtWorkItemNotifyStates: <states>")
        << "a run ends with the empty queue, at error level";
}

TEST_P(States, AnyStateSubscriptionGetsEveryStateEvenTen)
{
    World world(GetParam());
    Peer poster(1);
    Peer subscriber(2);
    ASSERT_EQ(world.Register(poster), STATUS_SUCCESS);
    ASSERT_EQ(world.Register(subscriber), STATUS_SUCCESS);
    ASSERT_EQ(world.Post(poster, 1), STATUS_SUCCESS);
    world.Deliver();
    ASSERT_EQ(world.Subscribe(subscriber, poster, ZEP_STATE_ANY), STATUS_SUCCESS);
    for (const ULONG state : {10u, 0u, 0xFFFFFFFFu}) {
        ASSERT_EQ(world.Post(poster, state), STATUS_SUCCESS);
    }
    world.Deliver();
    EXPECT_EQ(StatesOf(subscriber), (std::vector<ULONG>{1, 10, 0, 0xFFFFFFFF}));
}

TEST_P(States, AnswersAreDeliveredInTheSameRunBehindAllOthersWithSizeZero)
{
    World world(GetParam());
    Peer poster(1);
    Peer answering(2);
    Peer watcher(3);
    for (Peer* peer : {&poster, &answering, &watcher}) {
        ASSERT_EQ(world.Register(*peer), STATUS_SUCCESS);
    }
    ASSERT_EQ(world.Post(answering, 1), STATUS_SUCCESS);
    world.Deliver();
    ASSERT_EQ(world.Subscribe(answering, poster, 4), STATUS_SUCCESS);
    ASSERT_EQ(world.Subscribe(watcher, poster, ZEP_STATE_ANY), STATUS_SUCCESS);
    ASSERT_EQ(world.Subscribe(watcher, answering, 8), STATUS_SUCCESS);
    watcher.deliveries.clear();
    ULONG seenState = 0;
    answering.onState = [&](const ZepState&, ULONG& response) { response = 8; };
    watcher.onState = [&](const ZepState&, ULONG&) { seenState = world.Client(answering)->currentState; };
    const std::size_t addQueueBefore = world.Count(world.Context().addQueue);
    ASSERT_EQ(world.Post(poster, 4), STATUS_SUCCESS);
    ASSERT_EQ(world.Post(poster, 5), STATUS_SUCCESS);
    (void)world.machine.RunOneWorkItem();  // the announcement
    (void)world.machine.RunOneWorkItem();  // one delivery run
    EXPECT_EQ(StatesOf(watcher), (std::vector<ULONG>{4, 5, 8}));
    EXPECT_EQ(watcher.deliveries[2].Size, 0u);
    EXPECT_EQ(seenState, 8u) << "the answer is the state at once";
    EXPECT_EQ(world.Count(world.Context().addQueue), addQueueBefore) << "no announcement for an answer";
    EXPECT_EQ(world.Queued(), 1u) << "the answer enqueued one more run";
    (void)world.TakeReports();
    world.Deliver();
    EXPECT_EQ(world.TakeReports(), (Lines{"10 NotifierEvtWorkItemNotifyStates: <states>"}));
}

TEST_P(States, ZeroAnswerChangesNothing)
{
    World world(GetParam());
    Peer poster(1);
    Peer subscriber(2);
    ASSERT_EQ(world.Register(poster), STATUS_SUCCESS);
    ASSERT_EQ(world.Register(subscriber), STATUS_SUCCESS);
    ASSERT_EQ(world.Post(subscriber, 3), STATUS_SUCCESS);
    ASSERT_EQ(world.Subscribe(subscriber, poster, 4), STATUS_SUCCESS);
    subscriber.onState = [](const ZepState&, ULONG& response) { response = 0; };
    ASSERT_EQ(world.Post(poster, 4), STATUS_SUCCESS);
    world.Deliver();
    EXPECT_EQ(subscriber.deliveries.size(), 1u);
    EXPECT_EQ(world.Client(subscriber)->currentState, 3u);
}

TEST_P(States, OfAClientThatLeftAreStillDeliveredAndThenGone)
{
    World world(GetParam());
    Peer poster(1);
    Peer subscriber(2);
    ASSERT_EQ(world.Register(poster), STATUS_SUCCESS);
    ASSERT_EQ(world.Register(subscriber), STATUS_SUCCESS);
    ASSERT_EQ(world.Subscribe(subscriber, poster, 4), STATUS_SUCCESS);
    ASSERT_EQ(world.Post(poster, 4), STATUS_SUCCESS);
    ASSERT_EQ(world.Post(poster, 4), STATUS_SUCCESS);
    ASSERT_EQ(world.Leave(poster), STATUS_SUCCESS);
    EXPECT_EQ(world.Alive(kStateContextName), 2u);
    world.Deliver();
    EXPECT_EQ(subscriber.deliveries.size(), 2u);
    EXPECT_EQ(world.Alive(kStateContextName), 0u);
}

TEST_P(States, PostFromInsideACallbackWaitsForItselfForEver)
{
    World world(GetParam(), {.records = false});
    Peer poster(1);
    Peer subscriber(2);
    ASSERT_EQ(world.Register(poster), STATUS_SUCCESS);
    ASSERT_EQ(world.Register(subscriber), STATUS_SUCCESS);
    ASSERT_EQ(world.Subscribe(subscriber, poster, 4), STATUS_SUCCESS);
    subscriber.onState = [&](const ZepState&, ULONG&) { (void)world.Post(subscriber, 1); };
    ASSERT_EQ(world.Post(poster, 4), STATUS_SUCCESS);
    const auto result = world.machine.RunWorkItems();
    ASSERT_EQ(result.parked.size(), 1u);
    EXPECT_EQ(world.machine.violations().Take(host::checks::Rule::kSelfWait).size(), 1u);
    // Everybody else waits with it.
    EXPECT_TRUE(world.machine.OnThread("client", [&] { (void)world.Post(poster, 5); }).parked);
    EXPECT_TRUE(world.driver->HasDevice());
    world.driver->SurpriseRemoveDevice();
    EXPECT_TRUE(world.driver->RemoveDevice().parked);
    EXPECT_GE(world.machine.violations().Take(host::checks::Rule::kDeadlock).size(), 2u);
    world.Abandon();
}

}  // namespace
}  // namespace tests
