// The calls that drivers make most often are answered without the framework's lock: with the same results and the same
// reports as when something looks at every call, and beside threads that change what is looked at.
#include "host/framework/functions.h"
#include "tests/host/faulty_driver_fixture.h"
#include "tests/kit/single_steps.h"

#include <dlfcn.h>
#include <link.h>

#include <atomic>
#include <thread>

// Where this program's code begins and ends, by the linker.
extern "C" const char __executable_start;  // NOLINT(bugprone-reserved-identifier)
extern "C" const char etext;

namespace tests {
namespace {

WDFWORKITEM NewWorkItem(const FaultyDriverFixture& fixture, PFN_WDF_WORKITEM routine)
{
    WDF_WORKITEM_CONFIG config;
    WDF_WORKITEM_CONFIG_INIT(&config, routine);
    WDF_OBJECT_ATTRIBUTES attributes = Attributes(fixture.table.Device);
    WDFWORKITEM item = nullptr;
    EXPECT_EQ(WdfWorkItemCreate(&config, &attributes, &item), STATUS_SUCCESS);
    return item;
}

// While one exists, this program's code passes for code that may be paged out.
class PagedOut {
public:
    explicit PagedOut(FaultyDriverFixture& fixture) : code_(fixture.machine.environment().pagedCode)
    {
        code_.Add(&__executable_start, static_cast<std::size_t>(&etext - &__executable_start));
    }
    ~PagedOut() { code_.Remove(&__executable_start); }
    PagedOut(const PagedOut&) = delete;
    PagedOut& operator=(const PagedOut&) = delete;

private:
    host::checks::PagedCode& code_;
};

TEST(FastCalls, AnswerAndReportAsWhenEachCallIsObserved)
{
    for (const bool observed : {false, true}) {
        FaultyDriverFixture fixture;
        if (observed) {
            fixture.machine.environment().SetObserver([](const host::ObservedCall&) {});
        }
        const WDFCOLLECTION collection = NewCollection();
        const WDFOBJECT item = NewObject();
        const WDFOBJECT dead = NewObject();
        const WDFWORKITEM work = NewWorkItem(fixture, [](WDFWORKITEM) NTAPI {});
        WdfObjectDelete(dead);
        ASSERT_EQ(WdfCollectionAdd(collection, item), STATUS_SUCCESS);
        EXPECT_EQ(WdfCollectionGetCount(collection), 1u);
        EXPECT_EQ(WdfCollectionGetItem(collection, 0), item);
        EXPECT_EQ(WdfCollectionGetItem(collection, 1), nullptr);
        EXPECT_NE(WdfObjectGet_FAULTY_CONTEXT(item), nullptr);
        EXPECT_EQ(WdfObjectGet_FAULTY_CONTEXT(collection), nullptr);

        EXPECT_EQ(WdfObjectGet_FAULTY_CONTEXT(nullptr), nullptr);
        EXPECT_EQ(fixture.TakeRules(), std::vector{Rule::kNullHandle});
        EXPECT_EQ(WdfObjectGet_FAULTY_CONTEXT(dead), nullptr);
        EXPECT_EQ(fixture.TakeRules(), std::vector{Rule::kDeadHandle});
        EXPECT_TRUE(Has(fixture.Text(), "was a general object (FAULTY_CONTEXT) that is gone"));
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
        {
            const PagedOut paged(fixture);
            const host::ScopedIrql level(DISPATCH_LEVEL);
            EXPECT_NE(WdfObjectGet_FAULTY_CONTEXT(item), nullptr);
            EXPECT_EQ(WdfCollectionGetCount(collection), 1u);
            EXPECT_EQ(WdfCollectionGetItem(collection, 0), item);
            EXPECT_EQ(WdfCollectionGetFirstItem(collection), item);
            WdfWorkItemEnqueue(work);
            WdfWorkItemEnqueue(work);
        }
        EXPECT_EQ(fixture.TakeRules(), std::vector(6, Rule::kIrql));
        fixture.machine.environment().SetObserver(nullptr);
    }
}

TEST(FastCalls, AnObserverAndAFaultMeetEachOfThem)
{
    FaultyDriverFixture fixture;
    const WDFCOLLECTION collection = NewCollection();
    const WDFOBJECT item = NewObject();
    const WDFWAITLOCK lock = NewLock();
    const WDFWORKITEM work = NewWorkItem(fixture, [](WDFWORKITEM) NTAPI {});
    ASSERT_EQ(WdfCollectionAdd(collection, item), STATUS_SUCCESS);
    std::vector<std::string> seen;
    fixture.machine.environment().SetObserver([&](const host::ObservedCall& call) { seen.push_back(call.function); });
    const auto callAll = [&] {
        (void)WdfObjectGet_FAULTY_CONTEXT(item);
        (void)WdfCollectionGetCount(collection);
        (void)WdfCollectionGetItem(collection, 0);
        (void)WdfCollectionGetFirstItem(collection);
        (void)WdfWaitLockAcquire(lock, nullptr);
        WdfWaitLockRelease(lock);
        WdfWorkItemEnqueue(work);
        WdfWorkItemEnqueue(work);
    };
    callAll();
    fixture.machine.environment().SetObserver(nullptr);
    callAll();
    const std::vector<std::string> names = {"WdfObjectGetTypedContextWorker",
                                            "WdfCollectionGetCount",
                                            "WdfCollectionGetItem",
                                            "WdfCollectionGetFirstItem",
                                            "WdfWaitLockAcquire",
                                            "WdfWaitLockRelease",
                                            "WdfWorkItemEnqueue",
                                            "WdfWorkItemEnqueue"};
    EXPECT_EQ(seen, names);

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
    EXPECT_EQ(stepsOf([&] { (void)WdfCollectionGetFirstItem(collection); }), 1u);
    EXPECT_EQ(stepsOf([&] { EXPECT_EQ(WdfCollectionGetLastItem(collection), last); }), 1u);
    EXPECT_EQ(stepsOf([&] { EXPECT_EQ(WdfCollectionGetItem(collection, 99), nullptr); }), kItems);
    EXPECT_EQ(stepsOf([&] { WdfCollectionRemove(collection, last); }), kItems);
    EXPECT_EQ(stepsOf([&] { WdfCollectionRemoveItem(collection, 0); }), 1u);
}

TEST(FastCalls, FindItemsInTheOrderAddedThroughGrowthAndRemoval)
{
    FaultyDriverFixture fixture;
    const WDFCOLLECTION collection = NewCollection();
    std::vector<WDFOBJECT> expected;
    const auto compare = [&] {
        ASSERT_EQ(WdfCollectionGetCount(collection), expected.size());
        for (ULONG index = 0; index < expected.size(); ++index) {
            ASSERT_EQ(WdfCollectionGetItem(collection, index), expected[index]) << index;
        }
        ASSERT_EQ(WdfCollectionGetItem(collection, static_cast<ULONG>(expected.size())), nullptr);
    };
    // From the front while others come, as a queue; then from the middle and the end.
    for (ULONG round = 0; round < 40; ++round) {
        for (ULONG added = 0; added < 3; ++added) {
            expected.push_back(NewObject(collection));
            ASSERT_EQ(WdfCollectionAdd(collection, expected.back()), STATUS_SUCCESS);
        }
        WdfCollectionRemoveItem(collection, 0);
        expected.erase(expected.begin());
        compare();
    }
    while (!expected.empty()) {
        const std::size_t index = expected.size() % 3 == 0 ? expected.size() - 1 : expected.size() / 2;
        WdfCollectionRemove(collection, expected[index]);
        expected.erase(expected.begin() + static_cast<std::ptrdiff_t>(index));
        compare();
    }
}

TEST(FastCalls, LookWhileOtherThreadsAddAndRemove)
{
    FaultyDriverFixture fixture;
    const WDFCOLLECTION queue = NewCollection();
    constexpr ULONG kLength = 5;
    for (ULONG item = 0; item < kLength; ++item) {
        ASSERT_EQ(WdfCollectionAdd(queue, NewObject()), STATUS_SUCCESS);
    }
    std::atomic<bool> isOver{false};
    std::thread changer([&] {
        for (unsigned round = 0; round < 5000; ++round) {
            const WDFOBJECT added = NewObject();
            EXPECT_EQ(WdfCollectionAdd(queue, added), STATUS_SUCCESS);
            const WDFOBJECT first = WdfCollectionGetFirstItem(queue);
            WdfCollectionRemove(queue, first);
            WdfObjectDelete(first);
        }
        isOver = true;
    });
    WDFOBJECT before = nullptr;
    while (!isOver) {
        const ULONG count = WdfCollectionGetCount(queue);
        EXPECT_TRUE(count == kLength || count == kLength + 1) << count;
        // Handles grow, and so does the queue's first item.
        const WDFOBJECT first = WdfCollectionGetItem(queue, 0);
        EXPECT_GE(first, before);
        before = first;
        EXPECT_EQ(WdfObjectGet_FAULTY_CONTEXT(queue), nullptr);
    }
    changer.join();
}

std::atomic<unsigned> g_posted;
std::vector<unsigned> g_delivered;  // by each run
std::atomic<bool> g_mayEnd;

// What is posted before an enqueue the next run sees, also when the item was queued already, or was just running.
TEST(FastCalls, AnEnqueueLetsARunBeginAfterIt)
{
    FaultyDriverFixture fixture({.workItems = host::WorkItems::kThreads, .workerCount = 1});
    g_delivered.clear();
    g_mayEnd = false;
    const WDFWORKITEM item = NewWorkItem(fixture, [](WDFWORKITEM) NTAPI {
        g_delivered.push_back(g_posted);
        g_posted = 0;
        while (!g_mayEnd) {
            std::this_thread::yield();
        }
    });
    g_posted = 1;
    WdfWorkItemEnqueue(item);
    while (g_posted != 0) {
        std::this_thread::yield();
    }
    for (const unsigned posted : {2u, 3u, 4u}) {
        g_posted = posted;
        WdfWorkItemEnqueue(item);
    }
    g_mayEnd = true;
    fixture.machine.WaitForWorkItems();
    EXPECT_EQ(g_delivered, (std::vector{1u, 4u}));
}

// A call that answers at once, about one object.
struct FastCall {
    const char* name;
    const void* code;
    WDFOBJECT (*make)();
    std::uintptr_t (*ask)(WDFOBJECT object);
};

unsigned g_items;  // that the next collection gets: one more than the last

const FastCall kFastCalls[] = {
    {"typed context", reinterpret_cast<const void*>(&host::framework::functions::ObjectGetTypedContext),
     [] { return NewObject(); },
     [](WDFOBJECT object) { return reinterpret_cast<std::uintptr_t>(WdfObjectGet_FAULTY_CONTEXT(object)); }},
    {"count", reinterpret_cast<const void*>(&host::framework::functions::CollectionGetCount),
     []() -> WDFOBJECT {
         const WDFCOLLECTION collection = NewCollection();
         for (unsigned item = 0; item <= g_items % 2; ++item) {
             EXPECT_EQ(WdfCollectionAdd(collection, NewObject(collection)), STATUS_SUCCESS);
         }
         ++g_items;
         return collection;
     },
     [](WDFOBJECT object) -> std::uintptr_t { return WdfCollectionGetCount(static_cast<WDFCOLLECTION>(object)); }},
    {"item", reinterpret_cast<const void*>(&host::framework::functions::CollectionGetItem),
     []() -> WDFOBJECT {
         const WDFCOLLECTION collection = NewCollection();
         EXPECT_EQ(WdfCollectionAdd(collection, NewObject(collection)), STATUS_SUCCESS);
         return collection;
     },
     [](WDFOBJECT object) {
         return reinterpret_cast<std::uintptr_t>(WdfCollectionGetItem(static_cast<WDFCOLLECTION>(object), 0));
     }},
    {"acquire", reinterpret_cast<const void*>(&host::framework::functions::WaitLockAcquire),
     []() -> WDFOBJECT { return NewLock(); },
     [](WDFOBJECT object) -> std::uintptr_t {
         return WdfWaitLockAcquire(static_cast<WDFWAITLOCK>(object), nullptr) == STATUS_SUCCESS ? 1 : 0;
     }},
};

std::size_t SizeOf(const void* code)
{
    Dl_info place{};
    void* symbol = nullptr;
    EXPECT_NE(dladdr1(code, &place, &symbol, RTLD_DL_SYMENT), 0);
    return symbol != nullptr && place.dli_saddr == code ? static_cast<const ElfW(Sym)*>(symbol)->st_size : 0;
}

// The answer is that object's own, or the handle is found to be dead: never the answer of the object that has its
// memory now, and never the dead object's when it went before the call took hold of it.
TEST(FastCalls, TakeNoObjectForAnotherThatGoesAndComesBetweenTwoInstructions)
{
    if (!kCanInterrupt || kSanitized) {
        GTEST_SKIP() << "needs a processor with a trap flag, and signals that come at once";
    }
    for (const FastCall& call : kFastCalls) {
        const std::size_t sizeBytes = SizeOf(call.code);
        ASSERT_NE(sizeBytes, 0u) << call.name;
        FaultyDriverFixture fixture;
        unsigned refusals = 0;
        unsigned count = 0;  // of the call's instructions when nothing comes between; run 0 finds it
        for (unsigned instruction = 0; instruction <= count; ++instruction) {
            const WDFOBJECT object = call.make();
            host::framework::Slot& slot = *host::framework::HandleTable::Current().Find(object);
            std::uintptr_t expected = 0;
            fixture.OnThread("before", [&] {
                expected = call.ask(object);
                if (slot.type == host::framework::ObjectType::kWaitLock) {
                    WdfWaitLockRelease(static_cast<WDFWAITLOCK>(object));
                }
            });
            WDFOBJECT successor = nullptr;
            std::uintptr_t answer = 0;
            fixture.OnThread("meanwhile", [&] {
                SingleSteps steps(call.code, sizeBytes, instruction, [&] {
                    // Who holds a lock has taken hold of it.
                    if (slot.owner == 0) {
                        WdfObjectDelete(object);
                        successor = call.make();
                    }
                });
                SingleSteps::Begin();
                answer = call.ask(object);
                SingleSteps::End();
                count = instruction == 0 ? steps.Seen() : count;
                if (successor == nullptr && slot.type == host::framework::ObjectType::kWaitLock) {
                    WdfWaitLockRelease(static_cast<WDFWAITLOCK>(object));
                }
            });
            const std::string where = std::string(call.name) + ", before instruction " + std::to_string(instruction);
            const std::vector<Rule> rules = fixture.TakeRules();
            if (answer == 0) {
                EXPECT_EQ(rules, std::vector{Rule::kDeadHandle}) << where;
                ++refusals;
            } else {
                EXPECT_EQ(answer, expected) << where;
                EXPECT_EQ(rules, std::vector<Rule>{}) << where << fixture.Text();
                EXPECT_FALSE(successor != nullptr && slot.type == host::framework::ObjectType::kWaitLock) << where;
            }
            WdfObjectDelete(successor != nullptr ? successor : object);
        }
        // It comes too late at last.
        EXPECT_GT(refusals, 1u) << call.name;
        EXPECT_LT(refusals, count) << call.name;
    }
}

TEST(FastCalls, AWaitLockKeepsOtherThreadsOut)
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
}

TEST(FastCalls, AReleaseWakesWhoWaits)
{
    FaultyDriverFixture fixture;
    const WDFWAITLOCK lock = NewLock();
    host::framework::DriverThreads& threads = host::framework::Framework::Current().threads;
    constexpr std::uint64_t kRounds = 50;
    for (std::uint64_t round = 0; round < kRounds; ++round) {
        ASSERT_EQ(WdfWaitLockAcquire(lock, nullptr), STATUS_SUCCESS);
        std::thread other([&] {
            EXPECT_EQ(WdfWaitLockAcquire(lock, nullptr), STATUS_SUCCESS);
            WdfWaitLockRelease(lock);
        });
        while (!threads.HasWaiting()) {
            std::this_thread::yield();
        }
        WdfWaitLockRelease(lock);
        other.join();
    }
    // A wait looks again from time to time in any case, and may do so just between the release and its notification.
    EXPECT_LT(threads.EndedUnnotified(), kRounds / 2);
}

// The memory of a list that grows serves the next list.
TEST(FastCalls, TakeNoItemOfAnotherListWhenOneGrowsBetweenTwoInstructions)
{
    if (!kCanInterrupt || kSanitized) {
        GTEST_SKIP() << "needs a processor with a trap flag, and signals that come at once";
    }
    constexpr ULONG kFull = 7;
    constexpr ULONG kAsked = 3;
    const auto fill = [](WDFCOLLECTION collection, ULONG count) {
        for (ULONG item = 0; item < count; ++item) {
            EXPECT_EQ(WdfCollectionAdd(collection, NewObject(collection)), STATUS_SUCCESS);
        }
    };
    const auto* const code = reinterpret_cast<const void*>(&host::framework::functions::CollectionGetItem);
    const std::size_t sizeBytes = SizeOf(code);
    ASSERT_NE(sizeBytes, 0u);
    FaultyDriverFixture fixture;
    unsigned count = 0;  // of the call's instructions when nothing comes between; run 0 finds it
    for (unsigned instruction = 0; instruction <= count; ++instruction) {
        const WDFCOLLECTION collection = NewCollection();
        fill(collection, kFull);
        const WDFOBJECT expected = WdfCollectionGetItem(collection, kAsked);
        WDFOBJECT answer = nullptr;
        fixture.OnThread("meanwhile", [&] {
            SingleSteps steps(code, sizeBytes, instruction, [&] {
                fill(collection, 1);
                fill(NewCollection(), kFull);
            });
            SingleSteps::Begin();
            answer = WdfCollectionGetItem(collection, kAsked);
            SingleSteps::End();
            count = instruction == 0 ? steps.Seen() : count;
        });
        EXPECT_EQ(answer, expected) << "before instruction " << instruction;
    }
    EXPECT_GT(count, 0u);
    EXPECT_EQ(fixture.TakeRules(), std::vector<Rule>());
}

}  // namespace
}  // namespace tests
