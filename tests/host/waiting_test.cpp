// Wait locks and work items: what waits, what is found to wait for ever, and what happens to it.
#include "tests/host/faulty_driver_fixture.h"

#include <barrier>
#include <regex>
#include <thread>

namespace tests {
namespace {

class WaitLocks : public FaultyDriverTest {};
class PowerCallbacks : public FaultyDriverTest {};
class WorkItems : public FaultyDriverTest {};

TEST_F(WaitLocks, AcquireAboveItsLevelFailsUnlessItOnlyTries)
{
    const WDFWAITLOCK lock = NewLock();
    const host::ScopedIrql level(DISPATCH_LEVEL);
    LONGLONG noTime = 0;
    EXPECT_EQ(WdfWaitLockAcquire(lock, &noTime), STATUS_SUCCESS);
    WdfWaitLockRelease(lock);
    EXPECT_EQ(TakeRules(), std::vector<Rule>{}) << Text();
    EXPECT_EQ(WdfWaitLockAcquire(lock, nullptr), STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(TakeRules(), std::vector{Rule::kIrql});
}

TEST_F(WaitLocks, ALockThatACallbackKeptParksItsNextTaker)
{
    Call("LockKept");
    EXPECT_TRUE(machine.RunWorkItems().parked.empty());
    EXPECT_EQ(TakeRules(), std::vector{Rule::kLockKept});
    const auto locks = machine.inspect().Objects(host::framework::ObjectType::kWaitLock);
    ASSERT_EQ(locks.size(), 1u);
    EXPECT_TRUE(Has(Park("next", [&] { (void)WdfWaitLockAcquire(static_cast<WDFWAITLOCK>(locks[0].handle), nullptr); }),
                    "kept when its callback returned"));
    EXPECT_EQ(TakeRules(), std::vector{Rule::kDeadlock});
}

TEST_F(WaitLocks, ADeadlockOfTwoParksBothAndTheirOrderIsReported)
{
    const WDFWAITLOCK first = NewLock();
    const WDFWAITLOCK second = NewLock();
    std::barrier bothHold(2);
    host::Outcome outcomes[2];
    const auto take = [&](unsigned index, WDFWAITLOCK one, WDFWAITLOCK other) {
        outcomes[index] = machine.OnThread("thread " + std::to_string(index), [&] {
            (void)WdfWaitLockAcquire(one, nullptr);
            bothHold.arrive_and_wait();
            (void)WdfWaitLockAcquire(other, nullptr);
        });
    };
    std::thread one(take, 0, first, second);
    std::thread two(take, 1, second, first);
    one.join();
    two.join();
    EXPECT_TRUE(outcomes[0].parked && outcomes[1].parked);
    EXPECT_EQ(machine.violations().Take(Rule::kDeadlock).size(), 2u);
    EXPECT_EQ(machine.violations().Take(Rule::kLockOrder).size(), 1u);
}

TEST_F(WaitLocks, ADeclaredOrderIsHeldToFromTheFirstTime)
{
    const WDFWAITLOCK outer = NewLock();
    const WDFWAITLOCK beside = NewLock();
    const WDFWAITLOCK inner = NewLock();
    machine.RankLock(outer, 1);
    machine.RankLock(beside, 1);
    machine.RankLock(inner, 2);
    TakeBoth(outer, inner);
    TakeBoth(NewLock(), outer);  // of no rank: free
    EXPECT_EQ(TakeRules(), std::vector<Rule>{}) << Text();
    TakeBoth(inner, outer);
    TakeBoth(outer, beside);
    EXPECT_EQ(TakeRules(), (std::vector{Rule::kLockOrder, Rule::kLockOrder}));
    EXPECT_TRUE(Has(Text(), "of rank 1 is taken while"));
    EXPECT_THROW(machine.RankLock(reinterpret_cast<WDFWAITLOCK>(NewObject()), 1), host::HostError);
}

TEST(TestsOwnThread, ThatHangsFailsItsCaseAlone)
{
    {
        FaultyDriverFixture fixture;
        fixture.Abandon();
        const std::string text = Thrown([&] { fixture.Call("SelfWait"); });
        EXPECT_TRUE(std::regex_search(
            text, std::regex("thread \"main\" can never go on: it waits for wait lock #1, which it holds itself\n"
                             "self-wait: WdfWaitLockAcquire called from faulty.so!SelfWait.*\n"
                             "  by .*!SelfWait \\(scenarios.cpp:[0-9]+\\) \u2192 wait lock #1, which this thread holds "
                             "since faulty.so!SelfWait \\(scenarios.cpp:[0-9]+\\)")))
            << text;
        (void)fixture.TakeRules();
    }
    FaultyDriverFixture next;
    WDFWAITLOCK lock = NewLock();
    EXPECT_EQ(WdfWaitLockAcquire(lock, nullptr), STATUS_SUCCESS);
    WdfWaitLockRelease(lock);
}

TEST_F(WaitLocks, WhatAHangLeavesBehindIsCountedWithTheHang)
{
    OnThread("peer", [&] { Call("LeavesPool"); });
    Park("other", [&] { Call("SelfWait"); });
    TakeDown();
    const std::vector<Violation> found = machine.violations().All();
    EXPECT_EQ(TakeRules(), std::vector{Rule::kSelfWait}) << Text();
    EXPECT_EQ(found[0].followedBy, std::vector{Rule::kLeak});
    EXPECT_TRUE(Has(found[0].FullText(), "which led to 1 x leak"));
}

VOID NTAPI TakeTwice(PVOID context, PVOID, PVOID)
{
    (void)WdfWaitLockAcquire(static_cast<WDFWAITLOCK>(context), nullptr);
    (void)WdfWaitLockAcquire(static_cast<WDFWAITLOCK>(context), nullptr);
}

TEST_F(PowerCallbacks, UnregisteringOneWhoseThreadIsParkedWaitsForEver)
{
    PCALLBACK_OBJECT const object = OpenPowerState();
    PVOID const registration = ExRegisterCallback(object, TakeTwice, NewLock());
    Park("power", [&] { machine.NotifyPowerState(0, 0); });
    EXPECT_EQ(TakeRules(), std::vector{Rule::kSelfWait});
    EXPECT_TRUE(
        Has(Park("other", [&] { ExUnregisterCallback(registration); }), "the callback routine that it unregisters"));
    EXPECT_EQ(TakeRules(), std::vector{Rule::kDeadlock});
    ObDereferenceObject(object);
}

PVOID g_registration;

TEST_F(PowerCallbacks, OneThatUnregistersItselfWaitsForItself)
{
    PCALLBACK_OBJECT const object = OpenPowerState();
    g_registration =
        ExRegisterCallback(object, [](PVOID, PVOID, PVOID) NTAPI { ExUnregisterCallback(g_registration); }, nullptr);
    Park("power", [&] { machine.NotifyPowerState(0, 0); });
    EXPECT_EQ(TakeRules(), std::vector{Rule::kSelfWait});
    ObDereferenceObject(object);
}

TEST_F(WorkItems, CannotFlushThemselves)
{
    table.Hooks->Work = [](WDFWORKITEM item) NTAPI { WdfWorkItemFlush(item); };
    WdfWorkItemEnqueue(table.WorkItem);
    EXPECT_TRUE(machine.RunWorkItems().parked.empty());
    EXPECT_EQ(TakeRules(), std::vector{Rule::kSelfWait});
    EXPECT_TRUE(Has(Text(), "is flushed by its own callback"));
}

TEST_F(WorkItems, DeletedAboveTheirLevelAreDisposedOnASystemThreadOrByTheRemoval)
{
    for (const bool isRemoved : {false, true}) {
        RenewDevice();
        {
            const host::ScopedIrql level(DISPATCH_LEVEL);
            WdfObjectDelete(table.WorkItem);
        }
        EXPECT_TRUE(machine.inspect().Find(table.WorkItem).has_value());
        if (isRemoved) {
            EndDevice();
        } else {
            (void)machine.RunWorkItems();
        }
        EXPECT_FALSE(machine.inspect().Find(table.WorkItem).has_value());
    }
}

TEST_F(WorkItems, MayLieBelowAnObjectOfTheDevice)
{
    WDF_WORKITEM_CONFIG config;
    WDF_WORKITEM_CONFIG_INIT(&config, [](WDFWORKITEM) NTAPI {});
    WDF_OBJECT_ATTRIBUTES attributes = Attributes(NewObject(table.Device));
    WDFWORKITEM item = nullptr;
    EXPECT_EQ(WdfWorkItemCreate(&config, &attributes, &item), STATUS_SUCCESS);
}

}  // namespace
}  // namespace tests
