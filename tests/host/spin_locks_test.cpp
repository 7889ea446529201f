// Spin locks: at which level their holder runs, and what is found wrong in their use.
#include "tests/host/faulty_driver_fixture.h"

namespace tests {
namespace {

class SpinLocks : public FaultyDriverTest {};

WDFSPINLOCK NewSpinLock()
{
    WDFSPINLOCK lock = nullptr;
    EXPECT_EQ(WdfSpinLockCreate(WDF_NO_OBJECT_ATTRIBUTES, &lock), STATUS_SUCCESS);
    return lock;
}

TEST_F(SpinLocks, HolderRunsAtDispatchLevelUntilItsRelease)
{
    const WDFSPINLOCK outer = NewSpinLock();
    const WDFSPINLOCK inner = NewSpinLock();
    const WDFWAITLOCK passive = NewLock();
    WdfSpinLockAcquire(outer);
    WdfSpinLockAcquire(inner);
    WdfSpinLockRelease(inner);
    EXPECT_EQ(TakeRules(), std::vector<Rule>{}) << Text();
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

TEST_F(SpinLocks, TakenTwiceByOneThreadParkIt)
{
    const WDFSPINLOCK lock = NewSpinLock();
    Park("peer", [&] { WdfSpinLockAcquire(lock), WdfSpinLockAcquire(lock); });
    EXPECT_EQ(TakeRules(), std::vector{Rule::kSelfWait});
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
