// Races that the driver's design accepts: callers are told not to run into them. Each is shown to be there, so that who
// closes one notices.
#include "tests/explorer/explored.h"

#include "host/checks/crash.h"
#include "tests/support/death.h"

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
        EXPECT_GE(delivered, 1u);
        EXPECT_GE(stopped, 1u);
    }
}

constexpr int kViolationExit = 5;

// Plays schedules until one goes wrong, and ends the process with what went wrong; with status 0 when none does.
[[noreturn]] void EndAtFirstFault(const Container& container, const std::function<void(World&, Explorer&)>& play)
{
    Explorer explorer({.everyCall = true});
    while (explorer.Next()) {
        World world(container, {.records = false});
        play(world, explorer);  // ends the process by itself when memory is touched that is gone
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
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI OnDumpStart(PVOID, ULONGLONG, ULONGLONG)
{
    return STATUS_SUCCESS;
}

// The crash-dump driver's handle can be seen before its callbacks: an announcement meanwhile calls nothing.
TEST_P(AcceptedRaces, AttachingWhileAClientIsAnnouncedCallsNull)
{
    GTEST_FLAG_SET(death_test_style, kDeathTestStyle);
    EXPECT_EXIT(
        EndAtFirstFault(GetParam(),
                        [](World& world, Explorer& explorer) {
                            WpcdClientRegistration registration{};
                            registration.ZepClientAdd = OnAdd;
                            Peer peer(1);
                            (void)world.Register(peer);
                            (void)world.Post(peer, 5);
                            RunAll(world, explorer,
                                   {{"crash dump", [&] { (void)world.wpcd.Notifier_WpcdClientInit(&registration); }},
                                    {"run", [&] { world.Deliver(); }}});
                        }),
        testing::ExitedWithCode(host::checks::kMemoryFaultExit), "touching \\(nil\\)");
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
