// Spin locks: at which level their holder runs, and what is found wrong in their use.
#include "tests/host/faulty_driver_fixture.h"

namespace tests {
namespace {

WDFSPINLOCK NewSpinLock()
{
    WDFSPINLOCK lock = nullptr;
    EXPECT_EQ(WdfSpinLockCreate(WDF_NO_OBJECT_ATTRIBUTES, &lock), STATUS_SUCCESS);
    return lock;
}

TEST(SpinLocks, HolderRunsAtDispatchLevelUntilItsRelease)
{
    FaultyDriverFixture fixture;
    const WDFSPINLOCK outer = NewSpinLock();
    const WDFSPINLOCK inner = NewSpinLock();
    const WDFWAITLOCK passive = NewLock();
    WdfSpinLockAcquire(outer);
    WdfSpinLockAcquire(inner);
    WdfSpinLockRelease(inner);
    EXPECT_EQ(fixture.TakeRules(), std::vector<Rule>{}) << fixture.Text();
    EXPECT_EQ(WdfWaitLockAcquire(passive, nullptr), STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(fixture.TakeRules(), std::vector{Rule::kIrql});
    WdfSpinLockRelease(outer);
    EXPECT_EQ(WdfWaitLockAcquire(passive, nullptr), STATUS_SUCCESS);
    WdfWaitLockRelease(passive);
}

TEST(SpinLocks, LetOneThreadInAtATime)
{
    FaultyDriverFixture fixture;
    const WDFSPINLOCK lock = NewSpinLock();
    WdfSpinLockAcquire(lock);
    const host::Outcome outcome = fixture.machine.OnThread("other", [&] { WdfSpinLockAcquire(lock); });
    EXPECT_TRUE(outcome.parked);
    EXPECT_NE(outcome.reason.find("waits for spin lock #1, held by main"), std::string::npos) << outcome.reason;
    EXPECT_EQ(fixture.TakeRules(), std::vector{Rule::kDeadlock});  // we wait for it, and it for us
    WdfSpinLockRelease(lock);
}

TEST(SpinLocks, TakenTwiceByOneThreadParkIt)
{
    FaultyDriverFixture fixture;
    const WDFSPINLOCK lock = NewSpinLock();
    const host::Outcome outcome = fixture.machine.OnThread("peer", [&] {
        WdfSpinLockAcquire(lock);
        WdfSpinLockAcquire(lock);
    });
    EXPECT_TRUE(outcome.parked);
    EXPECT_EQ(fixture.TakeRules(), std::vector{Rule::kSelfWait});
}

TEST(SpinLocks, AreReleasedByTheirHolderAlone)
{
    FaultyDriverFixture fixture;
    const WDFSPINLOCK lock = NewSpinLock();
    WdfSpinLockRelease(lock);
    EXPECT_EQ(fixture.TakeRules(), std::vector{Rule::kLockNotOwned});
    WdfSpinLockAcquire(lock);
    fixture.OnThread("other", [&] { WdfSpinLockRelease(lock); });
    EXPECT_EQ(fixture.TakeRules(), std::vector{Rule::kLockNotOwned});
    EXPECT_TRUE(fixture.machine.inspect().Find(lock)->held);
    WdfSpinLockRelease(lock);
    EXPECT_FALSE(fixture.machine.inspect().Find(lock)->held);
}

TEST(SpinLocks, ThatACallbackKeptParkTheirNextTaker)
{
    static WDFSPINLOCK lock;
    FaultyDriverFixture fixture;
    lock = NewSpinLock();
    fixture.table.Hooks->Work = [](WDFWORKITEM) NTAPI { WdfSpinLockAcquire(lock); };
    WdfWorkItemEnqueue(fixture.table.WorkItem);
    EXPECT_TRUE(fixture.machine.RunWorkItems().parked.empty());
    EXPECT_EQ(fixture.TakeRules(), std::vector{Rule::kLockKept});
    EXPECT_NE(fixture.Text().find("it returned holding spin lock #1"), std::string::npos) << fixture.Text();
    EXPECT_TRUE(fixture.machine.OnThread("next", [&] { WdfSpinLockAcquire(lock); }).parked);
    EXPECT_EQ(fixture.TakeRules(), std::vector{Rule::kDeadlock});
}

}  // namespace
}  // namespace tests
