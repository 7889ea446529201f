// Levels, spin locks, events and time as drivers have them from the kernel: what they answer, and which mistakes the
// host finds in their use.
#include "tests/host/faulty_driver_fixture.h"

#include "host/kernel/kernel.h"

#include <algorithm>
#include <functional>

namespace tests {
namespace {

class Events : public FaultyDriverTest {};
class KernelSpinLocks : public FaultyDriverTest {};
class KernelTime : public FaultyDriverTest {};

constexpr LONGLONG kMillisecond = -10'000;

NTSTATUS Wait(KEVENT& event, std::optional<LONGLONG> timeout = std::nullopt)
{
    LARGE_INTEGER time{.QuadPart = timeout.value_or(0)};
    return KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, timeout ? &time : nullptr);
}

TEST_F(Events, GiveTheirSignalToAllOrToOne)
{
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    EXPECT_EQ(Wait(event, 0), STATUS_TIMEOUT);
    EXPECT_EQ(KeSetEvent(&event, IO_NO_INCREMENT, FALSE), 0);
    EXPECT_EQ(KeSetEvent(&event, IO_NO_INCREMENT, FALSE), 1);
    EXPECT_EQ(Wait(event), STATUS_SUCCESS);
    EXPECT_EQ(Wait(event, kMillisecond), STATUS_SUCCESS);
    EXPECT_EQ(KeReadStateEvent(&event), 1);
    EXPECT_EQ(KeResetEvent(&event), 1);
    EXPECT_EQ(KeResetEvent(&event), 0);

    KeInitializeEvent(&event, SynchronizationEvent, TRUE);
    EXPECT_EQ(Wait(event), STATUS_SUCCESS);
    EXPECT_EQ(KeReadStateEvent(&event), 0);
    KeSetEvent(&event, IO_NO_INCREMENT, FALSE);
    KeClearEvent(&event);
    const host::ScopedIrql level(DISPATCH_LEVEL);
    EXPECT_EQ(Wait(event, 0), STATUS_TIMEOUT);
}

// In virtual time: nothing is slept.
TEST_F(Events, WaitsPassTheTimeThatNothingElseNeeds)
{
    host::kernel::Clock& clock = host::kernel::Kernel::Current().clock;
    KEVENT event;
    KeInitializeEvent(&event, SynchronizationEvent, FALSE);
    const std::int64_t begin = machine.Now();
    EXPECT_EQ(Wait(event, 3600 * 1000 * kMillisecond), STATUS_TIMEOUT);
    EXPECT_EQ(machine.Now() - begin, -3600 * 1000 * kMillisecond);
    EXPECT_EQ(Wait(event, clock.SystemTime() + 70), STATUS_TIMEOUT);  // an absolute time
    EXPECT_EQ(machine.Now() - begin, -3600 * 1000 * kMillisecond + 70);

    const std::int64_t due = machine.Now() + 500;
    clock.Schedule(due, [&] { KeSetEvent(&event, IO_NO_INCREMENT, FALSE); });
    EXPECT_EQ(Wait(event, kMillisecond), STATUS_SUCCESS);
    EXPECT_EQ(machine.Now(), due);
}

TEST_F(Events, WaitsGiveQueuedWorkItsTurn)
{
    static KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    table.Hooks->Work = [](WDFWORKITEM) NTAPI { KeSetEvent(&event, IO_NO_INCREMENT, FALSE); };
    WdfWorkItemEnqueue(table.WorkItem);
    EXPECT_EQ(Wait(event), STATUS_SUCCESS);
    EXPECT_EQ(machine.QueuedWorkItems(), 0u);
}

TEST_F(Events, AWaitThatNobodyEndsIsADeadlock)
{
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    // A timer that only comes again does not end it.
    host::kernel::Clock& clock = host::kernel::Kernel::Current().clock;
    std::function<void()> again = [&] { clock.Schedule(clock.Now() + host::kernel::kUnitsPerSecond, again); };
    again();
    EXPECT_TRUE(Has(Park("peer", [&] { (void)Wait(event); }), "waits for the event at 0x"));
    EXPECT_EQ(TakeRules(), std::vector{Rule::kDeadlock});
}

// With threads of its own the machine sleeps, and every thread that has something to do may end a wait.
TEST(EventsOfAMachineWithThreads, AreSetAcrossThem)
{
    static KEVENT go;
    static KEVENT gone;
    FaultyDriverFixture fixture({.workItems = host::WorkItems::kThreads});
    KeInitializeEvent(&go, SynchronizationEvent, FALSE);
    KeInitializeEvent(&gone, SynchronizationEvent, FALSE);
    fixture.table.Hooks->Work = [](WDFWORKITEM) NTAPI {
        EXPECT_EQ(Wait(go), STATUS_SUCCESS);
        KeSetEvent(&gone, IO_NO_INCREMENT, FALSE);
    };
    WdfWorkItemEnqueue(fixture.table.WorkItem);
    EXPECT_EQ(Wait(gone, kMillisecond), STATUS_TIMEOUT);
    KeSetEvent(&go, IO_NO_INCREMENT, FALSE);
    EXPECT_EQ(Wait(gone), STATUS_SUCCESS);
    fixture.machine.WaitForWorkItems();
    // While the workers still sleep, what is queued for them may set it.
    KeSetEvent(&go, IO_NO_INCREMENT, FALSE);
    WdfWorkItemEnqueue(fixture.table.WorkItem);
    EXPECT_EQ(Wait(gone), STATUS_SUCCESS);
    EXPECT_EQ(fixture.TakeRules(), std::vector<Rule>{}) << fixture.Text();

    WdfWorkItemEnqueue(fixture.table.WorkItem);
    fixture.machine.WaitForWorkItems();  // meanwhile nobody is left to set it
    EXPECT_EQ(fixture.TakeRules(), std::vector{Rule::kDeadlock});
    fixture.Abandon();
}

TEST_F(KernelSpinLocks, RaiseTheLevelUntilTheirRelease)
{
    KSPIN_LOCK outer;
    KSPIN_LOCK inner;
    KeInitializeSpinLock(&outer);
    KeInitializeSpinLock(&inner);
    KIRQL before = HIGH_LEVEL;
    KeAcquireSpinLock(&outer, &before);
    EXPECT_EQ(before, PASSIVE_LEVEL);
    KeAcquireSpinLockAtDpcLevel(&inner);
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    KeReleaseSpinLockFromDpcLevel(&inner);
    KeReleaseSpinLock(&outer, before);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    KeRaiseIrql(APC_LEVEL, &before);
    EXPECT_EQ(KeGetCurrentIrql(), APC_LEVEL);
    KeLowerIrql(before);
}

// What a driver may do wrong with them: each is found, named, and the driver goes on.
TEST(KernelSpinLockMistakes, AreReported)
{
    static KSPIN_LOCK lock;
    static KSPIN_LOCK other;
    static KEVENT event;
    struct Row {
        const char* name;
        void (*mistake)();
        Rule rule;
        const char* words;
    };
    const Row kRows[] = {
        {"wait at DISPATCH_LEVEL",
         [] {
             const KIRQL before = KeAcquireSpinLockRaiseToDpc(&lock);
             EXPECT_EQ(Wait(event, kMillisecond), STATUS_TIMEOUT);
             KeReleaseSpinLock(&lock, before);
         },
         Rule::kIrql, "KeWaitForSingleObject called from host on peer: called at IRQL 2, allowed up to 1"},
        {"at DPC level below it", [] { KeAcquireSpinLockAtDpcLevel(&lock), KeReleaseSpinLock(&lock, PASSIVE_LEVEL); },
         Rule::kIrql, "called at IRQL 0, allowed from 2 on"},
        {"released below its level",
         [] {
             const KIRQL before = KeAcquireSpinLockRaiseToDpc(&lock);
             KeLowerIrql(before);
             KeReleaseSpinLock(&lock, before);
         },
         Rule::kIrql, "called at IRQL 0, but the lock was taken at 2"},
        {"outer lock released first",
         [] {
             const KIRQL before = KeAcquireSpinLockRaiseToDpc(&lock);
             (void)KeAcquireSpinLockRaiseToDpc(&other);
             KeReleaseSpinLock(&lock, before);
             KeReleaseSpinLock(&other, KfRaiseIrql(DISPATCH_LEVEL));
         },
         Rule::kIrql, "the level goes down to 0 while the thread holds another spin lock"},
        {"nobody holds it",
         [] {
             const KIRQL before = KfRaiseIrql(DISPATCH_LEVEL);
             KeReleaseSpinLock(&lock, before);
             KeLowerIrql(before);
         },
         Rule::kLockNotOwned, "nobody holds it"},
        {"taken again", [] { (void)KeAcquireSpinLockRaiseToDpc(&lock), (void)KeAcquireSpinLockRaiseToDpc(&lock); },
         Rule::kSelfWait, "which it holds itself"},
        {"kept", [] { (void)KeAcquireSpinLockRaiseToDpc(&other); }, Rule::kLockKept,
         "it returned holding the spin lock that"},
        {"level kept", [] { (void)KfRaiseIrql(DISPATCH_LEVEL); }, Rule::kIrql,
         "it was called at IRQL 0 and returned at 2"},
        {"raised to a lower level", [] { (void)KfRaiseIrql(APC_LEVEL), (void)KfRaiseIrql(PASSIVE_LEVEL); }, Rule::kIrql,
         "from 1 to 0, which is lower"},
        {"lowered to a higher level", [] { KeLowerIrql(APC_LEVEL), KeLowerIrql(PASSIVE_LEVEL); }, Rule::kIrql,
         "from 0 to 1, which is higher"},
        {"no such event",
         [] {
             KEVENT copied = event;
             KeSetEvent(&copied, IO_NO_INCREMENT, FALSE);
         },
         Rule::kBadParameter, "no event that KeInitializeEvent made"},
        {"no such lock",
         [] {
             KSPIN_LOCK lockOfPool = 0xA5A5A5A5A5A5A5A5;
             KeReleaseSpinLock(&lockOfPool, KeAcquireSpinLockRaiseToDpc(&lockOfPool));
         },
         Rule::kBadParameter, "not initialized by KeInitializeSpinLock"},
    };
    for (const Row& row : kRows) {
        FaultyDriverFixture fixture;
        KeInitializeEvent(&event, NotificationEvent, FALSE);
        KeInitializeSpinLock(&lock);
        KeInitializeSpinLock(&other);
        (void)fixture.machine.OnThread("peer", row.mistake);
        EXPECT_EQ(fixture.TakeRules(), std::vector{row.rule}) << row.name << "\n" << fixture.Text();
        EXPECT_TRUE(Has(fixture.Text(), row.words)) << row.name;
    }
}

TEST_F(KernelTime, IsThatOfTheMachinesClock)
{
    LARGE_INTEGER frequency;
    LARGE_INTEGER systemBefore;
    LARGE_INTEGER systemAfter;
    KeQuerySystemTime(&systemBefore);
    const LONGLONG counterBefore = KeQueryPerformanceCounter(&frequency).QuadPart;
    const ULONG64 interruptBefore = KeQueryInterruptTime();
    LARGE_INTEGER interval{.QuadPart = 20 * kMillisecond};
    EXPECT_EQ(KeDelayExecutionThread(KernelMode, FALSE, &interval), STATUS_SUCCESS);
    KeStallExecutionProcessor(5);
    KeQuerySystemTime(&systemAfter);
    EXPECT_EQ(systemAfter.QuadPart - systemBefore.QuadPart, 200'050);
    EXPECT_EQ(KeQueryInterruptTime() - interruptBefore, 200'050u);
    EXPECT_EQ((KeQueryPerformanceCounter(nullptr).QuadPart - counterBefore) * 1'000'000 / frequency.QuadPart, 20'005);
}

TEST(Pool, GivesNullWhenItIsExhausted)
{
    FaultyDriverFixture fixture({.poolBytesMaximum = 100});
    constexpr ULONG kTag = 'tseT';
    PVOID const first = ExAllocatePoolWithTag(PagedPool, 60, kTag);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(ExAllocatePoolWithTag(PagedPool, 60, kTag), nullptr);
    EXPECT_EQ(ExAllocatePoolWithTag(PagedPool, ~SIZE_T{0}, kTag), nullptr);
    ExFreePoolWithTag(first, kTag);
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, FAULTY_CONTEXT);
    attributes.ContextSizeOverride = ~SIZE_T{0};
    WDFOBJECT object = nullptr;
    EXPECT_EQ(WdfObjectCreate(&attributes, &object), STATUS_INSUFFICIENT_RESOURCES);
    PVOID const second = ExAllocatePoolWithTag(PagedPool, 100, kTag);
    ASSERT_NE(second, nullptr);
    ExFreePoolWithTag(second, kTag);
}

TEST(Pool, IsZeroedUnlessTheFlagsSayOtherwise)
{
    constexpr ULONG kTag = 'tseT';
    FaultyDriverFixture fixture({.poolBytesMaximum = 64 * 1024});
    struct Row {
        POOL_FLAGS flags;
        SIZE_T bytes;
        int filledWith;  // -1: nothing is allocated
        std::vector<Rule> rules;
    };
    const Row kRows[] = {
        {POOL_FLAG_NON_PAGED, 100, 0, {}},
        {POOL_FLAG_PAGED | POOL_FLAG_UNINITIALIZED, 100, 0xA5, {}},
        {POOL_FLAG_NON_PAGED | POOL_FLAG_CACHE_ALIGNED, 100, 0, {}},
        {POOL_FLAG_NON_PAGED | (1ULL << 40), 100, 0, {}},  // a request that may be ignored
        {POOL_FLAG_NON_PAGED, 1 << 20, -1, {}},
        {POOL_FLAG_NON_PAGED_EXECUTE, 100, 0, {Rule::kBadParameter}},
        {POOL_FLAG_NON_PAGED | POOL_FLAG_PAGED, 100, -1, {Rule::kBadParameter}},
        {POOL_FLAG_UNINITIALIZED, 100, -1, {Rule::kBadParameter}},
        {POOL_FLAG_NON_PAGED | 0x400, 100, -1, {Rule::kBadParameter}},
    };
    for (const Row& row : kRows) {
        const auto* block = static_cast<const unsigned char*>(ExAllocatePool2(row.flags, row.bytes, kTag));
        EXPECT_EQ(fixture.TakeRules(), row.rules) << fixture.Text();
        ASSERT_EQ(block == nullptr, row.filledWith < 0) << row.flags;
        if (block != nullptr) {
            EXPECT_TRUE(std::all_of(block, block + row.bytes, [&](int byte) { return byte == row.filledWith; }));
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % ((row.flags & POOL_FLAG_CACHE_ALIGNED) != 0 ? 64 : 16),
                      0u);
            ExFreePool2(const_cast<unsigned char*>(block), kTag, nullptr, 0);
        }
    }
    const auto raise = [] { (void)ExAllocatePool2(POOL_FLAG_PAGED | POOL_FLAG_RAISE_ON_FAILURE, 1 << 20, kTag); };
    EXPECT_TRUE(Has(fixture.Park("peer", raise), "POOL_FLAG_RAISE_ON_FAILURE asks for an exception"));
    EXPECT_EQ(fixture.TakeRules(), std::vector{Rule::kNotProvided});
    ExFreePool(ExAllocatePoolZero(NonPagedPoolNx, 8, kTag));  // frees whatever tag
}

// ---- Spin locks of the framework ----

class SpinLocks : public FaultyDriverTest {};

TEST_F(SpinLocks, HolderRunsAtDispatchLevelUntilItsRelease)
{
    const WDFSPINLOCK outer = NewSpinLock();
    const WDFSPINLOCK inner = NewSpinLock();
    const WDFWAITLOCK passive = NewLock();
    WdfSpinLockAcquire(outer);
    WdfSpinLockAcquire(inner);
    WdfSpinLockRelease(inner);
    EXPECT_EQ(WdfWaitLockAcquire(passive, nullptr), STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(TakeRules(), std::vector{Rule::kIrql});
    WdfSpinLockRelease(outer);
    EXPECT_EQ(WdfWaitLockAcquire(passive, nullptr), STATUS_SUCCESS);
    WdfWaitLockRelease(passive);
}

TEST_F(SpinLocks, LetOneThreadInAtATime)
{
    const WDFSPINLOCK lock = NewSpinLock();
    WdfSpinLockAcquire(lock);
    EXPECT_TRUE(Has(Park("other", [&] { WdfSpinLockAcquire(lock); }), "waits for spin lock #1, held by main"));
    EXPECT_EQ(TakeRules(), std::vector{Rule::kDeadlock});  // we wait for it, and it for us
    WdfSpinLockRelease(lock);
}

TEST_F(SpinLocks, AreReleasedByTheirHolderAlone)
{
    const WDFSPINLOCK lock = NewSpinLock();
    WdfSpinLockRelease(lock);
    EXPECT_EQ(TakeRules(), std::vector{Rule::kLockNotOwned});
    WdfSpinLockAcquire(lock);
    OnThread("other", [&] { WdfSpinLockRelease(lock); });
    EXPECT_EQ(TakeRules(), std::vector{Rule::kLockNotOwned});
    EXPECT_TRUE(machine.inspect().Find(lock)->held);
    WdfSpinLockRelease(lock);
    EXPECT_FALSE(machine.inspect().Find(lock)->held);
}

TEST_F(SpinLocks, ThatACallbackKeptParkTheirNextTaker)
{
    static WDFSPINLOCK lock;
    lock = NewSpinLock();
    table.Hooks->Work = [](WDFWORKITEM) NTAPI { WdfSpinLockAcquire(lock); };
    WdfWorkItemEnqueue(table.WorkItem);
    EXPECT_TRUE(machine.RunWorkItems().parked.empty());
    EXPECT_EQ(TakeRules(), std::vector{Rule::kLockKept});
    EXPECT_TRUE(Has(Text(), "it returned holding spin lock #1"));
    Park("next", [&] { WdfSpinLockAcquire(lock); });
    EXPECT_EQ(TakeRules(), std::vector{Rule::kDeadlock});
}

}  // namespace
}  // namespace tests
