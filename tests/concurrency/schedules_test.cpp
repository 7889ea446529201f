// Schedules of client threads and delivery runs, one after the other: nothing is lost, nothing is delivered twice or
// out of its poster's order, statuses are those that some order of the calls gives, and the host finds nothing wrong.
#include "tests/concurrency/systematic.h"

namespace tests {
namespace {

class Schedules : public Systematic {};
FOR_ALL_CONTAINERS(Schedules);

TEST_P(Schedules, PostsOfTwoClientsAndTheirDelivery)
{
    Explore("two clients post, one run", [](ScheduledRun& run) {
        Peer& one = run.Join(1);
        Peer& two = run.Join(2);
        Peer& subscriber = run.JoinWatching(Peer(3), one, ZEP_STATE_ANY);
        EXPECT_EQ(run.Subscribe(subscriber, two, ZEP_STATE_ANY), STATUS_SUCCESS);
        run.AllThenDeliver({run.Posts(one, 5), run.Posts(two, 6), run.Delivers()});
        EXPECT_EQ(StatesFrom(subscriber, one), States{5});
        EXPECT_EQ(StatesFrom(subscriber, two), (States{0, 6}));  // at once, and posted
    });
}

TEST_P(Schedules, APostersOrderIsKeptWhileARunDelivers)
{
    Explore("posts while a run delivers", [](ScheduledRun& run) {
        Peer& poster = run.Join(1);
        Peer& subscriber = run.JoinWatching(Peer(2), poster, ZEP_STATE_ANY);
        EXPECT_EQ(run.Post(poster, 5), STATUS_SUCCESS);
        const auto postTwice = [&] {
            EXPECT_EQ(run.Post(poster, 6), STATUS_SUCCESS);
            EXPECT_EQ(run.Post(poster, 7), STATUS_SUCCESS);
        };
        run.AllThenDeliver({{"poster", postTwice}, run.Delivers()});
        EXPECT_EQ(StatesFrom(subscriber, poster), (States{5, 6, 7}));
    });
}

TEST_P(Schedules, SubscribingAndUnsubscribingWhileARunDelivers)
{
    Explore("subscribe while a run delivers", [](ScheduledRun& run) {
        Peer& poster = run.Join(1);
        Peer& subscriber = run.Join(2);
        EXPECT_EQ(run.Post(poster, 5), STATUS_SUCCESS);
        run.AllThenDeliver(
            {{"subscriber", [&] { EXPECT_EQ(run.Subscribe(subscriber, poster, ZEP_STATE_ANY), STATUS_SUCCESS); }},
             run.Delivers()});
        // Notified at once, and again by the run when that comes later.
        const States states = StatesFrom(subscriber, poster);
        EXPECT_TRUE(states == States{5} || states == (States{5, 5})) << states.size();
    });
    Explore("unsubscribe while a run delivers", [](ScheduledRun& run) {
        Peer& poster = run.Join(1);
        Peer& subscriber = run.JoinWatching(Peer(2), poster, 5);
        EXPECT_EQ(run.Post(poster, 5), STATUS_SUCCESS);
        run.All({{"subscriber", [&] { EXPECT_EQ(run.Unsubscribe(subscriber, poster, 5), STATUS_SUCCESS); }},
                 run.Delivers()});
        EXPECT_LE(StatesFrom(subscriber, poster).size(), 1u);
        subscriber.deliveries.clear();
        EXPECT_EQ(run.Post(poster, 5), STATUS_SUCCESS);
        run.Deliver();
        EXPECT_TRUE(subscriber.deliveries.empty());
    });
}

TEST_P(Schedules, LeavingWhileARunDelivers)
{
    Explore("subscriber leaves while a run delivers", [](ScheduledRun& run) {
        Peer& poster = run.Join(1);
        Peer& subscriber = run.JoinWatching(Peer(2), poster, 5);
        EXPECT_EQ(run.Post(poster, 5), STATUS_SUCCESS);
        bool hasLeft = false;
        subscriber.onState = [&](const ZepState&, ULONG&) {
            EXPECT_FALSE(hasLeft) << "notified after it had deregistered";
        };
        const auto leave = [&] {
            EXPECT_EQ(run.Leave(subscriber), STATUS_SUCCESS);
            hasLeft = true;
        };
        run.AllThenDeliver({{"subscriber", leave}, run.Delivers()});
        EXPECT_LE(subscriber.deliveries.size(), 1u);
        EXPECT_FALSE(run.Client(subscriber));
        EXPECT_TRUE(run.Client(poster));
    });
    Explore("poster leaves while its state is delivered", [](ScheduledRun& run) {
        Peer& poster = run.Join(1);
        Peer& subscriber = run.JoinWatching(Peer(2), poster, 5);
        EXPECT_EQ(run.Post(poster, 5), STATUS_SUCCESS);
        run.AllThenDeliver({run.Leaves(poster), run.Delivers()});
        EXPECT_EQ(subscriber.deliveries.size(), 1u);  // a queued state outlives its poster
    });
}

TEST_P(Schedules, RegisteringOneGuidTwiceAtOnce)
{
    Explore("one GUID registered twice", [](ScheduledRun& run) {
        Peer peer(1);
        NTSTATUS statuses[2] = {};
        run.All(
            {{"one", [&] { statuses[0] = run.Register(peer); }}, {"two", [&] { statuses[1] = run.Register(peer); }}});
        // On purpose: the look-up and the append are two steps, so both may succeed.
        unsigned registered = 0;
        for (const NTSTATUS status : statuses) {
            EXPECT_TRUE(status == STATUS_SUCCESS || status == STATUS_ZEP_NOTIFIER_ALREADY_REGISTERED) << status;
            registered += status == STATUS_SUCCESS ? 1 : 0;
        }
        EXPECT_GE(registered, 1u);
        for (unsigned client = 0; client < registered; ++client) {
            EXPECT_EQ(run.Leave(peer), STATUS_SUCCESS);
        }
        EXPECT_FALSE(run.Client(peer));
    });
}

TEST_P(Schedules, CommandsToEachOtherWhileARunDelivers)
{
    Explore("commands to each other", [](ScheduledRun& run) {
        Peer& one = run.Join(Peer(1).TakesCommands());
        Peer& two = run.Join(Peer(2).TakesCommands());
        run.AllThenDeliver({run.Sends(one, two, 7), run.Sends(two, one, 8), run.Delivers()});
        // One command a run, and a run for each enqueue; of two that were queued at once one stays.
        const std::size_t delivered = one.commands.size() + two.commands.size();
        const std::size_t waiting = run.Count(run.Context().commands);
        EXPECT_EQ(delivered + waiting, 2u);
        EXPECT_GE(delivered, 1u);
    });
}

TEST_P(Schedules, PostingWhileACommandLeavesTheStateAlone)
{
    Explore("post of a command's target", [](ScheduledRun& run) {
        Peer& sender = run.Join(1);
        Peer& target = run.Join(Peer(2).TakesCommands());
        EXPECT_EQ(run.Send(sender, target, 1), STATUS_SUCCESS);
        run.AllThenDeliver({run.Posts(target, 7), run.Delivers()});
        EXPECT_EQ(target.commands.size(), 1u);
        EXPECT_EQ(run.Client(target)->currentState, 7u) << "the command's end takes the post back";
    });
}

TEST_P(Schedules, PostingWhileASubscriberLeavesAndARunDelivers)
{
    Explore("post, leave and run", [](ScheduledRun& run) {
        Peer& poster = run.Join(1);
        Peer& leaving = run.JoinWatching(Peer(2), poster, 5);
        Peer& staying = run.JoinWatching(Peer(3), poster, 5);
        leaving.onState = [](const ZepState&, ULONG& response) { response = 9; };  // to be posted, perhaps too late
        run.AllThenDeliver({run.Posts(poster, 5), run.Leaves(leaving), run.Delivers()});
        EXPECT_EQ(StatesFrom(staying, poster), States{5});
        EXPECT_LE(leaving.deliveries.size(), 1u);
        EXPECT_EQ(run.Alive(kStateContextName), 0u);
        EXPECT_EQ(run.Count(run.Context().clients), 2u);
    });
}

TEST_P(Schedules, AClientLeavesWhileItIsAnnounced)
{
    Explore("client leaves while it is announced", [](ScheduledRun& run) {
        EXPECT_EQ(run.Attach(), STATUS_SUCCESS);
        Peer& peer = run.Join(1);
        EXPECT_EQ(run.Post(peer, 5), STATUS_SUCCESS);
        run.AllThenDeliver({run.Leaves(peer), run.Delivers()});
        EXPECT_LE(run.crashDump.added.size(), 1u);
        EXPECT_EQ(run.crashDump.removed.size(), run.crashDump.added.size())
            << "the crash-dump driver keeps a removed client, or is asked to remove an unknown one";
    });
}

TEST_P(Schedules, TheCrashDumpDriverDetachesWhileAClientIsAnnouncedAndLeaves)
{
    Explore("detach, leave and announcement", [](ScheduledRun& run) {
        EXPECT_EQ(run.Attach(), STATUS_SUCCESS);
        Peer& peer = run.Join(1);
        EXPECT_EQ(run.Post(peer, 5), STATUS_SUCCESS);
        std::size_t addedAtDetach = 0;
        std::size_t removedAtDetach = 0;
        const auto detach = [&] {
            EXPECT_EQ(run.Detach(), STATUS_SUCCESS);
            addedAtDetach = run.crashDump.added.size();
            removedAtDetach = run.crashDump.removed.size();
        };
        run.AllThenDeliver({{"crash dump", detach}, run.Leaves(peer), run.Delivers()});
        EXPECT_EQ(run.crashDump.added.size(), addedAtDetach) << "called when it had detached";
        EXPECT_EQ(run.crashDump.removed.size(), removedAtDetach) << "called when it had detached";
        EXPECT_LE(removedAtDetach, addedAtDetach);
        EXPECT_EQ(run.Context().wpcdClient, nullptr);
        EXPECT_EQ(run.Count(run.Context().clients), 0u);
        EXPECT_EQ(run.Alive(kClientContextName), 0u);
    });
}

TEST_P(Schedules, AClientPostsNoStateWhileItIsAnnounced)
{
    Explore("client posts no state while it is announced", [](ScheduledRun& run) {
        EXPECT_EQ(run.Attach(), STATUS_SUCCESS);
        Peer& peer = run.Join(1);
        EXPECT_EQ(run.Post(peer, 0), STATUS_SUCCESS);
        run.AllThenDeliver({run.Posts(peer, 0), run.Delivers()});
        EXPECT_EQ(run.Client(peer)->wpcdRefreshPending, 1u) << "its first state would not be announced";
    });
}

TEST_P(Schedules, TheBroadcastAmongPosts)
{
    Explore("broadcast, post and run", [](ScheduledRun& run) {
        Peer& answering = run.Join(Peer(1).WantsAppsState());
        Peer& subscriber = run.JoinWatching(Peer(2), answering, ZEP_STATE_ANY);
        answering.onAppsState = [](ULONG& state) { state = 9; };
        run.AllThenDeliver({{"power", [&] { run.machine.NotifyPowerState(PO_CB_SYSTEM_STATE_LOCK, 0); }},
                            run.Posts(answering, 5),
                            run.Delivers()});
        States states = StatesFrom(subscriber, answering);
        std::sort(states.begin(), states.end());
        EXPECT_EQ(states, (States{5, 9}));
    });
}

// A client that may deregister at any time leaves the states alone that it could answer with, and posts what it wants
// itself, on the thread that deregisters.
TEST_P(Schedules, AClientThatPostsInsteadOfAnsweringLeavesAtAnyTime)
{
    Explore("broadcast, own post and leaving", [](ScheduledRun& run) {
        Peer& answering = run.Join(Peer(1).WantsAppsState());
        Peer& leaving = run.Join(Peer(2).WantsAppsState());
        Peer& subscriber = run.JoinWatching(Peer(3), leaving, 8);
        answering.onAppsState = [](ULONG& state) { state = 9; };
        bool hasPosted = false;
        const auto postAndLeave = [&] {
            hasPosted = leaving.appsStateCalls != 0;
            if (hasPosted) {
                EXPECT_EQ(run.Post(leaving, 8), STATUS_SUCCESS);
            }
            EXPECT_EQ(run.Leave(leaving), STATUS_SUCCESS);
        };
        run.AllThenDeliver(
            {{"power", [&] { run.machine.NotifyPowerState(PO_CB_SYSTEM_STATE_LOCK, 0); }}, {"client", postAndLeave}});
        EXPECT_EQ(answering.appsStateCalls, 1u);
        EXPECT_LE(leaving.appsStateCalls, 1u);
        EXPECT_EQ(run.Client(answering)->currentState, 9u);
        EXPECT_EQ(subscriber.deliveries.size(), hasPosted ? 1u : 0u);
    });
    Explore("command, own post and leaving", [](ScheduledRun& run) {
        Peer& sender = run.Join(1);
        Peer& leaving = run.Join(Peer(2).TakesCommands());
        Peer& subscriber = run.JoinWatching(Peer(3), leaving, 8);
        EXPECT_EQ(run.Send(sender, leaving, 7), STATUS_SUCCESS);
        bool hasPosted = false;
        const auto postAndLeave = [&] {
            hasPosted = !leaving.commands.empty();
            if (hasPosted) {  // the command is delivered: nothing else is under way
                EXPECT_EQ(run.Post(leaving, 8), STATUS_SUCCESS);
                EXPECT_EQ(run.Leave(leaving), STATUS_SUCCESS);
            }
        };
        run.AllThenDeliver({run.Delivers(), {"client", postAndLeave}});
        EXPECT_EQ(leaving.commands.size(), 1u);
        EXPECT_EQ(subscriber.deliveries.size(), hasPosted ? 1u : 0u);
        EXPECT_EQ(run.Count(run.Context().clients), hasPosted ? 2u : 3u);
    });
}

}  // namespace
}  // namespace tests
