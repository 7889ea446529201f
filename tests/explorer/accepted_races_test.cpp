// Races that the driver's design accepts: callers are told not to run into them. Each is shown to be there, so that who
// closes one notices.
#include "tests/explorer/explored.h"

#include "host/checks/crash.h"
#include "tests/support/death.h"

#include <algorithm>
#include <cstdio>

namespace tests {
namespace {

using host::checks::Rule;

class AcceptedRaces : public Explored {};
FOR_ALL_CONTAINERS(AcceptedRaces);

// A party of a command that leaves before it is delivered stops command delivery for good: the run waits for the lock
// that it holds. Whoever comes first under the clients lock decides; there is no third outcome.
TEST_P(AcceptedRaces, ACommandWhosePartyLeavesIsDeliveredOrStopsDelivery)
{
    for (const bool senderLeaves : {false, true}) {
        unsigned delivered = 0;
        unsigned stopped = 0;
        Explore(senderLeaves ? "sender leaves" : "target leaves", [&](World& world, Explorer& explorer) {
            Peer sender(1);
            Peer target(2);
            RegisterAll(world, {&sender, &target.TakesCommands()});
            EXPECT_EQ(world.Send(sender, target, 7), STATUS_SUCCESS);
            std::size_t parkedRuns = 0;
            RunAll(world, explorer,
                   {{"party", [&] { EXPECT_EQ(world.Leave(senderLeaves ? sender : target), STATUS_SUCCESS); }},
                    {"run", [&] { parkedRuns = world.machine.RunWorkItems().parked.size(); }}});
            const std::size_t selfWaits = world.machine.violations().Take(Rule::kSelfWait).size();
            EXPECT_EQ(selfWaits, parkedRuns);
            EXPECT_EQ(target.commands.size() + parkedRuns, 1u);
            delivered += target.commands.size() == 1 ? 1 : 0;
            if (parkedRuns != 0) {
                ++stopped;
                world.Abandon();
            }
        });
        EXPECT_TRUE(IsReplay() || (delivered >= 1 && stopped >= 1)) << delivered << " and " << stopped;
    }
}

// The broadcast, and a subscription that is told a state at once, read the client's state before its callback and again
// behind it. A post of the same client in between makes a callback that changed nothing look like one that chose the
// state before, which is then posted: the newer state is lost.
TEST_P(AcceptedRaces, APostAroundACallbackIsTakenBack)
{
    constexpr std::uintptr_t kStateLock = 3;
    constexpr unsigned kIntoTheCallbackAndOut = 2;  // preemptions
    for (const bool subscribes : {false, true}) {
        unsigned takenBack = 0;
        unsigned kept = 0;
        const auto play = [&](World& world, Explorer& explorer) {
            Peer poster(1);
            Peer watcher(2);
            RegisterAll(world, {&poster.HearsAppsState(), &watcher});
            EXPECT_EQ(world.Post(poster, 3), STATUS_SUCCESS);
            EXPECT_EQ(world.Post(watcher, 4), STATUS_SUCCESS);
            EXPECT_EQ(world.Subscribe(watcher, poster, ZEP_STATE_ANY), STATUS_SUCCESS);
            world.Deliver();
            watcher.deliveries.clear();
            const auto isCalled = [&] {
                if (subscribes) {
                    EXPECT_EQ(world.Subscribe(poster, watcher, 4), STATUS_SUCCESS);
                } else {
                    world.machine.NotifyPowerState(kStateLock, 0);
                }
            };
            RunAll(world, explorer,
                   {{"callback", isCalled}, {"client", [&] { EXPECT_EQ(world.Post(poster, 5), STATUS_SUCCESS); }}});
            world.Deliver();
            // In either order: the post's own record may come behind the one that takes it back.
            States states = StatesFrom(watcher, poster);
            std::sort(states.begin(), states.end());
            const bool isTakenBack = states == States{3, 5};
            EXPECT_TRUE(isTakenBack || states == States{5});
            EXPECT_EQ(world.Client(poster)->currentState, isTakenBack ? 3u : 5u);
            EXPECT_EQ(world.AnswersKept(), isTakenBack && !subscribes ? 1u : 0u);
            ++(isTakenBack ? takenBack : kept);
        };
        Explore(subscribes ? "post around a first state" : "post around a broadcast", play, kIntoTheCallbackAndOut);
        EXPECT_TRUE(IsReplay() || (takenBack >= 1 && kept >= 1)) << takenBack << " and " << kept;
    }
}

constexpr int kViolationExit = 5;

// Plays schedules until one goes wrong, and ends the process with what went wrong; with status 0 when none does.
[[noreturn]] void EndAtFirstFault(const Container& container, const std::function<void(World&, Explorer&)>& play)
{
    Explorer explorer({.everyCall = true});
    while (explorer.Next()) {
        World world(container, {.records = false});
        play(world, explorer);
        for (const auto& violation : world.machine.violations().Take()) {
            std::fprintf(stderr, "%s\n", violation.Text().c_str());
            std::_Exit(kViolationExit);
        }
    }
    std::fprintf(stderr, "nothing goes wrong in %u schedules\n", explorer.Count());
    std::_Exit(0);
}

NTSTATUS NTAPI OnAdd(const ZEP_SUBSYSTEM_DESCRIPTOR*)
{
    YieldPoint(YieldKind::kClientCode, "ZepClientAdd");
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI OnDumpStart(PVOID, ULONGLONG, ULONGLONG)
{
    YieldPoint(YieldKind::kClientCode, "ZepDumpStart");
    return STATUS_SUCCESS;
}

// The crash-dump driver's handle can be seen before its callbacks: an announcement meanwhile calls nothing. A schedule
// that ends the process is told like any other that fails.
TEST_P(AcceptedRaces, AttachingWhileAClientIsAnnouncedCallsNull)
{
    if (IsReplay()) {
        return;  // of another scenario, perhaps
    }
    GTEST_FLAG_SET(death_test_style, kDeathTestStyle);
    EXPECT_EXIT(Explore(
                    "attach",
                    [](World& world, Explorer& explorer) {
                        WpcdClientRegistration registration{};
                        registration.ZepClientAdd = OnAdd;
                        Peer peer(1);
                        (void)world.Register(peer);
                        (void)world.Post(peer, 5);
                        RunAll(world, explorer,
                               {{"crash dump", [&] { (void)world.wpcd.Notifier_WpcdClientInit(&registration); }},
                                {"run", [&] { world.Deliver(); }}});
                    },
                    2, true),
                testing::ExitedWithCode(host::checks::kMemoryFaultExit),
                "touching \\(nil\\).*ZEPN_SCHEDULE=\"attach: (calls|locks)( [0-9]+>[01])+\" replays it");
}

// The forwarders take no lock: a call that found the crash-dump driver goes on while that detaches.
TEST_P(AcceptedRaces, DetachingWhileADumpStartsUsesTheDeadClient)
{
    GTEST_FLAG_SET(death_test_style, kDeathTestStyle);
    EXPECT_EXIT(
        EndAtFirstFault(GetParam(),
                        [](World& world, Explorer& explorer) {
                            WpcdClientRegistration registration{};
                            registration.ZepDumpStart = OnDumpStart;
                            (void)world.wpcd.Notifier_WpcdClientInit(&registration);
                            ULONG record = 1;
                            RunAll(world, explorer,
                                   {{"client", [&] { (void)world.helper.Notifier_HelperStartDump(&record, 0, 0); }},
                                    {"crash dump", [&] { (void)world.wpcd.Notifier_WpcdClientDeInit(); }}});
                        }),
        testing::ExitedWithCode(kViolationExit), "dead handle: .*GetContext");
}

// A look-up gives the clients lock back before its caller uses what it found.
TEST_P(AcceptedRaces, PostingForAClientThatLeavesUsesTheDeadClient)
{
    GTEST_FLAG_SET(death_test_style, kDeathTestStyle);
    EXPECT_EXIT(EndAtFirstFault(GetParam(),
                                [](World& world, Explorer& explorer) {
                                    Peer peer(1);
                                    (void)world.Register(peer);
                                    RunAll(world, explorer,
                                           {{"post", [&] { (void)world.Post(peer, 5); }},
                                            {"leave", [&] { (void)world.Leave(peer); }}});
                                }),
                testing::ExitedWithCode(kViolationExit), "dead handle: .*Notifier_HelperSendState");
}

}  // namespace
}  // namespace tests
