// Races that the driver's design accepts: the header and the pages forbid callers to run into them. Each is shown to be
// there, so that who closes one notices.
#include "tests/concurrency/systematic.h"

#include "host/checks/crash.h"

#include <algorithm>
#include <cstdio>

namespace tests {
namespace {

using host::checks::Rule;

class AcceptedRaces : public Systematic {};
FOR_ALL_CONTAINERS(AcceptedRaces);

// A party of a command that leaves before it is delivered stops command delivery for good: the run waits for the lock
// that it holds. Whoever comes first under the clients lock decides; there is no third outcome.
TEST_P(AcceptedRaces, ACommandWhosePartyLeavesIsDeliveredOrStopsDelivery)
{
    for (const bool senderLeaves : {false, true}) {
        unsigned delivered = 0;
        unsigned stopped = 0;
        Explore(senderLeaves ? "sender leaves" : "target leaves", [&](ScheduledRun& run) {
            Peer& sender = run.Join(1);
            Peer& target = run.Join(Peer(2).TakesCommands());
            EXPECT_EQ(run.Send(sender, target, 7), STATUS_SUCCESS);
            std::size_t parkedRuns = 0;
            run.All({{"party", [&] { EXPECT_EQ(run.Leave(senderLeaves ? sender : target), STATUS_SUCCESS); }},
                     {"run", [&] { parkedRuns = run.machine.RunWorkItems().parked.size(); }}});
            const std::size_t selfWaits = run.machine.violations().Take(Rule::kSelfWait).size();
            EXPECT_EQ(selfWaits, parkedRuns);
            EXPECT_EQ(target.commands.size() + parkedRuns, 1u);
            delivered += target.commands.size() == 1 ? 1 : 0;
            if (parkedRuns != 0) {
                ++stopped;
                run.Abandon();
            }
        });
        EXPECT_TRUE(IsReplay() || (delivered >= 1 && stopped >= 1)) << delivered << " and " << stopped;
    }
}

// The broadcast, and a subscription that is notified at once, read the client's state before its callback and again
// after it. A post of the same client in between makes a callback that changed nothing look like one that chose the
// state before, which is then posted: the newer state is lost.
TEST_P(AcceptedRaces, APostAroundACallbackIsTakenBack)
{
    constexpr unsigned kIntoTheCallbackAndOut = 2;  // preemptions
    for (const bool subscribes : {false, true}) {
        unsigned takenBack = 0;
        unsigned kept = 0;
        const auto play = [&](ScheduledRun& run) {
            Peer& poster = run.Join(Peer(1).WantsAppsState());
            Peer& watcher = run.Join(2);
            EXPECT_EQ(run.Post(poster, 3), STATUS_SUCCESS);
            EXPECT_EQ(run.Post(watcher, 4), STATUS_SUCCESS);
            EXPECT_EQ(run.Subscribe(watcher, poster, ZEP_STATE_ANY), STATUS_SUCCESS);
            run.Deliver();
            watcher.deliveries.clear();
            const auto isCalled = [&] {
                if (subscribes) {
                    EXPECT_EQ(run.Subscribe(poster, watcher, 4), STATUS_SUCCESS);
                } else {
                    run.machine.NotifyPowerState(PO_CB_SYSTEM_STATE_LOCK, 0);
                }
            };
            run.AllThenDeliver({{"callback", isCalled}, run.Posts(poster, 5)});
            // In either order: the post's own record may come after the one that takes it back.
            States states = StatesFrom(watcher, poster);
            std::sort(states.begin(), states.end());
            const bool isTakenBack = states == States{3, 5};
            EXPECT_TRUE(isTakenBack || states == States{5});
            EXPECT_EQ(run.Client(poster)->currentState, isTakenBack ? 3u : 5u);
            EXPECT_EQ(run.AnswersKept(), isTakenBack && !subscribes ? 1u : 0u);
            ++(isTakenBack ? takenBack : kept);
        };
        Explore(subscribes ? "post around a first state" : "post around a broadcast", play, kIntoTheCallbackAndOut);
        EXPECT_TRUE(IsReplay() || (takenBack >= 1 && kept >= 1)) << takenBack << " and " << kept;
    }
}

constexpr int kViolationExit = 5;

// Plays schedules until one has a violation, and ends the process with its text; with status 0 when none has.
[[noreturn]] void EndAtFirstFault(const Container& container, const Play& play)
{
    ControlledScheduler scheduler({.everyCall = true});
    while (scheduler.Next()) {
        ScheduledRun run(container, scheduler);
        play(run);
        for (const auto& violation : run.machine.violations().Take()) {
            std::fprintf(stderr, "%s\n", violation.Text().c_str());
            std::_Exit(kViolationExit);
        }
    }
    std::fprintf(stderr, "no violation in %u schedules\n", scheduler.Count());
    std::_Exit(0);
}

// Attaching takes no lock: two at once can both find nobody attached. Both succeed then, one object is in force, and
// the other stays, out of reach, until unload.
TEST_P(AcceptedRaces, TwoAttachesAtOnceBothSucceedAndOneObjectStays)
{
    constexpr bool kEveryCall = true;  // there are no locks to choose at
    unsigned bothSucceed = 0;
    unsigned oneSucceeds = 0;
    const auto play = [&](ScheduledRun& run) {
        NTSTATUS statuses[2] = {};
        run.All({{"one", [&] { statuses[0] = run.Attach(); }}, {"two", [&] { statuses[1] = run.Attach(); }}});
        std::size_t attached = 0;
        for (const NTSTATUS status : statuses) {
            EXPECT_TRUE(status == STATUS_SUCCESS || status == STATUS_OBJECT_NAME_EXISTS) << status;
            attached += status == STATUS_SUCCESS ? 1 : 0;
        }
        EXPECT_GE(attached, 1u);
        EXPECT_EQ(run.Alive(kWpcdContextName), attached);
        ++(attached == 2 ? bothSucceed : oneSucceeds);
        // The fixture's end finds no leak: the object that stays is a child of the driver object.
        EXPECT_EQ(run.Detach(), STATUS_SUCCESS);
        EXPECT_EQ(run.Detach(), STATUS_OBJECT_NAME_NOT_FOUND);
        EXPECT_EQ(run.Alive(kWpcdContextName), attached - 1);
    };
    Explore("two attaches", play, kPreemptions, kEveryCall);
    EXPECT_TRUE(IsReplay() || (bothSucceed >= 1 && oneSucceeds >= 1)) << bothSucceed << " and " << oneSucceeds;
}

// The crash-dump driver's handle can be seen before its callbacks: an announcement meanwhile calls nothing. A schedule
// that ends the process is reported like any other that fails.
TEST_P(AcceptedRaces, AttachingWhileAClientIsAnnouncedCallsNull)
{
    if (IsReplay()) {
        return;  // of another scenario, perhaps
    }
    EXPECT_EXIT(Explore(
                    "attach",
                    [](ScheduledRun& run) {
                        Peer& peer = run.Join(1);
                        (void)run.Post(peer, 5);
                        run.All({{"crash dump", [&] { (void)run.Attach(); }}, {"run", [&] { run.Deliver(); }}});
                    },
                    2, true),
                testing::ExitedWithCode(host::checks::kMemoryFaultExit),
                "touching \\(nil\\).*ZEPN_SCHEDULE=\"attach: (calls|locks)( [0-9]+>[01])+\" replays it");
}

// What happens to a client, or to the crash-dump driver, that leaves while another thread uses it.
struct Use {
    const char* name;
    void (*play)(ScheduledRun&, Peer& leaving, Peer& other);
    const char* finding;
};

constexpr const char* kInSendState = "dead handle: .*Notifier_HelperSendState";

const Use kUses[] = {
    {"post",
     [](ScheduledRun& run, Peer& leaving, Peer&) {
         run.All({{"post", [&] { (void)run.Post(leaving, 5); }}, {"leave", [&] { (void)run.Leave(leaving); }}});
     },
     kInSendState},
    {"command",
     [](ScheduledRun& run, Peer& leaving, Peer& other) {
         run.All(
             {{"command", [&] { (void)run.Send(leaving, other, 7); }}, {"leave", [&] { (void)run.Leave(leaving); }}});
     },
     "dead handle: .*(QueueCommand|Notifier_HelperSendCommand)"},
    {"answer to a first state",
     [](ScheduledRun& run, Peer& leaving, Peer& other) {
         leaving.onState = [](const ZepState&, ULONG& response) { response = 9; };
         run.All({{"subscribe", [&] { (void)run.Subscribe(leaving, other, ZEP_STATE_ANY); }},
                  {"leave", [&] { (void)run.Leave(leaving); }}});
     },
     kInSendState},
    {"answer to a command",
     [](ScheduledRun& run, Peer& leaving, Peer& other) {
         leaving.onCommand = [](ULONG, ULONG& state) { state = 9; };
         (void)run.Send(other, leaving, 7);
         const auto leave = [&] {
             if (!leaving.commands.empty()) {  // before, it would stop command delivery
                 (void)run.Leave(leaving);
             }
         };
         run.All({{"run", [&] { run.Deliver(); }}, {"leave", leave}});
     },
     kInSendState},
    {"answer to an application-state change",
     [](ScheduledRun& run, Peer& leaving, Peer&) {
         leaving.onAppsState = [](ULONG& state) { state = 9; };
         run.All({{"power", [&] { run.machine.NotifyPowerState(PO_CB_SYSTEM_STATE_LOCK, 0); }},
                  {"leave", [&] { (void)run.Leave(leaving); }}});
     },
     kInSendState},
    // It reads the handle again after it has made the object; a detach in between has cleared it.
    {"attach",
     [](ScheduledRun& run, Peer&, Peer&) {
         run.All({{"attach", [&] { (void)run.Attach(); }}, {"detach", [&] { (void)run.Detach(); }}});
     },
     "(null|dead) handle: .*Notifier_WpcdClientInit"},
    // The forwarders take no lock: a call that found the crash-dump driver goes on while that detaches.
    {"dump",
     [](ScheduledRun& run, Peer&, Peer&) {
         (void)run.Attach();
         ULONG record = 1;
         run.All({{"client", [&] { (void)run.helper.Notifier_HelperStartDump(&record, 0, 0); }},
                  {"crash dump", [&] { (void)run.Detach(); }}});
     },
     "dead handle: .*GetContext"},
};

// A look-up gives the clients lock back before its caller uses what it found. So a client's own calls must have ended
// when it deregisters; and the Notifier posts some answers for it, which the client cannot see the end of.
TEST_P(AcceptedRaces, EachUseOfWhoLeavesMeetsADeadObject)
{
    for (const Use& use : kUses) {
        SCOPED_TRACE(use.name);
        EXPECT_EXIT(EndAtFirstFault(GetParam(),
                                    [&use](ScheduledRun& run) {
                                        Peer& leaving = run.Join(Peer(1).TakesCommands().WantsAppsState());
                                        Peer& other = run.Join(Peer(2).TakesCommands().WantsAppsState());
                                        use.play(run, leaving, other);
                                    }),
                    testing::ExitedWithCode(kViolationExit), use.finding);
    }
}

}  // namespace
}  // namespace tests
