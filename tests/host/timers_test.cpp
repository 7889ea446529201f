// Timers: when they come due, at which level they call, and what stops them.
#include "host/kernel/kernel.h"
#include "tests/host/faulty_driver_fixture.h"

#include <chrono>

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
        WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
        attributes.ParentObject = table.Device;
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

TEST(Timers, ComeDueAtTheirMomentsInOrderAtDispatchLevel)
{
    TimersFixture fixture;
    const WDFTIMER first = fixture.New();
    const WDFTIMER second = fixture.New();
    const WDFTIMER third = fixture.New();
    EXPECT_FALSE(WdfTimerStart(third, WDF_REL_TIMEOUT_IN_MS(30)));
    EXPECT_FALSE(WdfTimerStart(second, WDF_REL_TIMEOUT_IN_MS(50)));
    EXPECT_TRUE(WdfTimerStart(second, WDF_REL_TIMEOUT_IN_MS(20)));  // sooner than it was
    const std::int64_t now = host::kernel::Kernel::Current().clock.SystemTime();
    EXPECT_FALSE(WdfTimerStart(first, now + WDF_ABS_TIMEOUT_IN_MS(10)));
    EXPECT_TRUE(fixture.machine.inspect().Find(first)->queued);
    fixture.machine.AdvanceClock(5ms);
    EXPECT_EQ(g_due, std::vector<Due>{});
    fixture.machine.AdvanceClock(100ms);
    EXPECT_EQ(g_due, (std::vector<Due>{
                         {first, 10, DISPATCH_LEVEL}, {second, 20, DISPATCH_LEVEL}, {third, 30, DISPATCH_LEVEL}}));
    EXPECT_FALSE(fixture.machine.inspect().Find(first)->queued);
    EXPECT_EQ(WdfTimerGetParentObject(first), fixture.table.Device);
    EXPECT_EQ(host::ThreadState::Current().irql, PASSIVE_LEVEL);
}

TEST(Timers, OfAPeriodComeDueUntilTheyAreStopped)
{
    TimersFixture fixture;
    const WDFTIMER timer = fixture.New(10);
    WdfTimerStart(timer, WDF_REL_TIMEOUT_IN_MS(3));
    fixture.machine.AdvanceClock(25ms);
    EXPECT_EQ(g_due, (std::vector<Due>{{timer, 3, DISPATCH_LEVEL}, {timer, 13, DISPATCH_LEVEL}, {timer, 23, 2}}));
    EXPECT_TRUE(WdfTimerStop(timer, FALSE));
    EXPECT_FALSE(WdfTimerStop(timer, TRUE));
    fixture.machine.AdvanceClock(100ms);
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

TEST(Timers, ThatStartThemselvesAtOnceLetTimePass)
{
    TimersFixture fixture;
    const WDFTIMER timer = fixture.New();
    g_inCallback = [](WDFTIMER self) { WdfTimerStart(self, 0); };
    WdfTimerStart(timer, 0);
    fixture.machine.AdvanceClock(1us);
    EXPECT_EQ(g_due.size(), 10u);  // once for each step of the clock
}

TEST(Timers, OfPassiveLevelRunOnASystemThread)
{
    TimersFixture fixture;
    const WDFTIMER timer = fixture.New(0, WdfExecutionLevelPassive);
    WdfTimerStart(timer, WDF_REL_TIMEOUT_IN_MS(3));
    fixture.machine.AdvanceClock(10ms);
    EXPECT_EQ(g_due, std::vector<Due>{});
    EXPECT_EQ(fixture.machine.RunWorkItems().runs, 1u);
    EXPECT_EQ(g_due, (std::vector<Due>{{timer, 10, PASSIVE_LEVEL}}));

    // Who stops it and waits gets the run that was queued, and the start in it comes to nothing.
    g_inCallback = [](WDFTIMER self) { EXPECT_FALSE(WdfTimerStart(self, -1)); };
    WdfTimerStart(timer, WDF_REL_TIMEOUT_IN_MS(3));
    fixture.machine.AdvanceClock(10ms);
    EXPECT_TRUE(WdfTimerStop(timer, TRUE));
    EXPECT_EQ(g_due.size(), 2u);
    EXPECT_EQ(fixture.machine.QueuedWorkItems(), 0u);
    EXPECT_FALSE(fixture.machine.inspect().Find(timer)->queued);
}

TEST(Timers, OfPassiveLevelRunOnWorkersWhereThereAreSome)
{
    host::MachineOptions options;
    options.workItems = host::WorkItems::kThreads;
    TimersFixture fixture(options);
    const WDFTIMER timer = fixture.New(0, WdfExecutionLevelPassive);
    WdfTimerStart(timer, WDF_REL_TIMEOUT_IN_MS(3));
    fixture.machine.AdvanceClock(3ms);
    fixture.machine.WaitForWorkItems();
    EXPECT_EQ(g_due, (std::vector<Due>{{timer, 3, PASSIVE_LEVEL}}));
}

TEST(Timers, AreCreatedAsThePlatformAllows)
{
    TimersFixture fixture;
    const auto statusWith = [&](const auto& change) {
        const WDF_TIMER_CONFIG config = fixture.config;
        const WDF_OBJECT_ATTRIBUTES attributes = fixture.attributes;
        change();
        const NTSTATUS status = fixture.Create();
        fixture.config = config;
        fixture.attributes = attributes;
        return status;
    };
    WDF_TIMER_CONFIG& config = fixture.config;
    WDF_OBJECT_ATTRIBUTES& attributes = fixture.attributes;
    EXPECT_EQ(WdfTimerCreate(&config, nullptr, &fixture.created), STATUS_WDF_PARENT_NOT_SPECIFIED);
    EXPECT_EQ(statusWith([&] { attributes.ParentObject = nullptr; }), STATUS_WDF_PARENT_NOT_SPECIFIED);
    EXPECT_EQ(statusWith([&] { attributes.ParentObject = fixture.driver.Handle(); }), STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(statusWith([&] { attributes.ParentObject = NewObject(fixture.table.Device); }), STATUS_SUCCESS);
    EXPECT_EQ(statusWith([&] { config.Size = 36; }), STATUS_INFO_LENGTH_MISMATCH);
    EXPECT_EQ(statusWith([&] { config.Period = 0x80000000; }), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(statusWith([&] {
                  config.TolerableDelay = 5;
                  config.UseHighResolutionTimer = TRUE;
              }),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(statusWith([&] {
                  config.Size = 32;  // of a framework before high-resolution timers
                  config.TolerableDelay = 5;
                  config.UseHighResolutionTimer = TRUE;
              }),
              STATUS_SUCCESS);
    EXPECT_EQ(statusWith([&] {
                  config.Period = 5;
                  attributes.ExecutionLevel = WdfExecutionLevelPassive;
              }),
              STATUS_NOT_SUPPORTED);
    EXPECT_EQ(statusWith([&] { attributes.SynchronizationScope = WdfSynchronizationScopeDevice; }),
              STATUS_WDF_SYNCHRONIZATION_SCOPE_INVALID);

    // A queue of passive level and device scope cannot serialise a timer of DISPATCH_LEVEL.
    WDF_IO_QUEUE_CONFIG queueConfig;
    WDF_IO_QUEUE_CONFIG_INIT(&queueConfig, WdfIoQueueDispatchManual);
    WDF_OBJECT_ATTRIBUTES queueAttributes;
    WDF_OBJECT_ATTRIBUTES_INIT(&queueAttributes);
    queueAttributes.ExecutionLevel = WdfExecutionLevelPassive;
    queueAttributes.SynchronizationScope = WdfSynchronizationScopeQueue;
    WDFQUEUE queue = nullptr;
    ASSERT_EQ(WdfIoQueueCreate(fixture.table.Device, &queueConfig, &queueAttributes, &queue), STATUS_SUCCESS);
    EXPECT_EQ(statusWith([&] { attributes.ParentObject = queue; }), STATUS_WDF_INCOMPATIBLE_EXECUTION_LEVEL);
    EXPECT_EQ(statusWith([&] {
                  attributes.ParentObject = queue;
                  config.AutomaticSerialization = FALSE;
              }),
              STATUS_SUCCESS);
    EXPECT_EQ(fixture.TakeRules(), std::vector<Rule>{}) << fixture.Text();
    EXPECT_EQ(statusWith([&] {
                  attributes.ParentObject = queue;
                  attributes.ExecutionLevel = WdfExecutionLevelPassive;
              }),
              STATUS_NOT_SUPPORTED);
    EXPECT_EQ(fixture.TakeRules(), std::vector{Rule::kNotProvided});
}

TEST(Timers, ThatAreDeletedCallNoMore)
{
    TimersFixture fixture;
    const WDFTIMER own = fixture.New();
    const WDFTIMER self = fixture.New(10);
    fixture.attributes.EvtCleanupCallback = [](WDFOBJECT timer) NTAPI {
        EXPECT_FALSE(WdfTimerStart(static_cast<WDFTIMER>(timer), -1));
    };
    const WDFTIMER ofDevice = fixture.New(10);
    g_inCallback = [](WDFTIMER timer) { WdfObjectDelete(timer); };
    WdfTimerStart(own, WDF_REL_TIMEOUT_IN_MS(3));
    WdfObjectDelete(own);
    WdfTimerStart(self, WDF_REL_TIMEOUT_IN_MS(3));
    fixture.machine.AdvanceClock(5ms);
    EXPECT_EQ(g_due, (std::vector<Due>{{self, 3, DISPATCH_LEVEL}}));
    fixture.machine.RunWorkItems();  // a timer's end needs PASSIVE_LEVEL
    fixture.machine.AdvanceClock(20ms);
    EXPECT_EQ(g_due.size(), 1u);
    EXPECT_FALSE(fixture.machine.inspect().Find(self));
    WdfTimerStart(ofDevice, WDF_REL_TIMEOUT_IN_MS(3));
    EXPECT_EQ(fixture.TakeRules(), std::vector<Rule>{}) << fixture.Text();
    fixture.TakeDown();
    EXPECT_EQ(fixture.TakeRules(), std::vector{Rule::kDeadHandle}) << fixture.Text();
    fixture.machine.AdvanceClock(20ms);
    EXPECT_EQ(g_due.size(), 1u);
}

TEST(Timers, ShowWhatMayNotBeDoneWithThem)
{
    static WDFWAITLOCK waitLock;
    static WDFSPINLOCK spinLock;
    TimersFixture fixture;
    waitLock = NewLock();
    ASSERT_EQ(WdfSpinLockCreate(nullptr, &spinLock), STATUS_SUCCESS);
    const auto rulesOf = [&](WDFTIMER timer, void (*callback)(WDFTIMER)) {
        g_inCallback = callback;
        WdfTimerStart(timer, WDF_REL_TIMEOUT_IN_MS(1));
        fixture.machine.AdvanceClock(1ms);
        fixture.machine.RunWorkItems();
        return fixture.TakeRules();
    };
    const WDFTIMER dispatch = fixture.New();
    EXPECT_EQ(rulesOf(dispatch, [](WDFTIMER) { (void)WdfWaitLockAcquire(waitLock, nullptr); }),
              std::vector{Rule::kIrql});
    EXPECT_EQ(rulesOf(dispatch, [](WDFTIMER) { WdfSpinLockAcquire(spinLock); }), std::vector{Rule::kLockKept});
    EXPECT_NE(fixture.Text().find("EvtTimerFunc"), std::string::npos) << fixture.Text();
    const WDFTIMER passive = fixture.New(0, WdfExecutionLevelPassive);
    EXPECT_EQ(rulesOf(passive, [](WDFTIMER self) { EXPECT_FALSE(WdfTimerStop(self, TRUE)); }),
              std::vector{Rule::kSelfWait});
    EXPECT_EQ(rulesOf(passive, [](WDFTIMER self) { WdfObjectDelete(self); }), std::vector{Rule::kSelfWait});

    WdfTimerStart(dispatch, WDF_REL_TIMEOUT_IN_MS(1));
    {
        const host::ScopedIrql level(DISPATCH_LEVEL);
        EXPECT_FALSE(WdfTimerStop(dispatch, TRUE));
        EXPECT_EQ(fixture.TakeRules(), std::vector{Rule::kIrql});
        EXPECT_TRUE(WdfTimerStop(dispatch, FALSE));  // it was left in the queue
    }
}

TEST(Timers, WhoseCallbackHangsParkWhoWaitsForThem)
{
    static WDFSPINLOCK spinLock;
    TimersFixture fixture;
    ASSERT_EQ(WdfSpinLockCreate(nullptr, &spinLock), STATUS_SUCCESS);
    const WDFTIMER timer = fixture.New();
    g_inCallback = [](WDFTIMER) {
        WdfSpinLockAcquire(spinLock);
        WdfSpinLockAcquire(spinLock);
    };
    WdfTimerStart(timer, WDF_REL_TIMEOUT_IN_MS(1));
    fixture.machine.AdvanceClock(1ms);
    EXPECT_EQ(fixture.TakeRules(), std::vector{Rule::kSelfWait});
    const host::Outcome outcome = fixture.machine.OnThread("stopper", [&] { WdfTimerStop(timer, TRUE); });
    EXPECT_TRUE(outcome.parked);
    EXPECT_NE(outcome.reason.find("waits for the callback of timer #1"), std::string::npos) << outcome.reason;
    EXPECT_EQ(fixture.TakeRules(), std::vector{Rule::kDeadlock});
    fixture.Abandon();
}

}  // namespace
}  // namespace tests
