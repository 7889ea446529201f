// The road of a state: posting, delivery in order, answers, and what every failure on the way leaves behind.
#include "tests/support/world.h"

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

TEST_P(States, RefusedPostsChangeNothing)
{
    World world(GetParam());
    Peer stranger(0x99);
    EXPECT_EQ(world.helper.Notifier_HelperSendState(nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(world.Post(stranger, 1), STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(world.TakeReports(), (Lines{"2 Notifier_HelperSendState: ZepState is NULL, 0xC000000D",
                                          "12 Notifier_HelperSendState: Unable to find client with , "
                                          "{00000099-1111-2222-0102-030405060708}, 0xC0000010"}));
    EXPECT_EQ(world.Queued(), 0u);
    EXPECT_EQ(world.Alive(kStateContextName), 0u);
}

TEST_P(States, EveryFailureOfAPostLeavesExactlyWhatItMust)
{
    struct Row {
        const char* name;
        std::function<void(World&)> arm;
        NTSTATUS status;
        std::string report;
        ULONG recordedState;
        std::size_t addQueue;
    };
    const std::string kPost = "Notifier_HelperSendState: ";
    const Row kRows[] = {
        {"no context", [](World& w) { w.Lose("WdfObjectGetTypedContextWorker", kDriverContextName); },
         STATUS_IO_DEVICE_ERROR, "7 " + kPost + "Driver object context, <driver>, 0xC0000185", 0, 0},
        {"no driver", [](World& w) { w.HideDriver(); }, STATUS_IO_DEVICE_ERROR,
         "2 " + kPost + "WdfGetDriver returned NULL?!, 0xC0000185", 0, 0},
        {"general lock", [](World& w) { w.Fail("WdfWaitLockAcquire", STATUS_TIMEOUT, 1); }, STATUS_TIMEOUT,
         "1 " + kPost + "WdfWaitLockAcquire (general lock), 0x00000102", 0, 0},
        {"clients lock", [](World& w) { w.Fail("WdfWaitLockAcquire", STATUS_UNSUCCESSFUL, 2); }, STATUS_UNSUCCESSFUL,
         "1 " + kPost + "WdfWaitLockAcquire for wdfWaitLockClientsCollection, 0xC0000001", 5, 0},
        {"add queue", [](World& w) { w.Fail("WdfCollectionAdd", STATUS_UNSUCCESSFUL); }, STATUS_UNSUCCESSFUL,
         "1 " + kPost + "WdfCollectionAdd for wdfCollectionWpcdClientAddQueue, 0xC0000001", 5, 0},
        {"object", [](World& w) { w.Fail("WdfObjectCreate", STATUS_NO_MEMORY); }, STATUS_NO_MEMORY,
         "1 " + kPost + "WdfObjectCreate, 0xC0000017", 5, 1},
        {"state context", [](World& w) { w.Lose("WdfObjectGetTypedContextWorker", kStateContextName); },
         STATUS_IO_DEVICE_ERROR, "7 " + kPost + "Client state context, <gone>, 0xC0000185", 5, 1},
        {"states lock", [](World& w) { w.Fail("WdfWaitLockAcquire", STATUS_TIMEOUT, 3); }, STATUS_TIMEOUT,
         "1 " + kPost + "WdfWaitLockAcquire for wdfWaitLockStatesCollection, 0x00000102", 5, 1},
        {"states", [](World& w) { w.Fail("WdfCollectionAdd", STATUS_UNSUCCESSFUL, 1); }, STATUS_UNSUCCESSFUL,
         "1 " + kPost + "WdfCollectionAdd for wdfCollectionZepStates, 0xC0000001", 5, 1},
        {"states, success class", [](World& w) { w.Fail("WdfCollectionAdd", STATUS_PENDING, 1); }, STATUS_PENDING,
         "1 " + kPost + "WdfCollectionAdd for wdfCollectionZepStates, 0x00000103", 5, 1},
    };
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.name);
        World world(GetParam());
        Peer poster(1);
        ASSERT_EQ(world.Register(poster), STATUS_SUCCESS);
        row.arm(world);
        EXPECT_EQ(world.Post(poster, 5), row.status);
        world.EndFaults();
        EXPECT_EQ(world.TakeReports(), Lines{row.report});
        EXPECT_EQ(world.Client(poster)->currentState, row.recordedState);
        EXPECT_EQ(world.Count(world.Context().addQueue), row.addQueue);
        EXPECT_EQ(world.Queued(), row.addQueue) << "only the announcement";
        EXPECT_EQ(world.Alive(kStateContextName), 0u);
        EXPECT_EQ(world.Post(poster, 6), STATUS_SUCCESS);
    }
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

TEST_P(States, EveryFailureOfADeliveryEndsTheRunAsItMust)
{
    struct Row {
        const char* name;
        std::function<void(World&)> arm;
        Lines reports;
        unsigned delivered;        // to the first subscriber
        std::size_t queuedStates;  // left in the queue
        std::size_t aliveStates;   // left alive, with their clients
    };
    const std::string kRun = "NotifierEvtWorkItemNotifyStates: ";
    const std::string empty = "10 " + kRun + "<states>";
    // Two states are queued; the first subscriber answers the first of them. Both clients are subscribed to both.
    const Row kRows[] = {
        {"no driver", [](World& w) { w.HideDriver(); }, {"13 " + kRun + "WdfGetDriver returned NULL?!"}, 0, 2, 2},
        {"no driver context",
         [](World& w) { w.Lose("WdfObjectGetTypedContextWorker", kDriverContextName); },
         {"13 " + kRun + "Driver context is NULL?!"}, 0, 2, 2},
        {"item lock",
         [](World& w) { w.Fail("WdfWaitLockAcquire", STATUS_TIMEOUT); },
         {"1 " + kRun + "WdfWaitLockAcquire for wdfWaitLockNotifyStatesWorkItem, 0x00000102"}, 0, 2, 2},
        {"clients lock",
         [](World& w) { w.Fail("WdfWaitLockAcquire", STATUS_UNSUCCESSFUL, 1); },
         {"1 " + kRun + "WdfWaitLockAcquire for wdfWaitLockClientsCollection, 0xC0000001"}, 0, 2, 2},
        {"states lock",
         [](World& w) { w.Fail("WdfWaitLockAcquire", STATUS_UNSUCCESSFUL, 2); },
         {"1 " + kRun + "WdfWaitLockAcquire for wdfWaitLockStatesCollection, 0xC0000001"}, 0, 2, 2},
        {"state context",
         [](World& w) { w.Lose("WdfObjectGetTypedContextWorker", kStateContextName); },
         {"6 " + kRun + "State context, <object>"}, 0, 2, 2},
        {"client item",
         [](World& w) { w.Lose("WdfCollectionGetItem"); },
         {"5 " + kRun + "WdfCollectionGetItem, 0, <clients>, 3"}, 0, 1, 2},
        {"client context",
         [](World& w) { w.Lose("WdfObjectGetTypedContextWorker", kClientContextName, 1); },
         {"6 " + kRun + "Client context, <object>"}, 0, 1, 2},
        {"registration item",
         [](World& w) { w.Lose("WdfCollectionGetItem", "", 2); },
         {"5 " + kRun + "WdfCollectionGetItem, 0, <collection>, 1"}, 0, 1, 2},
        {"registration context",
         [](World& w) { w.Lose("WdfObjectGetTypedContextWorker", kRegistrationContextName); },
         {"6 " + kRun + "State notification context, <object>"}, 0, 1, 2},
        {"answer object",
         [](World& w) { w.Fail("WdfObjectCreate", STATUS_NO_MEMORY); },
         {"1 " + kRun + "WdfObjectCreate for state notification, 0xC0000017"}, 1, 1, 2},
        {"answer context",
         [](World& w) { w.Lose("WdfObjectGetTypedContextWorker", kStateContextName, 1); },
         {"6 " + kRun + "State context, <gone>"}, 1, 1, 2},
        {"answer lock",
         [](World& w) { w.Fail("WdfWaitLockAcquire", STATUS_TIMEOUT, 3); },
         {"1 " + kRun + "WdfWaitLockAcquire for wdfWaitLockStatesCollection,, 0x00000102"}, 1, 1, 2},
        // Only a refused append is passed over.
        {"answer append",
         [](World& w) { w.Fail("WdfCollectionAdd", STATUS_UNSUCCESSFUL); },
         {"1 " + kRun + "WdfCollectionAdd for wdfCollectionZepStates, 0xC0000001", empty}, 2, 0, 0},
    };
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.name);
        World world(GetParam());
        Peer poster(1);
        Peer first(2);
        Peer second(3);
        for (Peer* peer : {&poster, &first, &second}) {
            ASSERT_EQ(world.Register(*peer), STATUS_SUCCESS);
        }
        ASSERT_EQ(world.Post(poster, 1), STATUS_SUCCESS);
        world.Deliver();
        for (Peer* peer : {&first, &second}) {
            ASSERT_EQ(world.Subscribe(*peer, poster, ZEP_STATE_ANY), STATUS_SUCCESS);
            peer->deliveries.clear();
        }
        first.onState = [](const ZepState& state, ULONG& response) { response = state.State == 4 ? 9 : 0; };
        ASSERT_EQ(world.Post(poster, 4), STATUS_SUCCESS);
        ASSERT_EQ(world.Post(poster, 5), STATUS_SUCCESS);
        (void)world.machine.RunOneWorkItem();  // the announcement
        (void)world.TakeReports();
        row.arm(world);
        const auto run = world.machine.RunOneWorkItem();
        EXPECT_EQ(run.runs, 1u);
        EXPECT_TRUE(run.parked.empty());
        world.EndFaults();
        EXPECT_EQ(world.TakeReports(), row.reports);
        EXPECT_EQ(first.deliveries.size(), row.delivered);
        EXPECT_EQ(world.Count(world.Context().states), row.queuedStates);
        EXPECT_EQ(world.Alive(kStateContextName), row.aliveStates);

        // The locks are free, and the next post delivers what is left.
        ASSERT_EQ(world.Post(poster, 6), STATUS_SUCCESS);
        world.Deliver();
        EXPECT_EQ(second.deliveries.back().State, 6u);
        EXPECT_EQ(world.Count(world.Context().states), 0u);
        ASSERT_EQ(world.Leave(poster), STATUS_SUCCESS);
        EXPECT_EQ(world.Alive(kStateContextName), 0u) << "an undeleted state goes with its client";
    }
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
