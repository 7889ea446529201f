// Wait locks and work items: what waits, what is found to wait for ever, and what happens to it.
#include "tests/host/faulty_driver_fixture.h"

#include <regex>
#include <atomic>
#include <barrier>
#include <thread>

namespace tests {
namespace {

constexpr LONGLONG kOneMillisecond = -10000;

std::atomic<int> g_runs;
std::atomic<int> g_inside;
std::atomic<bool> g_overlapped;

TEST(WaitLocks, TimeOutWithASuccessStatus)
{
    FaultyDriverFixture fixture;
    const WDFWAITLOCK lock = NewLock();
    ASSERT_EQ(WdfWaitLockAcquire(lock, nullptr), STATUS_SUCCESS);
    fixture.OnThread("other", [&] {
        for (LONGLONG timeout : {LONGLONG{0}, kOneMillisecond}) {
            EXPECT_EQ(WdfWaitLockAcquire(lock, &timeout), STATUS_TIMEOUT);
        }
    });
    WdfWaitLockRelease(lock);
    fixture.OnThread("other", [&] {
        EXPECT_EQ(WdfWaitLockAcquire(lock, nullptr), STATUS_SUCCESS);
        WdfWaitLockRelease(lock);
    });
}

TEST(WaitLocks, AcquireAboveItsLevelFailsUnlessItOnlyTries)
{
    FaultyDriverFixture fixture;
    const WDFWAITLOCK lock = NewLock();
    const host::ScopedIrql level(DISPATCH_LEVEL);
    LONGLONG noTime = 0;
    EXPECT_EQ(WdfWaitLockAcquire(lock, &noTime), STATUS_SUCCESS);
    WdfWaitLockRelease(lock);
    EXPECT_EQ(fixture.TakeRules(), std::vector<Rule>{}) << fixture.Text();
    EXPECT_EQ(WdfWaitLockAcquire(lock, nullptr), STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(fixture.TakeRules(), std::vector{Rule::kIrql});
}

TEST(WaitLocks, ALockThatACallbackKeptParksItsNextTaker)
{
    FaultyDriverFixture fixture;
    fixture.Run("LockKept");
    EXPECT_TRUE(fixture.machine.RunWorkItems().parked.empty());
    EXPECT_EQ(fixture.TakeRules(), std::vector{Rule::kLockKept});
    const auto locks = fixture.machine.inspect().Objects(host::framework::ObjectType::kWaitLock);
    ASSERT_EQ(locks.size(), 1u);
    const host::Outcome outcome = fixture.machine.OnThread(
        "next", [&] { (void)WdfWaitLockAcquire(static_cast<WDFWAITLOCK>(locks[0].handle), nullptr); });
    EXPECT_TRUE(outcome.parked);
    EXPECT_NE(outcome.reason.find("kept when its callback returned"), std::string::npos) << outcome.reason;
    EXPECT_EQ(fixture.TakeRules(), std::vector{Rule::kDeadlock});
}

TEST(WaitLocks, ADeadlockOfTwoParksBothAndTheirOrderIsReported)
{
    FaultyDriverFixture fixture;
    const WDFWAITLOCK first = NewLock();
    const WDFWAITLOCK second = NewLock();
    std::barrier bothHold(2);
    host::Outcome outcomes[2];
    const auto take = [&](unsigned index, WDFWAITLOCK one, WDFWAITLOCK other) {
        outcomes[index] = fixture.machine.OnThread("thread " + std::to_string(index), [&] {
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
    EXPECT_EQ(fixture.machine.violations().Take(Rule::kDeadlock).size(), 2u);
    EXPECT_EQ(fixture.machine.violations().Take(Rule::kLockOrder).size(), 1u);
}

TEST(WaitLocks, ADeclaredOrderIsHeldToFromTheFirstTime)
{
    FaultyDriverFixture fixture;
    const WDFWAITLOCK outer = NewLock();
    const WDFWAITLOCK beside = NewLock();
    const WDFWAITLOCK inner = NewLock();
    fixture.machine.RankLock(outer, 1);
    fixture.machine.RankLock(beside, 1);
    fixture.machine.RankLock(inner, 2);
    const auto takeBoth = [](WDFWAITLOCK one, WDFWAITLOCK other) {
        (void)WdfWaitLockAcquire(one, nullptr);
        (void)WdfWaitLockAcquire(other, nullptr);
        WdfWaitLockRelease(other);
        WdfWaitLockRelease(one);
    };
    takeBoth(outer, inner);
    takeBoth(NewLock(), outer);  // of no rank: free
    EXPECT_EQ(fixture.TakeRules(), std::vector<Rule>{}) << fixture.Text();
    takeBoth(inner, outer);
    takeBoth(outer, beside);
    EXPECT_EQ(fixture.TakeRules(), (std::vector{Rule::kLockOrder, Rule::kLockOrder}));
    EXPECT_NE(fixture.Text().find("of rank 1 is taken while"), std::string::npos) << fixture.Text();
    EXPECT_THROW(fixture.machine.RankLock(reinterpret_cast<WDFWAITLOCK>(NewObject()), 1), host::HostError);
}

TEST(WaitLocks, ATestsOwnThreadThatHangsFailsItsCaseAlone)
{
    {
        FaultyDriverFixture fixture;
        fixture.Abandon();
        std::string text;
        try {
            fixture.Run("SelfWait");
        } catch (const host::Hang& hang) {
            text = hang.what();
        }
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

TEST(WaitLocks, WhatAHangLeavesBehindIsCountedWithTheHang)
{
    FaultyDriverFixture fixture;
    fixture.OnThread("peer", [&] { fixture.Run("LeavesPool"); });
    EXPECT_TRUE(fixture.machine.OnThread("other", [&] { fixture.Run("SelfWait"); }).parked);
    fixture.TakeDown();
    const std::vector<Violation> found = fixture.machine.violations().All();
    EXPECT_EQ(fixture.TakeRules(), std::vector{Rule::kSelfWait}) << fixture.Text();
    EXPECT_EQ(found[0].followedBy, std::vector{Rule::kLeak});
    EXPECT_NE(found[0].FullText().find("which led to 1 x leak"), std::string::npos) << found[0].FullText();
}

TEST(PowerCallbacks, UnregisteringOneWhoseThreadIsParkedWaitsForEver)
{
    FaultyDriverFixture fixture;
    WDFWAITLOCK lock = NewLock();
    PCALLBACK_OBJECT const object = OpenPowerState();
    PVOID const registration = ExRegisterCallback(
        object,
        [](PVOID context, PVOID, PVOID) NTAPI {
            (void)WdfWaitLockAcquire(static_cast<WDFWAITLOCK>(context), nullptr);
            (void)WdfWaitLockAcquire(static_cast<WDFWAITLOCK>(context), nullptr);
        },
        lock);
    EXPECT_TRUE(fixture.machine.OnThread("power", [&] { fixture.machine.NotifyPowerState(0, 0); }).parked);
    EXPECT_EQ(fixture.TakeRules(), std::vector{Rule::kSelfWait});
    const host::Outcome outcome = fixture.machine.OnThread("other", [&] { ExUnregisterCallback(registration); });
    EXPECT_TRUE(outcome.parked);
    EXPECT_NE(outcome.reason.find("the callback routine that it unregisters"), std::string::npos) << outcome.reason;
    EXPECT_EQ(fixture.TakeRules(), std::vector{Rule::kDeadlock});
    ObDereferenceObject(object);
}

PVOID g_registration;

TEST(PowerCallbacks, OneThatUnregistersItselfWaitsForItself)
{
    FaultyDriverFixture fixture;
    PCALLBACK_OBJECT const object = OpenPowerState();
    g_registration =
        ExRegisterCallback(object, [](PVOID, PVOID, PVOID) NTAPI { ExUnregisterCallback(g_registration); }, nullptr);
    EXPECT_TRUE(fixture.machine.OnThread("power", [&] { fixture.machine.NotifyPowerState(0, 0); }).parked);
    EXPECT_EQ(fixture.TakeRules(), std::vector{Rule::kSelfWait});
    ObDereferenceObject(object);
}

TEST(WorkItems, AreQueuedOnceAndAgainFromTheirOwnCallback)
{
    FaultyDriverFixture fixture;
    g_runs = 0;
    fixture.table.Hooks->Work = [](WDFWORKITEM item) NTAPI {
        if (++g_runs == 1) {
            WdfWorkItemEnqueue(item);
            WdfWorkItemEnqueue(item);
        }
    };
    WdfWorkItemEnqueue(fixture.table.WorkItem);
    WdfWorkItemEnqueue(fixture.table.WorkItem);
    EXPECT_EQ(fixture.machine.QueuedWorkItems(), 1u);
    EXPECT_EQ(fixture.machine.RunWorkItems().runs, 2u);
    EXPECT_EQ(g_runs, 2);
}

TEST(WorkItems, FlushWaitsForWhatIsQueuedButNotInTheirOwnCallback)
{
    FaultyDriverFixture fixture;
    g_runs = 0;
    fixture.table.Hooks->Work = [](WDFWORKITEM) NTAPI { ++g_runs; };
    WdfWorkItemEnqueue(fixture.table.WorkItem);
    WdfWorkItemFlush(fixture.table.WorkItem);
    EXPECT_EQ(g_runs, 1);

    fixture.table.Hooks->Work = [](WDFWORKITEM item) NTAPI { WdfWorkItemFlush(item); };
    WdfWorkItemEnqueue(fixture.table.WorkItem);
    EXPECT_TRUE(fixture.machine.RunWorkItems().parked.empty());
    EXPECT_EQ(fixture.TakeRules(), std::vector{Rule::kSelfWait});
    EXPECT_NE(fixture.Text().find("is flushed by its own callback"), std::string::npos) << fixture.Text();
}

std::vector<std::string> g_itemOrder;

TEST(WorkItems, AreDisposedAfterTheirChildrenAndWaitBeforeTheyCleanUp)
{
    FaultyDriverFixture fixture;
    g_itemOrder.clear();
    WDF_WORKITEM_CONFIG config;
    WDF_WORKITEM_CONFIG_INIT(&config, [](WDFWORKITEM) NTAPI { g_itemOrder.emplace_back("run"); });
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    attributes.ParentObject = fixture.table.Device;
    attributes.EvtCleanupCallback = [](WDFOBJECT) NTAPI { g_itemOrder.emplace_back("clean-up"); };
    WDFWORKITEM item = nullptr;
    ASSERT_EQ(WdfWorkItemCreate(&config, &attributes, &item), STATUS_SUCCESS);
    attributes.ParentObject = item;
    attributes.EvtCleanupCallback = [](WDFOBJECT) NTAPI { g_itemOrder.emplace_back("child's clean-up"); };
    WDFOBJECT child = nullptr;
    ASSERT_EQ(WdfObjectCreate(&attributes, &child), STATUS_SUCCESS);
    WdfWorkItemEnqueue(item);
    WdfObjectDelete(item);
    EXPECT_EQ(g_itemOrder, (std::vector<std::string>{"child's clean-up", "run", "clean-up"}));
}

TEST(WorkItems, DeletedAboveTheirLevelAreDisposedOnASystemThreadOrByTheRemoval)
{
    for (const bool isRemoved : {false, true}) {
        FaultyDriverFixture fixture;
        {
            const host::ScopedIrql level(DISPATCH_LEVEL);
            WdfObjectDelete(fixture.table.WorkItem);
        }
        EXPECT_TRUE(fixture.machine.inspect().Find(fixture.table.WorkItem).has_value());
        if (isRemoved) {
            fixture.driver.SurpriseRemoveDevice();
            EXPECT_FALSE(fixture.driver.RemoveDevice().parked);
        } else {
            (void)fixture.machine.RunWorkItems();
        }
        EXPECT_FALSE(fixture.machine.inspect().Find(fixture.table.WorkItem).has_value());
    }
}

TEST(WorkItems, RunsOfOneItemOverlapOnRealThreads)
{
    FaultyDriverFixture fixture({.workItems = host::WorkItems::kThreads, .workerCount = 2});
    g_runs = g_inside = 0;
    g_overlapped = false;
    fixture.table.Hooks->Work = [](WDFWORKITEM item) NTAPI {
        if (++g_inside == 2) {
            g_overlapped = true;
        }
        if (++g_runs == 1) {
            WdfWorkItemEnqueue(item);
            while (g_runs < 2) {  // ends only when a second run overlaps this one
                std::this_thread::yield();
            }
        }
        --g_inside;
    };
    WdfWorkItemEnqueue(fixture.table.WorkItem);
    fixture.machine.WaitForWorkItems();
    EXPECT_EQ(g_runs, 2);
    EXPECT_TRUE(g_overlapped);
}

TEST(WorkItems, CreationIsRefusedWithoutADeviceAbove)
{
    FaultyDriverFixture fixture;
    WDF_WORKITEM_CONFIG config;
    WDF_WORKITEM_CONFIG_INIT(&config, [](WDFWORKITEM) NTAPI {});
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    WDFWORKITEM item = nullptr;
    EXPECT_EQ(WdfWorkItemCreate(&config, nullptr, &item), STATUS_WDF_PARENT_NOT_SPECIFIED);
    EXPECT_EQ(WdfWorkItemCreate(&config, &attributes, &item), STATUS_WDF_PARENT_NOT_SPECIFIED);
    attributes.ParentObject = NewObject();
    EXPECT_EQ(WdfWorkItemCreate(&config, &attributes, &item), STATUS_INVALID_DEVICE_REQUEST);
    attributes.ParentObject = NewObject(fixture.table.Device);
    EXPECT_EQ(WdfWorkItemCreate(&config, &attributes, &item), STATUS_SUCCESS);
}

}  // namespace
}  // namespace tests
