// Calls that come from several threads: callbacks that are unregistered while they run, handles, exceptions.
#include "tests/host/faulty_driver_fixture.h"

#include <atomic>
#include <barrier>
#include <thread>

namespace tests {
namespace {

class Callbacks : public FaultyDriverTest {};
class Handles : public FaultyDriverTest {};
class HostThreads : public FaultyDriverTest {};

WDFWAITLOCK g_callbackLock;
std::atomic<bool> g_callbackRuns;

VOID NTAPI TakeLock(PVOID, PVOID, PVOID)
{
    g_callbackRuns = true;
    (void)WdfWaitLockAcquire(g_callbackLock, nullptr);
    g_callbackRuns = false;
    WdfWaitLockRelease(g_callbackLock);
}

TEST_F(Callbacks, UnregisteringWaitsUntilARunningOneHasReturned)
{
    g_callbackLock = NewLock();
    g_callbackRuns = false;
    const PCALLBACK_OBJECT object = OpenPowerState();
    PVOID registration = ExRegisterCallback(object, TakeLock, nullptr);
    ASSERT_EQ(WdfWaitLockAcquire(g_callbackLock, nullptr), STATUS_SUCCESS);
    std::thread power([&] { OnThread("power", [&] { machine.NotifyPowerState(0, 0); }); });
    while (!g_callbackRuns) {
        std::this_thread::yield();
    }
    std::atomic<bool> begins = false;
    std::thread unregister([&] {
        OnThread("unregister", [&] {
            begins = true;
            ExUnregisterCallback(registration);
            EXPECT_FALSE(g_callbackRuns);
        });
    });
    // One that does not wait has time to return.
    for (int turn = 0; turn < 10'000 || !begins; ++turn) {
        std::this_thread::yield();
    }
    WdfWaitLockRelease(g_callbackLock);
    power.join();
    unregister.join();
    ObfDereferenceObject(object);
}

TEST_F(Callbacks, UnregisteringOneThatCanNeverReturnParks)
{
    Abandon();
    g_callbackLock = NewLock();
    PVOID registration = ExRegisterCallback(OpenPowerState(), TakeLock, nullptr);
    const auto parks = [&](const char* name, const std::function<void()>& work) {
        EXPECT_TRUE(machine.OnThread(name, work).parked) << name;
    };
    // The unregistering thread holds the lock that the callback waits for: both are in one circle.
    std::thread power;
    parks("unregister", [&] {
        g_callbackRuns = false;
        (void)WdfWaitLockAcquire(g_callbackLock, nullptr);
        power = std::thread([&] { parks("power", [&] { machine.NotifyPowerState(0, 0); }); });
        while (!g_callbackRuns) {
            std::this_thread::yield();
        }
        ExUnregisterCallback(registration);
    });
    power.join();
    EXPECT_EQ(TakeRules(), (std::vector{Rule::kDeadlock, Rule::kDeadlock})) << Text();
}

TEST_F(Handles, AreOpenedAndClosedFromSeveralThreads)
{
    constexpr int kThreads = 4;
    constexpr int kTurns = 2000;
    std::barrier start(kThreads);
    std::vector<std::thread> threads;
    for (int number = 0; number < kThreads; ++number) {
        threads.emplace_back([&] {
            start.arrive_and_wait();
            for (int turn = 0; turn < kTurns; ++turn) {
                host::FileId file = 0;
                EXPECT_EQ(driver.Open(file).status, STATUS_SUCCESS);
                driver.Close(file);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    host::FileId file = 0;
    EXPECT_EQ(driver.Open(file).status, STATUS_SUCCESS);
    EXPECT_EQ(file, kThreads * kTurns + 1u);
    driver.Close(file);
}

TEST_F(HostThreads, HandExceptionsToWhoWaitsForTheWork)
{
    const auto refused = [&] { (void)machine.OnThread("application", [&] { (void)driver.DeviceControl(7, 0); }); };
    EXPECT_THROW(refused(), host::HostError);
    OnThread("next", [] {});
}

TEST(MemoryFaults, OutsideOfDriverCodeNameTheDriverCodeThatMadeTheCall)
{
    if (kSanitized) {
        GTEST_SKIP() << "the sanitizer itself reports the access";
    }
    const auto end = [](PFN_WDF_WORKITEM routine) {
        FaultyDriverFixture fixture;
        fixture.table.Hooks->Work = routine;
        WdfWorkItemEnqueue(fixture.table.WorkItem);
        (void)fixture.machine.RunWorkItems();
    };
    EXPECT_EXIT(
        end(reinterpret_cast<PFN_WDF_WORKITEM>(16)), testing::ExitedWithCode(4),
        "memory fault at no code, called by .*EvtWork.*touching 0x10.*by faulty.so!EvtWork \\(faulty.cpp:[0-9]+\\)");
    EXPECT_EXIT(end([](WDFWORKITEM) NTAPI { TouchNothing(); }), testing::ExitedWithCode(4),
                "memory fault at host, called by .*EvtWork.*by faulty.so!EvtWork \\(faulty.cpp:[0-9]+\\)");
}

}  // namespace
}  // namespace tests
