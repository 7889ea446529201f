// Interleavings of client threads and delivery runs, one after the other: nothing is lost, nothing is delivered twice or
// out of its poster's order, statuses are those that some order of the calls gives, and the host finds nothing wrong.
#include "tests/concurrency/explored.h"

namespace tests {
namespace {

class Interleavings : public Explored {};
FOR_ALL_CONTAINERS(Interleavings);

TEST_P(Interleavings, PostsOfTwoClientsAndTheirDelivery)
{
    Explore("two clients post, one run", [](World& world, Explorer& explorer) {
        Peer one(1);
        Peer two(2);
        Peer subscriber(3);
        RegisterAll(world, {&one, &two, &subscriber});
        EXPECT_EQ(world.Subscribe(subscriber, one, ZEP_STATE_ANY), STATUS_SUCCESS);
        EXPECT_EQ(world.Subscribe(subscriber, two, ZEP_STATE_ANY), STATUS_SUCCESS);
        subscriber.deliveries.clear();
        RunAll(world, explorer,
               {{"one", [&] { EXPECT_EQ(world.Post(one, 5), STATUS_SUCCESS); }},
                {"two", [&] { EXPECT_EQ(world.Post(two, 6), STATUS_SUCCESS); }},
                {"run", [&] { world.Deliver(); }}});
        world.Deliver();
        EXPECT_EQ(StatesFrom(subscriber, one), States{5});
        EXPECT_EQ(StatesFrom(subscriber, two), States{6});
    });
}

TEST_P(Interleavings, APostersOrderIsKeptWhileARunDelivers)
{
    Explore("posts while a run delivers", [](World& world, Explorer& explorer) {
        Peer poster(1);
        Peer subscriber(2);
        RegisterAll(world, {&poster, &subscriber});
        EXPECT_EQ(world.Subscribe(subscriber, poster, ZEP_STATE_ANY), STATUS_SUCCESS);
        subscriber.deliveries.clear();
        EXPECT_EQ(world.Post(poster, 5), STATUS_SUCCESS);
        RunAll(world, explorer,
               {{"poster",
                 [&] {
                     EXPECT_EQ(world.Post(poster, 6), STATUS_SUCCESS);
                     EXPECT_EQ(world.Post(poster, 7), STATUS_SUCCESS);
                 }},
                {"run", [&] { world.Deliver(); }}});
        world.Deliver();
        EXPECT_EQ(StatesFrom(subscriber, poster), (States{5, 6, 7}));
    });
}

TEST_P(Interleavings, SubscribingAndUnsubscribingWhileARunDelivers)
{
    Explore("subscribe while a run delivers", [](World& world, Explorer& explorer) {
        Peer poster(1);
        Peer subscriber(2);
        RegisterAll(world, {&poster, &subscriber});
        EXPECT_EQ(world.Post(poster, 5), STATUS_SUCCESS);
        RunAll(world, explorer,
               {{"subscriber", [&] { EXPECT_EQ(world.Subscribe(subscriber, poster, ZEP_STATE_ANY), STATUS_SUCCESS); }},
                {"run", [&] { world.Deliver(); }}});
        world.Deliver();
        // Told at once, and again by the run when that comes later.
        const States states = StatesFrom(subscriber, poster);
        EXPECT_TRUE(states == States{5} || states == (States{5, 5})) << states.size();
    });
    Explore("unsubscribe while a run delivers", [](World& world, Explorer& explorer) {
        Peer poster(1);
        Peer subscriber(2);
        RegisterAll(world, {&poster, &subscriber});
        EXPECT_EQ(world.Subscribe(subscriber, poster, 5), STATUS_SUCCESS);
        EXPECT_EQ(world.Post(poster, 5), STATUS_SUCCESS);
        RunAll(world, explorer,
               {{"subscriber", [&] { EXPECT_EQ(world.Unsubscribe(subscriber, poster, 5), STATUS_SUCCESS); }},
                {"run", [&] { world.Deliver(); }}});
        EXPECT_LE(StatesFrom(subscriber, poster).size(), 1u);
        subscriber.deliveries.clear();
        EXPECT_EQ(world.Post(poster, 5), STATUS_SUCCESS);
        world.Deliver();
        EXPECT_TRUE(subscriber.deliveries.empty());
    });
}

TEST_P(Interleavings, LeavingWhileARunDelivers)
{
    Explore("subscriber leaves while a run delivers", [](World& world, Explorer& explorer) {
        Peer poster(1);
        Peer subscriber(2);
        RegisterAll(world, {&poster, &subscriber});
        EXPECT_EQ(world.Subscribe(subscriber, poster, 5), STATUS_SUCCESS);
        EXPECT_EQ(world.Post(poster, 5), STATUS_SUCCESS);
        bool hasLeft = false;
        subscriber.onState = [&](const ZepState&, ULONG&) { EXPECT_FALSE(hasLeft) << "told after it had left"; };
        RunAll(world, explorer,
               {{"subscriber",
                 [&] {
                     EXPECT_EQ(world.Leave(subscriber), STATUS_SUCCESS);
                     hasLeft = true;
                 }},
                {"run", [&] { world.Deliver(); }}});
        world.Deliver();
        EXPECT_LE(subscriber.deliveries.size(), 1u);
        EXPECT_FALSE(world.Client(subscriber));
        EXPECT_TRUE(world.Client(poster));
    });
    Explore("poster leaves while its state is delivered", [](World& world, Explorer& explorer) {
        Peer poster(1);
        Peer subscriber(2);
        RegisterAll(world, {&poster, &subscriber});
        EXPECT_EQ(world.Subscribe(subscriber, poster, 5), STATUS_SUCCESS);
        EXPECT_EQ(world.Post(poster, 5), STATUS_SUCCESS);
        RunAll(
            world, explorer,
            {{"poster", [&] { EXPECT_EQ(world.Leave(poster), STATUS_SUCCESS); }}, {"run", [&] { world.Deliver(); }}});
        world.Deliver();
        EXPECT_EQ(subscriber.deliveries.size(), 1u);  // a queued state outlives its poster
    });
}

TEST_P(Interleavings, RegisteringOneGuidTwiceAtOnce)
{
    Explore("one GUID registered twice", [](World& world, Explorer& explorer) {
        Peer peer(1);
        NTSTATUS statuses[2] = {};
        RunAll(world, explorer,
               {{"one", [&] { statuses[0] = world.Register(peer); }},
                {"two", [&] { statuses[1] = world.Register(peer); }}});
        // On purpose: the look-up and the append are two steps, so both may succeed.
        unsigned registered = 0;
        for (const NTSTATUS status : statuses) {
            EXPECT_TRUE(status == STATUS_SUCCESS || status == STATUS_ZEP_NOTIFIER_ALREADY_REGISTERED) << status;
            registered += status == STATUS_SUCCESS ? 1 : 0;
        }
        EXPECT_GE(registered, 1u);
        for (unsigned client = 0; client < registered; ++client) {
            EXPECT_EQ(world.Leave(peer), STATUS_SUCCESS);
        }
        EXPECT_FALSE(world.Client(peer));
    });
}

TEST_P(Interleavings, CommandsToEachOtherWhileARunDelivers)
{
    Explore("commands to each other", [](World& world, Explorer& explorer) {
        Peer one(1);
        Peer two(2);
        RegisterAll(world, {&one.TakesCommands(), &two.TakesCommands()});
        RunAll(world, explorer,
               {{"one", [&] { EXPECT_EQ(world.Send(one, two, 7), STATUS_SUCCESS); }},
                {"two", [&] { EXPECT_EQ(world.Send(two, one, 8), STATUS_SUCCESS); }},
                {"run", [&] { world.Deliver(); }}});
        world.Deliver();
        // One command a run, and a run for each enqueue; two that were queued at once leave one behind.
        const std::size_t delivered = one.commands.size() + two.commands.size();
        const std::size_t waiting = world.Count(world.Context().commands);
        EXPECT_EQ(delivered + waiting, 2u);
        EXPECT_GE(delivered, 1u);
    });
}

TEST_P(Interleavings, PostingWhileACommandLeavesTheStateAlone)
{
    Explore("post of a command's target", [](World& world, Explorer& explorer) {
        Peer sender(1);
        Peer target(2);
        RegisterAll(world, {&sender, &target.TakesCommands()});
        EXPECT_EQ(world.Send(sender, target, 1), STATUS_SUCCESS);
        RunAll(
            world, explorer,
            {{"client", [&] { EXPECT_EQ(world.Post(target, 7), STATUS_SUCCESS); }}, {"run", [&] { world.Deliver(); }}});
        world.Deliver();
        EXPECT_EQ(target.commands.size(), 1u);
        EXPECT_EQ(world.Client(target)->currentState, 7u) << "the command's end takes the post back";
    });
}

TEST_P(Interleavings, PostingWhileASubscriberLeavesAndARunDelivers)
{
    Explore("post, leave and run", [](World& world, Explorer& explorer) {
        Peer poster(1);
        Peer leaving(2);
        Peer staying(3);
        RegisterAll(world, {&poster, &leaving, &staying});
        EXPECT_EQ(world.Subscribe(leaving, poster, 5), STATUS_SUCCESS);
        EXPECT_EQ(world.Subscribe(staying, poster, 5), STATUS_SUCCESS);
        leaving.onState = [](const ZepState&, ULONG& response) { response = 9; };  // wants to go on, perhaps too late
        RunAll(world, explorer,
               {{"poster", [&] { EXPECT_EQ(world.Post(poster, 5), STATUS_SUCCESS); }},
                {"subscriber", [&] { EXPECT_EQ(world.Leave(leaving), STATUS_SUCCESS); }},
                {"run", [&] { world.Deliver(); }}});
        world.Deliver();
        EXPECT_EQ(StatesFrom(staying, poster), States{5});
        EXPECT_LE(leaving.deliveries.size(), 1u);
        EXPECT_EQ(world.Alive(kStateContextName), 0u);
        EXPECT_EQ(world.Count(world.Context().clients), 2u);
    });
}

unsigned g_added;
unsigned g_removed;

NTSTATUS NTAPI CountAdd(const ZEP_SUBSYSTEM_DESCRIPTOR*)
{
    YieldPoint(YieldKind::kClientCode, "ZepClientAdd");
    ++g_added;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI CountRemove(const ZEP_NOTIFIER_CLIENT_CONTEXT*)
{
    YieldPoint(YieldKind::kClientCode, "ZepClientRemove");
    ++g_removed;
    return STATUS_SUCCESS;
}

void Attach(World& world)
{
    g_added = 0;
    g_removed = 0;
    WpcdClientRegistration registration{};
    registration.ZepClientAdd = CountAdd;
    registration.ZepClientRemove = CountRemove;
    EXPECT_EQ(world.wpcd.Notifier_WpcdClientInit(&registration), STATUS_SUCCESS);
}

TEST_P(Interleavings, AClientLeavesWhileItIsAnnounced)
{
    Explore("client leaves while it is announced", [](World& world, Explorer& explorer) {
        Attach(world);
        Peer peer(1);
        EXPECT_EQ(world.Register(peer), STATUS_SUCCESS);
        EXPECT_EQ(world.Post(peer, 5), STATUS_SUCCESS);
        RunAll(world, explorer,
               {{"client", [&] { EXPECT_EQ(world.Leave(peer), STATUS_SUCCESS); }}, {"run", [&] { world.Deliver(); }}});
        world.Deliver();
        EXPECT_LE(g_added, 1u);
        EXPECT_EQ(g_removed, g_added) << "the crash-dump driver keeps what is gone, or loses what it never had";
    });
}

TEST_P(Interleavings, TheCrashDumpDriverDetachesWhileAClientIsAnnouncedAndLeaves)
{
    Explore("detach, leave and announcement", [](World& world, Explorer& explorer) {
        Attach(world);
        Peer peer(1);
        EXPECT_EQ(world.Register(peer), STATUS_SUCCESS);
        EXPECT_EQ(world.Post(peer, 5), STATUS_SUCCESS);
        unsigned addedAtDetach = 0;
        unsigned removedAtDetach = 0;
        RunAll(world, explorer,
               {{"crash dump",
                 [&] {
                     EXPECT_EQ(world.wpcd.Notifier_WpcdClientDeInit(), STATUS_SUCCESS);
                     addedAtDetach = g_added;
                     removedAtDetach = g_removed;
                 }},
                {"client", [&] { EXPECT_EQ(world.Leave(peer), STATUS_SUCCESS); }},
                {"run", [&] { world.Deliver(); }}});
        world.Deliver();
        EXPECT_EQ(g_added, addedAtDetach) << "called when it had detached";
        EXPECT_EQ(g_removed, removedAtDetach) << "called when it had detached";
        EXPECT_LE(g_removed, g_added);
        EXPECT_EQ(world.Context().wpcdClient, nullptr);
        EXPECT_EQ(world.Count(world.Context().clients), 0u);
        EXPECT_EQ(world.Alive(kClientContextName), 0u);
    });
}

TEST_P(Interleavings, AClientPostsNoStateWhileItIsAnnounced)
{
    Explore("client posts no state while it is announced", [](World& world, Explorer& explorer) {
        Attach(world);
        Peer peer(1);
        EXPECT_EQ(world.Register(peer), STATUS_SUCCESS);
        EXPECT_EQ(world.Post(peer, 0), STATUS_SUCCESS);
        RunAll(
            world, explorer,
            {{"client", [&] { EXPECT_EQ(world.Post(peer, 0), STATUS_SUCCESS); }}, {"run", [&] { world.Deliver(); }}});
        world.Deliver();
        EXPECT_EQ(world.Client(peer)->wpcdRefreshPending, 1u) << "its first state would not be announced";
    });
}

TEST_P(Interleavings, TheBroadcastAmongPosts)
{
    constexpr std::uintptr_t kStateLock = 3;
    Explore("broadcast, post and run", [](World& world, Explorer& explorer) {
        Peer answering(1);
        Peer subscriber(2);
        answering.HearsAppsState().onAppsState = [](ULONG& state) { state = 9; };
        RegisterAll(world, {&answering, &subscriber});
        EXPECT_EQ(world.Subscribe(subscriber, answering, ZEP_STATE_ANY), STATUS_SUCCESS);
        subscriber.deliveries.clear();
        RunAll(world, explorer,
               {{"power", [&] { world.machine.NotifyPowerState(kStateLock, 0); }},
                {"client", [&] { EXPECT_EQ(world.Post(answering, 5), STATUS_SUCCESS); }},
                {"run", [&] { world.Deliver(); }}});
        world.Deliver();
        States states = StatesFrom(subscriber, answering);
        std::sort(states.begin(), states.end());
        EXPECT_EQ(states, (States{5, 9}));
    });
}

// A client that may deregister at any time leaves the states alone that it could answer with, and posts what it wants
// itself, on the thread that deregisters.
TEST_P(Interleavings, AClientThatPostsInsteadOfAnsweringLeavesAtAnyTime)
{
    Explore("broadcast, own post and leaving", [](World& world, Explorer& explorer) {
        Peer answering(1);
        Peer leaving(2);
        Peer subscriber(3);
        answering.HearsAppsState().onAppsState = [](ULONG& state) { state = 9; };
        RegisterAll(world, {&answering, &leaving.HearsAppsState(), &subscriber});
        EXPECT_EQ(world.Subscribe(subscriber, leaving, 8), STATUS_SUCCESS);
        bool hasPosted = false;
        const auto postAndLeave = [&] {
            hasPosted = leaving.appsStateCalls != 0;
            if (hasPosted) {
                EXPECT_EQ(world.Post(leaving, 8), STATUS_SUCCESS);
            }
            EXPECT_EQ(world.Leave(leaving), STATUS_SUCCESS);
        };
        RunAll(
            world, explorer,
            {{"power", [&] { world.machine.NotifyPowerState(PO_CB_SYSTEM_STATE_LOCK, 0); }}, {"client", postAndLeave}});
        world.Deliver();
        EXPECT_EQ(answering.appsStateCalls, 1u);
        EXPECT_LE(leaving.appsStateCalls, 1u);
        EXPECT_EQ(world.Client(answering)->currentState, 9u);
        EXPECT_EQ(subscriber.deliveries.size(), hasPosted ? 1u : 0u);
    });
    Explore("command, own post and leaving", [](World& world, Explorer& explorer) {
        Peer sender(1);
        Peer leaving(2);
        Peer subscriber(3);
        RegisterAll(world, {&sender, &leaving.TakesCommands(), &subscriber});
        EXPECT_EQ(world.Subscribe(subscriber, leaving, 8), STATUS_SUCCESS);
        EXPECT_EQ(world.Send(sender, leaving, 7), STATUS_SUCCESS);
        bool hasPosted = false;
        const auto postAndLeave = [&] {
            hasPosted = !leaving.commands.empty();
            if (hasPosted) {  // the command is delivered: nothing else is under way
                EXPECT_EQ(world.Post(leaving, 8), STATUS_SUCCESS);
                EXPECT_EQ(world.Leave(leaving), STATUS_SUCCESS);
            }
        };
        RunAll(world, explorer, {{"run", [&] { world.Deliver(); }}, {"client", postAndLeave}});
        world.Deliver();
        EXPECT_EQ(leaving.commands.size(), 1u);
        EXPECT_EQ(subscriber.deliveries.size(), hasPosted ? 1u : 0u);
        EXPECT_EQ(world.Count(world.Context().clients), hasPosted ? 2u : 3u);
    });
}

}  // namespace
}  // namespace tests
