// Timers: when they come due, at which level they call, and what stops them; and the clock that they are on.
#include "host/kernel/kernel.h"
#include "tests/host/faulty_driver_fixture.h"

#include <atomic>
#include <chrono>
#include <thread>

namespace tests {
namespace {

using namespace std::chrono_literals;

struct Due {
    WDFTIMER timer;
    std::int64_t milliseconds;
    KIRQL level;
    bool operator==(const Due&) const = default;
};
std::vector<Due> g_due;
void (*g_inCallback)(WDFTIMER timer);

void NTAPI NoteDue(WDFTIMER timer)
{
    g_due.push_back({timer, host::kernel::Kernel::Current().clock.Now() / host::kernel::kUnitsPerMillisecond,
                     host::ThreadState::Current().irql});
    if (g_inCallback != nullptr) {
        g_inCallback(timer);
    }
}

class TimersFixture : public FaultyDriverFixture {
public:
    explicit TimersFixture(host::MachineOptions options = {}) : FaultyDriverFixture(options)
    {
        g_due.clear();
        g_inCallback = nullptr;
        WDF_TIMER_CONFIG_INIT(&config, NoteDue);
        attributes = Attributes(table.Device);
    }

    NTSTATUS Create()
    {
        created = nullptr;
        return WdfTimerCreate(&config, &attributes, &created);
    }
    WDFTIMER New(LONG periodMs = 0, WDF_EXECUTION_LEVEL level = WdfExecutionLevelInheritFromParent)
    {
        config.Period = static_cast<ULONG>(periodMs);
        attributes.ExecutionLevel = level;
        EXPECT_EQ(Create(), STATUS_SUCCESS);
        return created;
    }

    WDF_TIMER_CONFIG config{};
    WDF_OBJECT_ATTRIBUTES attributes{};
    WDFTIMER created = nullptr;
};
class Timers : public testing::Test, public TimersFixture {};

TEST_F(Timers, ComeDueAtTheirMomentsInOrderAtDispatchLevel)
{
    const WDFTIMER first = New();
    const WDFTIMER second = New();
    const WDFTIMER third = New();
    EXPECT_FALSE(WdfTimerStart(third, WDF_REL_TIMEOUT_IN_MS(50)));
    EXPECT_FALSE(WdfTimerStart(second, WDF_REL_TIMEOUT_IN_MS(20)));
    EXPECT_TRUE(WdfTimerStart(third, WDF_REL_TIMEOUT_IN_MS(20)));  // sooner than it was, and after the second
    const std::int64_t now = host::kernel::Kernel::Current().clock.SystemTime();
    EXPECT_FALSE(WdfTimerStart(first, now + WDF_ABS_TIMEOUT_IN_MS(10)));
    EXPECT_TRUE(machine.inspect().Find(first)->queued);
    machine.AdvanceClock(5ms);
    EXPECT_EQ(g_due, std::vector<Due>{});
    machine.AdvanceClock(100ms);
    EXPECT_EQ(g_due, (std::vector<Due>{{first, 10, DISPATCH_LEVEL}, {second, 20, DISPATCH_LEVEL}, {third, 20, 2}}));
    EXPECT_FALSE(machine.inspect().Find(first)->queued);
    EXPECT_EQ(WdfTimerGetParentObject(first), table.Device);
    EXPECT_EQ(host::ThreadState::Current().irql, PASSIVE_LEVEL);
}

TEST_F(Timers, OfAPeriodComeDueUntilTheyAreStopped)
{
    const WDFTIMER timer = New(10);
    WdfTimerStart(timer, WDF_REL_TIMEOUT_IN_MS(3));
    machine.AdvanceClock(25ms);
    EXPECT_EQ(g_due, (std::vector<Due>{{timer, 3, DISPATCH_LEVEL}, {timer, 13, DISPATCH_LEVEL}, {timer, 23, 2}}));
    EXPECT_TRUE(WdfTimerStop(timer, FALSE));
    EXPECT_FALSE(WdfTimerStop(timer, TRUE));
    machine.AdvanceClock(100ms);
    EXPECT_EQ(g_due.size(), 3u);

    // Time also passes while a thread sleeps. A timer that stops itself is not in the queue any more.
    g_inCallback = [](WDFTIMER self) { EXPECT_TRUE(WdfTimerStop(self, FALSE)); };
    WdfTimerStart(timer, WDF_REL_TIMEOUT_IN_MS(3));
    LARGE_INTEGER interval;
    interval.QuadPart = WDF_REL_TIMEOUT_IN_MS(50);
    KeDelayExecutionThread(KernelMode, FALSE, &interval);
    EXPECT_EQ(g_due.size(), 4u);
    EXPECT_EQ(g_due.back().milliseconds, 128);
}

TEST_F(Timers, ThatStartThemselvesAtOnceLetTimePass)
{
    const WDFTIMER timer = New();
    g_inCallback = [](WDFTIMER self) { WdfTimerStart(self, 0); };
    WdfTimerStart(timer, 0);
    machine.AdvanceClock(1us);
    EXPECT_EQ(g_due.size(), 10u);  // once for each step of the clock
}

TEST_F(Timers, OfPassiveLevelRunOnASystemThread)
{
    const WDFTIMER timer = New(0, WdfExecutionLevelPassive);
    WdfTimerStart(timer, WDF_REL_TIMEOUT_IN_MS(3));
    machine.AdvanceClock(10ms);
    EXPECT_EQ(g_due, std::vector<Due>{});
    EXPECT_EQ(machine.RunWorkItems().runs, 1u);
    EXPECT_EQ(g_due, (std::vector<Due>{{timer, 10, PASSIVE_LEVEL}}));

    // Who stops it and waits gets the run that was queued, and the start in it comes to nothing.
    g_inCallback = [](WDFTIMER self) { EXPECT_FALSE(WdfTimerStart(self, -1)); };
    WdfTimerStart(timer, WDF_REL_TIMEOUT_IN_MS(3));
    machine.AdvanceClock(10ms);
    EXPECT_TRUE(WdfTimerStop(timer, TRUE));
    EXPECT_EQ(g_due.size(), 2u);
    EXPECT_EQ(machine.QueuedWorkItems(), 0u);
    EXPECT_FALSE(machine.inspect().Find(timer)->queued);
}

// Both are left to a system thread, the run first.
TEST_F(Timers, OfPassiveLevelThatAreDueAndDeletedAtDispatchLevelRunAndAreDisposed)
{
    static bool isDestroyed;
    isDestroyed = false;
    attributes.EvtDestroyCallback = [](WDFOBJECT) NTAPI { isDestroyed = true; };
    const WDFTIMER timer = New(0, WdfExecutionLevelPassive);
    WdfTimerStart(timer, WDF_REL_TIMEOUT_IN_MS(3));
    machine.AdvanceClock(3ms);
    {
        const host::ScopedIrql dispatch(DISPATCH_LEVEL);
        WdfObjectDelete(timer);
    }
    machine.RunWorkItems();
    EXPECT_EQ(g_due.size(), 1u);
    EXPECT_TRUE(isDestroyed);
    EXPECT_EQ(machine.QueuedWorkItems(), 0u);
}

TEST(TimersOfPassiveLevel, RunOnWorkersWhereThereAreSome)
{
    TimersFixture fixture({.workItems = host::WorkItems::kThreads});
    const WDFTIMER timer = fixture.New(0, WdfExecutionLevelPassive);
    WdfTimerStart(timer, WDF_REL_TIMEOUT_IN_MS(3));
    fixture.machine.AdvanceClock(3ms);
    fixture.machine.WaitForWorkItems();
    EXPECT_EQ(g_due, (std::vector<Due>{{timer, 3, PASSIVE_LEVEL}}));
}

// Nobody else is there to run it: who stops the timer does, and who waits for all work waits for that, too.
TEST(TimersOfPassiveLevel, AreWaitedForWhileWhoStopsThemRunsThem)
{
    TimersFixture fixture({.workItems = host::WorkItems::kThreads, .workerCount = 0});
    const WDFTIMER timer = fixture.New(0, WdfExecutionLevelPassive);
    WdfTimerStart(timer, WDF_REL_TIMEOUT_IN_MS(3));
    fixture.machine.AdvanceClock(3ms);
    static std::atomic<bool> isOver;
    isOver = false;
    std::thread waiting([&] {
        fixture.machine.WaitForWorkItems();
        isOver = true;
    });
    g_inCallback = [](WDFTIMER) {
        std::this_thread::sleep_for(20ms);
        EXPECT_FALSE(isOver);
    };
    (void)WdfTimerStop(timer, TRUE);
    EXPECT_EQ(g_due, (std::vector<Due>{{timer, 3, PASSIVE_LEVEL}}));
    waiting.join();
}

TEST_F(Timers, AreCreatedAsThePlatformAllows)
{
    const auto statusWith = [this, asIs = std::pair(config, attributes)](const auto& change) {
        std::tie(config, attributes) = asIs;
        change();
        return Create();
    };
    EXPECT_EQ(WdfTimerCreate(&config, nullptr, &created), STATUS_WDF_PARENT_NOT_SPECIFIED);
    EXPECT_EQ(statusWith([&] { attributes.ParentObject = nullptr; }), STATUS_WDF_PARENT_NOT_SPECIFIED);
    EXPECT_EQ(statusWith([&] { attributes.ParentObject = driver.Handle(); }), STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(statusWith([&] { attributes.ParentObject = NewObject(table.Device); }), STATUS_SUCCESS);
    EXPECT_EQ(statusWith([&] { config.Size = 36; }), STATUS_INFO_LENGTH_MISMATCH);
    EXPECT_EQ(statusWith([&] { config.Period = 0x80000000; }), STATUS_INVALID_PARAMETER);
    const auto delayedSharply = [&] { config.TolerableDelay = 5, config.UseHighResolutionTimer = TRUE; };
    EXPECT_EQ(statusWith(delayedSharply), STATUS_INVALID_PARAMETER);
    // Of a framework before high-resolution timers.
    EXPECT_EQ(statusWith([&] { delayedSharply(), config.Size = 32; }), STATUS_SUCCESS);
    const auto passive = [&] { attributes.ExecutionLevel = WdfExecutionLevelPassive; };
    EXPECT_EQ(statusWith([&] { passive(), config.Period = 5; }), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(statusWith([&] { attributes.SynchronizationScope = WdfSynchronizationScopeDevice; }),
              STATUS_WDF_SYNCHRONIZATION_SCOPE_INVALID);

    // A queue of passive level and device scope cannot serialise a timer of DISPATCH_LEVEL.
    WDF_IO_QUEUE_CONFIG queueConfig;
    WDF_IO_QUEUE_CONFIG_INIT(&queueConfig, WdfIoQueueDispatchManual);
    WDF_OBJECT_ATTRIBUTES queueAttributes = Attributes();
    queueAttributes.ExecutionLevel = WdfExecutionLevelPassive;
    queueAttributes.SynchronizationScope = WdfSynchronizationScopeQueue;
    WDFQUEUE queue = nullptr;
    ASSERT_EQ(WdfIoQueueCreate(table.Device, &queueConfig, &queueAttributes, &queue), STATUS_SUCCESS);
    const auto ofQueue = [&] { attributes.ParentObject = queue; };
    EXPECT_EQ(statusWith(ofQueue), STATUS_WDF_INCOMPATIBLE_EXECUTION_LEVEL);
    EXPECT_EQ(statusWith([&] { ofQueue(), config.AutomaticSerialization = FALSE; }), STATUS_SUCCESS);
    EXPECT_EQ(statusWith([&] { ofQueue(), passive(); }), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(TakeRules(), std::vector{Rule::kNotProvided});
}

TEST_F(Timers, ThatAreDeletedCallNoMore)
{
    const WDFTIMER own = New();
    const WDFTIMER self = New(10);
    attributes.EvtCleanupCallback = [](WDFOBJECT timer)
                                        NTAPI { EXPECT_FALSE(WdfTimerStart(static_cast<WDFTIMER>(timer), -1)); };
    const WDFTIMER ofDevice = New(10);
    g_inCallback = [](WDFTIMER timer) { WdfObjectDelete(timer); };
    WdfTimerStart(own, WDF_REL_TIMEOUT_IN_MS(3));
    WdfObjectDelete(own);
    WdfTimerStart(self, WDF_REL_TIMEOUT_IN_MS(3));
    machine.AdvanceClock(5ms);
    EXPECT_EQ(g_due, (std::vector<Due>{{self, 3, DISPATCH_LEVEL}}));
    machine.RunWorkItems();  // a timer's end needs PASSIVE_LEVEL
    machine.AdvanceClock(20ms);
    EXPECT_EQ(g_due.size(), 1u);
    EXPECT_FALSE(machine.inspect().Find(self));
    WdfTimerStart(ofDevice, WDF_REL_TIMEOUT_IN_MS(3));
    TakeDown();
    EXPECT_EQ(TakeRules(), std::vector{Rule::kDeadHandle}) << Text();
    machine.AdvanceClock(20ms);
    EXPECT_EQ(g_due.size(), 1u);
}

TEST_F(Timers, ShowWhatMayNotBeDoneWithThem)
{
    static WDFWAITLOCK waitLock;
    static WDFSPINLOCK spinLock;
    waitLock = NewLock();
    spinLock = NewSpinLock();
    const auto rulesOf = [&](WDFTIMER timer, void (*callback)(WDFTIMER)) {
        g_inCallback = callback;
        WdfTimerStart(timer, WDF_REL_TIMEOUT_IN_MS(1));
        machine.AdvanceClock(1ms);
        machine.RunWorkItems();
        return TakeRules();
    };
    const WDFTIMER dispatch = New();
    EXPECT_EQ(rulesOf(dispatch, [](WDFTIMER) { (void)WdfWaitLockAcquire(waitLock, nullptr); }),
              std::vector{Rule::kIrql});
    EXPECT_EQ(rulesOf(dispatch, [](WDFTIMER) { WdfSpinLockAcquire(spinLock); }), std::vector{Rule::kLockKept});
    EXPECT_TRUE(Has(Text(), "EvtTimerFunc"));
    const WDFTIMER passive = New(0, WdfExecutionLevelPassive);
    EXPECT_EQ(rulesOf(passive, [](WDFTIMER self) { EXPECT_FALSE(WdfTimerStop(self, TRUE)); }),
              std::vector{Rule::kSelfWait});
    EXPECT_EQ(rulesOf(passive, [](WDFTIMER self) { WdfObjectDelete(self); }), std::vector{Rule::kSelfWait});

    WdfTimerStart(dispatch, WDF_REL_TIMEOUT_IN_MS(1));
    {
        const host::ScopedIrql level(DISPATCH_LEVEL);
        EXPECT_FALSE(WdfTimerStop(dispatch, TRUE));
        EXPECT_EQ(TakeRules(), std::vector{Rule::kIrql});
        EXPECT_TRUE(WdfTimerStop(dispatch, FALSE));  // it was left in the queue
    }
}

TEST_F(Timers, WhoseCallbackHangsParkWhoWaitsForThem)
{
    static WDFSPINLOCK spinLock;
    spinLock = NewSpinLock();
    const WDFTIMER timer = New();
    g_inCallback = [](WDFTIMER) { WdfSpinLockAcquire(spinLock), WdfSpinLockAcquire(spinLock); };
    WdfTimerStart(timer, WDF_REL_TIMEOUT_IN_MS(1));
    machine.AdvanceClock(1ms);
    EXPECT_EQ(TakeRules(), std::vector{Rule::kSelfWait});
    EXPECT_TRUE(Has(Park("stopper", [&] { WdfTimerStop(timer, TRUE); }), "waits for the callback of timer #1"));
    EXPECT_EQ(TakeRules(), std::vector{Rule::kDeadlock});
    Abandon();
}

TEST(Clock, NeverGoesBackAlsoWhenWhatIsDueMovesIt)
{
    host::kernel::Clock clock;
    host::kernel::TimeUnits seen = 0;
    clock.Schedule(10, [&] { clock.Advance(50); });
    clock.Schedule(20, [&] { seen = clock.Now(); });
    clock.AdvanceTo(30);
    EXPECT_EQ(seen, 20);
    EXPECT_EQ(clock.Now(), 60);
    clock.AdvanceTo(5);
    EXPECT_EQ(clock.Now(), 60);
    bool isRun = false;
    clock.Schedule(1, [&] { isRun = true; });  // over already: at the next move
    clock.Advance(0);
    EXPECT_TRUE(isRun);
}

}  // namespace
}  // namespace tests
