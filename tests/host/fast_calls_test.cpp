// The calls that drivers make most often are answered without the framework's lock: with the same results and the same
// reports as when something looks at every call, and beside threads that change what is looked at.
#include "tests/host/faulty_driver_fixture.h"

#include <atomic>
#include <thread>

namespace tests {
namespace {

WDFOBJECT NewWithContext(WDFOBJECT parent = nullptr)
{
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, FAULTY_CONTEXT);
    attributes.ParentObject = parent;
    WDFOBJECT object = nullptr;
    EXPECT_EQ(WdfObjectCreate(&attributes, &object), STATUS_SUCCESS);
    return object;
}

TEST(FastCalls, AnswerAndReportAsWhenEachCallIsObserved)
{
    for (const bool observed : {false, true}) {
        FaultyDriverFixture fixture;
        if (observed) {
            fixture.machine.environment().SetObserver([](const host::ObservedCall&) {});
        }
        const WDFCOLLECTION collection = NewCollection();
        const WDFOBJECT item = NewWithContext();
        const WDFOBJECT dead = NewWithContext();
        WdfObjectDelete(dead);
        ASSERT_EQ(WdfCollectionAdd(collection, item), STATUS_SUCCESS);
        EXPECT_EQ(WdfCollectionGetCount(collection), 1u);
        EXPECT_EQ(WdfCollectionGetItem(collection, 0), item);
        EXPECT_EQ(WdfCollectionGetItem(collection, 1), nullptr);
        EXPECT_NE(WdfObjectGet_FAULTY_CONTEXT(item), nullptr);
        EXPECT_EQ(WdfObjectGet_FAULTY_CONTEXT(collection), nullptr);
        EXPECT_EQ(fixture.TakeRules(), std::vector<Rule>{}) << fixture.Text();

        EXPECT_EQ(WdfObjectGet_FAULTY_CONTEXT(nullptr), nullptr);
        EXPECT_EQ(fixture.TakeRules(), std::vector{Rule::kNullHandle});
        EXPECT_EQ(WdfObjectGet_FAULTY_CONTEXT(dead), nullptr);
        EXPECT_EQ(fixture.TakeRules(), std::vector{Rule::kDeadHandle});
        EXPECT_NE(fixture.Text().find("was a general object (FAULTY_CONTEXT) that is gone"), std::string::npos);
        EXPECT_EQ(WdfCollectionGetCount(static_cast<WDFCOLLECTION>(item)), 0u);
        EXPECT_EQ(WdfCollectionGetItem(static_cast<WDFCOLLECTION>(item), 0), nullptr);
        EXPECT_EQ(WdfWaitLockAcquire(static_cast<WDFWAITLOCK>(item), nullptr), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(fixture.TakeRules(), std::vector(3, Rule::kWrongHandleType));
        {
            const host::ScopedIrql level(DISPATCH_LEVEL + 1);
            EXPECT_EQ(WdfCollectionGetCount(collection), 1u);
            EXPECT_EQ(WdfCollectionGetItem(collection, 0), item);
        }
        EXPECT_EQ(fixture.TakeRules(), std::vector(2, Rule::kIrql));
        fixture.machine.environment().SetObserver(nullptr);
    }
}

TEST(FastCalls, AFaultStrikesThem)
{
    FaultyDriverFixture fixture;
    const WDFCOLLECTION collection = NewCollection();
    const WDFOBJECT item = NewWithContext();
    ASSERT_EQ(WdfCollectionAdd(collection, item), STATUS_SUCCESS);
    fixture.machine.faults().Add({.function = "WdfCollectionGetItem", .form = host::checks::FaultForm::kNull});
    EXPECT_EQ(WdfCollectionGetItem(collection, 0), nullptr);
    fixture.machine.faults().Clear();
    EXPECT_EQ(WdfCollectionGetItem(collection, 0), item);
}

TEST(FastCalls, StepsThroughTheListAreThoseOfAWalkFromItsHead)
{
    FaultyDriverFixture fixture;
    const WDFCOLLECTION collection = NewCollection();
    constexpr ULONG kItems = 10;
    WDFOBJECT last = nullptr;
    for (ULONG item = 0; item < kItems; ++item) {
        last = NewObject();
        ASSERT_EQ(WdfCollectionAdd(collection, last), STATUS_SUCCESS);
    }
    const auto stepsOf = [&](const std::function<void()>& work) {
        const std::uint64_t before = fixture.machine.CollectionSteps();
        work();
        return fixture.machine.CollectionSteps() - before;
    };
    const auto walk = [&] {
        for (ULONG index = 0; index < WdfCollectionGetCount(collection); ++index) {
            EXPECT_NE(WdfCollectionGetItem(collection, index), nullptr);
        }
    };
    EXPECT_EQ(stepsOf(walk), kItems * (kItems + 1) / 2);
    fixture.machine.environment().SetObserver([](const host::ObservedCall&) {});
    EXPECT_EQ(stepsOf(walk), kItems * (kItems + 1) / 2);
    fixture.machine.environment().SetObserver(nullptr);
    EXPECT_EQ(stepsOf([&] { (void)WdfCollectionGetLastItem(collection); }), 0u);
    EXPECT_EQ(stepsOf([&] { EXPECT_EQ(WdfCollectionGetItem(collection, 99), nullptr); }), kItems);
    EXPECT_EQ(stepsOf([&] { WdfCollectionRemove(collection, last); }), kItems);
    EXPECT_EQ(stepsOf([&] { WdfCollectionRemoveItem(collection, 0); }), 1u);
}

TEST(FastCalls, LookWhileOtherThreadsAddAndRemove)
{
    FaultyDriverFixture fixture;
    const WDFCOLLECTION collection = NewCollection();
    const WDFOBJECT kept = NewWithContext();
    ASSERT_EQ(WdfCollectionAdd(collection, kept), STATUS_SUCCESS);
    std::atomic<bool> isOver{false};
    std::thread changer([&] {
        for (unsigned round = 0; round < 2000; ++round) {
            const WDFOBJECT passing = NewWithContext();
            EXPECT_EQ(WdfCollectionAdd(collection, passing), STATUS_SUCCESS);
            WdfCollectionRemove(collection, passing);
            WdfObjectDelete(passing);
        }
        isOver = true;
    });
    while (!isOver) {
        const ULONG count = WdfCollectionGetCount(collection);
        EXPECT_TRUE(count == 1 || count == 2) << count;
        EXPECT_EQ(WdfCollectionGetItem(collection, 0), kept);
        EXPECT_NE(WdfObjectGet_FAULTY_CONTEXT(kept), nullptr);
    }
    changer.join();
    EXPECT_EQ(fixture.TakeRules(), std::vector<Rule>{}) << fixture.Text();
}

TEST(FastCalls, AWaitLockKeepsOtherThreadsOutAndWakesThem)
{
    FaultyDriverFixture fixture;
    const WDFWAITLOCK lock = NewLock();
    unsigned inside = 0;
    unsigned turns = 0;
    const auto work = [&] {
        for (unsigned round = 0; round < 2000; ++round) {
            EXPECT_EQ(WdfWaitLockAcquire(lock, nullptr), STATUS_SUCCESS);
            EXPECT_EQ(++inside, 1u);
            ++turns;
            if (round % 100 == 0) {
                std::this_thread::yield();
            }
            --inside;
            WdfWaitLockRelease(lock);
        }
    };
    std::thread other(work);
    work();
    other.join();
    EXPECT_EQ(turns, 4000u);
    EXPECT_EQ(fixture.TakeRules(), std::vector<Rule>{}) << fixture.Text();
}

}  // namespace
}  // namespace tests
