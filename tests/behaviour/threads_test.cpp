// The same driver with real worker threads and several client threads at once: nothing is lost, nothing is delivered
// twice, each poster's order is kept, and no object remains.
#include "tests/kit/driver_fixture.h"

#include <array>
#include <atomic>
#include <barrier>
#include <thread>

namespace tests {
namespace {

class Threads : public OnContainer {};
FOR_ALL_CONTAINERS(Threads);

#if defined(HOST_THREAD_SANITIZER)
constexpr bool kThreadSanitizer = true;
#else
constexpr bool kThreadSanitizer = false;
#endif

// Under thread sanitizer once with the host's own locks in its sight, which finds races of the host, and once with none
// but the driver's, which alone shows whether the driver takes them. guardPages: freed memory faults, where the
// sanitizers would not notice.
void InEachView(unsigned workers, const std::function<void(const FixtureOptions&)>& play)
{
    for (const bool onlyDriverLocks : kThreadSanitizer ? std::vector{false, true} : std::vector{false}) {
        play({.machine = {.workItems = host::WorkItems::kThreads,
                          .workerCount = workers,
                          .guardPages = !kThreadSanitizer,  // the sanitizer keeps book of every page
                          .recordsPaths = false,            // and of every walk over a stack
                          .onlyDriverLocks = onlyDriverLocks},
              .records = false});
    }
}

using Act = std::function<NTSTATUS(ULONG turn)>;

// Each on a thread of its own, so many times, all from one moment on; what they queue is done. How many were refused.
unsigned AllAtOnce(DriverFixture& fixture, ULONG turns, const std::vector<Act>& acts)
{
    std::atomic<unsigned> refused{0};
    std::barrier start(static_cast<std::ptrdiff_t>(acts.size()));
    std::vector<std::thread> threads;
    for (const Act& act : acts) {
        threads.emplace_back([&] {
            start.arrive_and_wait();
            for (ULONG turn = 0; turn < turns; ++turn) {
                refused += act(turn) == STATUS_SUCCESS ? 0 : 1;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    fixture.machine.WaitForWorkItems();
    return refused;
}

// A client that registers, does something, and deregisters.
NTSTATUS PassBy(DriverFixture& fixture, ULONG number, const std::function<NTSTATUS(Peer&)>& act)
{
    Peer passing(number);
    NTSTATUS status = fixture.Register(passing);
    status = status == STATUS_SUCCESS ? act(passing) : status;
    return status == STATUS_SUCCESS ? fixture.Leave(passing) : status;
}

constexpr unsigned kPosters = 4;
constexpr ULONG kPostsEach = 200;

TEST_P(Threads, PostsOfManyThreadsAllArriveInEachPostersOrder)
{
    InEachView(3, [](const FixtureOptions& options) {
        DriverFixture fixture(GetParam(), options);
        std::deque<Peer> posters;
        Peer subscriber(100);
        ASSERT_EQ(fixture.Register(subscriber), STATUS_SUCCESS);
        for (unsigned number = 1; number <= kPosters; ++number) {
            ASSERT_EQ(fixture.Register(posters.emplace_back(number)), STATUS_SUCCESS);
            ASSERT_EQ(fixture.Post(posters.back(), 1), STATUS_SUCCESS);
        }
        fixture.machine.WaitForWorkItems();
        for (Peer& poster : posters) {
            ASSERT_EQ(fixture.Subscribe(subscriber, poster, ZEP_STATE_ANY), STATUS_SUCCESS);
        }
        subscriber.deliveries.clear();

        std::vector<Act> acts;
        for (Peer& poster : posters) {
            acts.push_back([&](ULONG turn) { return fixture.Post(poster, 100 + turn); });
        }
        // Others register, subscribe and deregister meanwhile.
        acts.push_back([&](ULONG turn) {
            return PassBy(fixture, 200 + turn, [&](Peer& peer) { return fixture.Subscribe(peer, posters.front(), 1); });
        });
        EXPECT_EQ(AllAtOnce(fixture, kPostsEach, acts), 0u);
        EXPECT_EQ(subscriber.deliveries.size(), std::size_t{kPosters} * kPostsEach);
        std::map<ULONG, ULONG> last;
        for (const ZepState& state : subscriber.deliveries) {
            EXPECT_GT(state.State, last[state.InterfaceGUID.Data1]);
            last[state.InterfaceGUID.Data1] = state.State;
        }
        EXPECT_EQ(fixture.Alive(kStateContextName), 0u);
    });
}

// Counts and does not record: its callbacks run on several threads.
void CountCalls(CrashDumpDriver& crashDump, std::atomic<unsigned>& announced, std::atomic<unsigned>& dumps)
{
    crashDump.onAdd = [&announced](const ZEP_SUBSYSTEM_DESCRIPTOR&) { return ++announced, STATUS_SUCCESS; };
    crashDump.onRemove = [](const ClientContext&) { return STATUS_SUCCESS; };
    crashDump.onDump = [&dumps](const CrashDumpDriver::DumpCall&) { return ++dumps, STATUS_SUCCESS; };
}

// All that clients may do at once: posts, commands, subscriptions, registrations, removals, the broadcast, dumps at a
// raised level, descriptors, and listeners coming and going.
TEST_P(Threads, EverythingAtOnceEndsInOrder)
{
    InEachView(2, [](const FixtureOptions& options) {
        constexpr unsigned kTurns = ZEPN_TURNS;
        std::atomic<unsigned> announced{0};
        std::atomic<unsigned> dumps{0};
        DriverFixture fixture(GetParam(), options);
        CountCalls(fixture.crashDump, announced, dumps);
        ASSERT_EQ(fixture.Attach(), STATUS_SUCCESS);
        Peer& poster = fixture.Join(Peer(1).TakesCommands().WantsAppsState());
        Peer& other = fixture.Join(Peer(2).TakesCommands().WantsAppsState());
        // The other's state is chosen by answers too, under other locks than by posts.
        other.onState = [](const ZepState& state, ULONG& response) { response = state.State; };
        other.onCommand = [](ULONG id, ULONG& state) { state = id; };

        const std::vector<Act> acts = {
            [&](ULONG turn) { return fixture.Post(poster, 100 + turn); },
            [&](ULONG turn) { return fixture.Post(other, 100 + turn); },
            [&](ULONG turn) {
                return fixture.Send(turn % 2 == 0 ? poster : other, turn % 2 == 0 ? other : poster, turn);
            },
            [&](ULONG turn) {
                return turn % 2 == 0 ? fixture.Subscribe(other, poster, ZEP_STATE_ANY)
                                     : fixture.Unsubscribe(other, poster, ZEP_STATE_ANY);
            },
            [&](ULONG turn) {
                return PassBy(fixture, 1000 + turn, [](Peer&) { return STATUS_SUCCESS; });
            },
            [&](ULONG turn) {
                fixture.machine.NotifyPowerState(3, turn % 2);
                return STATUS_SUCCESS;
            },
            [&](ULONG) {
                const host::ScopedIrql irql(DISPATCH_LEVEL);
                ULONG record = 7;
                return fixture.helper.Notifier_HelperStartDump(&record, 1, 2);
            },
            [&](ULONG) {
                ULONG count = 0;
                const NTSTATUS status = fixture.wpcd.Notifier_WpcdGetNumSubsystemDescriptors(&count);
                std::array<ZEP_SUBSYSTEM_DESCRIPTOR, 3> descriptors;  // the two, and one that is passing
                count = descriptors.size();
                return status == STATUS_SUCCESS
                           ? fixture.wpcd.Notifier_WpcdGetAllSubsystemDescriptors(descriptors.data(), &count)
                           : status;
            },
            [&](ULONG turn) {
                auto& tracing = fixture.machine.tracing();
                tracing.Close(turn % 2 == 0 ? tracing.OpenEventSession({kProviderGuid, 5})
                                            : tracing.OpenMessageSession({kControlGuid, 5, 3}));
                return STATUS_SUCCESS;
            }};
        EXPECT_EQ(AllAtOnce(fixture, kTurns, acts), 0u);
        // Who registers now is announced, and its states are delivered.
        const unsigned before = announced;
        Peer late(3);
        ASSERT_EQ(fixture.Register(late), STATUS_SUCCESS);
        ASSERT_EQ(fixture.Subscribe(other, late, 77), STATUS_SUCCESS);
        ASSERT_EQ(fixture.Post(late, 77), STATUS_SUCCESS);
        fixture.machine.WaitForWorkItems();
        EXPECT_EQ(announced, before + 1);
        EXPECT_EQ(other.deliveries.back().State, 77u);

        EXPECT_EQ(dumps, kTurns);
        // One command a run: of those queued in a burst some wait for the next post.
        EXPECT_EQ(poster.commands.size() + other.commands.size() + fixture.Count(fixture.Context().commands), kTurns);
        EXPECT_EQ(fixture.Count(fixture.Context().clients), 3u);
        // A post that overtakes an apps-state callback makes an answer of it, which is kept like every answer.
        EXPECT_EQ(poster.appsStateCalls, kTurns / 2);
        EXPECT_EQ(other.appsStateCalls, kTurns / 2);
        EXPECT_EQ(fixture.Alive(kStateContextName), fixture.AnswersKept());
        EXPECT_LE(fixture.AnswersKept(), std::size_t{kTurns});
    });
}

// The crash-dump driver attaches while clients register, subscribe and command, and detaches while they are announced
// and deregister. Attaching among announcements, and dump calls at either time, are what nobody may do.
TEST_P(Threads, TheCrashDumpDriverAttachesAndDetaches)
{
    InEachView(2, [](const FixtureOptions& options) {
        constexpr unsigned kRounds = 12;
        constexpr unsigned kTurns = 8;
        std::atomic<unsigned> announced{0};
        std::atomic<unsigned> dumps{0};
        DriverFixture fixture(GetParam(), options);
        CountCalls(fixture.crashDump, announced, dumps);
        Peer& poster = fixture.Join(Peer(1).TakesCommands());
        Peer& other = fixture.Join(Peer(2).TakesCommands());
        const auto all = [&](const std::vector<Act>& acts) { EXPECT_EQ(AllAtOnce(fixture, kTurns, acts), 0u); };
        for (unsigned round = 0; round < kRounds; ++round) {
            all({[&](ULONG turn) { return turn == kTurns / 2 ? fixture.Attach() : STATUS_SUCCESS; },
                 [&](ULONG turn) {
                     return turn % 2 == 0 ? fixture.Subscribe(other, poster, 7) : fixture.Unsubscribe(other, poster, 7);
                 },
                 [&](ULONG turn) {
                     return PassBy(fixture, 1000 + turn, [](Peer&) { return STATUS_SUCCESS; });
                 },
                 [&](ULONG turn) { return fixture.Send(poster, other, turn); }});
            // Somebody new each time, so that there is something to announce.
            Peer guest(2000 + round);
            ASSERT_EQ(fixture.Register(guest), STATUS_SUCCESS);
            const unsigned before = announced;
            all({[&](ULONG turn) {
                     while (announced == before) {
                         std::this_thread::yield();
                     }
                     return turn == kTurns / 2 ? fixture.Detach() : STATUS_SUCCESS;
                 },
                 [&](ULONG turn) { return fixture.Post(guest, 1 + turn); },
                 [&](ULONG turn) { return fixture.Post(poster, 100 + turn); },
                 [&](ULONG turn) {
                     return PassBy(fixture, 1000 + turn, [&](Peer& peer) { return fixture.Post(peer, 1); });
                 },
                 [&](ULONG) {
                     ULONG count = 0;
                     return fixture.wpcd.Notifier_WpcdGetNumSubsystemDescriptors(&count);
                 }});
            ASSERT_EQ(fixture.Leave(guest), STATUS_SUCCESS);
            fixture.machine.WaitForWorkItems();
        }
        EXPECT_EQ(fixture.Context().wpcdClient, nullptr);
        EXPECT_EQ(fixture.Count(fixture.Context().clients), 2u);
    });
}

// Nothing orders the crash-dump driver's attaching and the dump call after it; the design accepts that race.
TEST_P(Threads, AReportOfTheSanitizerNamesFunctionsAndLinesOfTheDriver)
{
    if (!kThreadSanitizer || GetParam().name != std::string_view("native")) {
        GTEST_SKIP() << "only where thread sanitizer sees the driver";
    }
    const auto race = [] {
        DriverFixture fixture(GetParam(), {.machine = {.onlyDriverLocks = true}, .records = false});
        std::atomic<bool> isAttached{false};
        std::thread attaching([&] {
            EXPECT_EQ(fixture.Attach(), STATUS_SUCCESS);
            isAttached.store(true, std::memory_order_relaxed);
        });
        while (!isAttached.load(std::memory_order_relaxed)) {
            std::this_thread::yield();
        }
        ULONG record = 7;
        EXPECT_EQ(fixture.helper.Notifier_HelperStartDump(&record, 1, 2), STATUS_SUCCESS);
        attaching.join();
        std::exit(testing::Test::HasFailure() ? 1 : 0);
    };
    constexpr int kReported = 66;
    EXPECT_EXIT(race(), testing::ExitedWithCode(kReported),
                "data race.*Read of.*Notifier_HelperStartDump.*forwarding\\.cpp:[0-9]+"
                ".*Previous write.*Notifier_WpcdClientInit.*attach\\.cpp:[0-9]+");
}

}  // namespace
}  // namespace tests
