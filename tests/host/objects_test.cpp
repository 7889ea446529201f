// Objects and their attributes in the corners that the probe does not ask for.
#include "host/framework/framework.h"
#include "tests/host/faulty_driver_fixture.h"

#include <atomic>
#include <chrono>
#include <thread>

namespace tests {
namespace {

std::vector<std::string> g_order;
using Order = std::vector<std::string>;
WDFOBJECT g_toDelete;

template <char kName>
void NTAPI Cleanup(WDFOBJECT)
{
    g_order.push_back(std::string("cleanup ") + kName);
    if (g_toDelete != nullptr) {
        WdfObjectDelete(std::exchange(g_toDelete, nullptr));
    }
}

template <char kName>
void NTAPI Destroy(WDFOBJECT)
{
    g_order.push_back(std::string("destroy ") + kName);
}

template <char kName>
WDF_OBJECT_ATTRIBUTES NamedAttributes(WDFOBJECT parent = nullptr)
{
    WDF_OBJECT_ATTRIBUTES attributes = Attributes(parent);
    attributes.EvtCleanupCallback = Cleanup<kName>;
    attributes.EvtDestroyCallback = Destroy<kName>;
    return attributes;
}

template <char kName>
WDFOBJECT NewNamed(WDFOBJECT parent, WDF_EXECUTION_LEVEL level = WdfExecutionLevelInheritFromParent)
{
    WDF_OBJECT_ATTRIBUTES attributes = NamedAttributes<kName>(parent);
    attributes.ExecutionLevel = level;
    WDFOBJECT object = nullptr;
    EXPECT_EQ(WdfObjectCreate(&attributes, &object), STATUS_SUCCESS);
    return object;
}

class Objects : public FaultyDriverTest {
protected:
    Objects() { g_order.clear(); }
};
class Creations : public FaultyDriverTest {};

WDFREQUEST* g_pending;

void NTAPI CompletePending(WDFWORKITEM)
{
    g_order.emplace_back("own");
    if (g_pending != nullptr) {
        WdfRequestComplete(*std::exchange(g_pending, nullptr), STATUS_SUCCESS);
    }
}

class Ends : public Objects {
protected:
    WDFOBJECT QueuedWorkItem()
    {
        WDF_WORKITEM_CONFIG config;
        WDF_WORKITEM_CONFIG_INIT(&config, CompletePending);
        WDF_OBJECT_ATTRIBUTES attributes = NamedAttributes<'1'>(table.Device);
        WDFWORKITEM item = nullptr;
        EXPECT_EQ(WdfWorkItemCreate(&config, &attributes, &item), STATUS_SUCCESS);
        WdfWorkItemEnqueue(item);
        return item;
    }

    WDFOBJECT OpenTarget()
    {
        table.Hooks->FileClose = [](WDFFILEOBJECT) NTAPI { g_order.emplace_back("own"); };
        WDF_OBJECT_ATTRIBUTES attributes = NamedAttributes<'1'>();
        WDFIOTARGET target = nullptr;
        EXPECT_EQ(WdfIoTargetCreate(table.Device, &attributes, &target), STATUS_SUCCESS);
        PWSTR names = nullptr;
        EXPECT_EQ(IoGetDeviceInterfaces(&kFaultyInterface, nullptr, 0, &names), STATUS_SUCCESS);
        UNICODE_STRING name;
        RtlInitUnicodeString(&name, names);
        WDF_IO_TARGET_OPEN_PARAMS parameters;
        WDF_IO_TARGET_OPEN_PARAMS_INIT_OPEN_BY_NAME(&parameters, &name, GENERIC_READ);
        EXPECT_EQ(WdfIoTargetOpen(target, &parameters), STATUS_SUCCESS);
        ExFreePool(names);
        return target;
    }

    // A request is with the driver, whose queued work item completes it.
    WDFOBJECT QueueWithARequest()
    {
        table.Hooks->QueueCleanup = Cleanup<'1'>;
        table.Hooks->Work = CompletePending;
        table.Hooks->FileClose = [](WDFFILEOBJECT) NTAPI {};
        host::FileId file = 0;
        EXPECT_EQ(driver.Open(file).status, STATUS_SUCCESS);
        EXPECT_FALSE(driver.DeviceControl(file, kNeverCompletes).completed);
        driver.Close(file);
        g_pending = table.Pending;
        WdfWorkItemEnqueue(table.WorkItem);
        return table.Queue;
    }
};

// Waiting, or closing, is what the type adds.
TEST_F(Ends, ComeAfterTheChildrensAndWaitBeforeTheCleanupOfTheCreationAndThatOfLaterContexts)
{
    const std::vector<std::pair<const char*, std::function<WDFOBJECT()>>> kinds = {
        {"work item", [this] { return QueuedWorkItem(); }},
        {"I/O target", [this] { return OpenTarget(); }},
        {"queue", [this] { return QueueWithARequest(); }},
    };
    for (const auto& [kind, make] : kinds) {
        const WDFOBJECT object = make();
        (void)NewNamed<'a'>(object);
        WDF_OBJECT_ATTRIBUTES attributes = NamedAttributes<'2'>();
        WDF_OBJECT_ATTRIBUTES_SET_CONTEXT_TYPE(&attributes, FAULTY_CONTEXT);
        ASSERT_EQ(WdfObjectAllocateContext(object, &attributes, nullptr), STATUS_SUCCESS);
        g_order.clear();
        if (object == table.Queue) {
            EndDevice();  // a default queue ends with its device
        } else {
            WdfObjectDelete(object);
        }
        g_order.resize(4);  // destruction follows
        EXPECT_EQ(g_order, (Order{"cleanup a", "own", "cleanup 1", "cleanup 2"})) << kind;
    }
}

std::atomic<bool> g_isCleaning;

// Ends when somebody waits for it.
void NTAPI CleanUpSlowly(WDFOBJECT)
{
    g_isCleaning = true;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (!host::framework::Framework::Current().threads.HasWaiting() && std::chrono::steady_clock::now() < end) {
        std::this_thread::yield();
    }
    g_order.emplace_back("cleanup");
}

TEST(ObjectsOfAMachineWithThreads, AreDisposedByAWorkerForWhichTheUnloadWaits)
{
    FaultyDriverFixture fixture({.workItems = host::WorkItems::kThreads});
    g_order.clear();
    g_isCleaning = false;
    WDF_OBJECT_ATTRIBUTES attributes = Attributes();
    attributes.ExecutionLevel = WdfExecutionLevelPassive;
    attributes.EvtCleanupCallback = CleanUpSlowly;
    WDFOBJECT object = nullptr;
    ASSERT_EQ(WdfObjectCreate(&attributes, &object), STATUS_SUCCESS);
    {
        const host::ScopedIrql level(DISPATCH_LEVEL);
        WdfObjectDelete(object);
    }
    while (!g_isCleaning) {
        std::this_thread::yield();
    }
    fixture.TakeDown();
    EXPECT_EQ(g_order, Order{"cleanup"});
}

// An object whose callbacks must run at PASSIVE_LEVEL, deleted or dereferenced for the last time above it.
TEST_F(Objects, OfPassiveLevelAreDisposedAndDestroyedOnASystemThread)
{
    const WDFOBJECT object = NewNamed<'1'>(nullptr, WdfExecutionLevelPassive);
    WdfObjectReference(object);
    {
        const host::ScopedIrql level(DISPATCH_LEVEL);
        WdfObjectDelete(object);
        EXPECT_EQ(g_order, Order{});
    }
    (void)machine.RunWorkItems();
    EXPECT_EQ(g_order, Order{"cleanup 1"});
    {
        const host::ScopedIrql level(DISPATCH_LEVEL);
        WdfObjectDereference(object);
        EXPECT_EQ(g_order, Order{"cleanup 1"});
    }
    (void)machine.RunWorkItems();
    EXPECT_EQ(g_order, (Order{"cleanup 1", "destroy 1"}));
}

TEST_F(Objects, UnloadWaitsForDisposalsThatAreStillDeferred)
{
    const WDFOBJECT object = NewNamed<'1'>(nullptr, WdfExecutionLevelPassive);
    {
        const host::ScopedIrql level(DISPATCH_LEVEL);
        WdfObjectDelete(object);
    }
    TakeDown();
    EXPECT_EQ(g_order, (Order{"cleanup 1", "destroy 1"}));
    EXPECT_EQ(machine.QueuedWorkItems(), 0u);
}

TEST_F(Objects, ASiblingDeletedDuringTheParentsDisposalIsCleanedUpAndDestroyedOnce)
{
    const WDFOBJECT parent = NewNamed<'p'>(nullptr);
    (void)NewNamed<'1'>(parent);
    g_toDelete = NewNamed<'2'>(parent);
    WdfObjectDelete(parent);
    EXPECT_EQ(g_order, (Order{"cleanup 1", "cleanup 2", "cleanup p", "destroy 1", "destroy 2", "destroy p"}));
}

TEST(ObjectsOfAnEarlierMachine, AreForeign)
{
    WDFOBJECT earlier = nullptr;
    {
        const FaultyDriverFixture fixture;
        earlier = NewObject();
    }
    FaultyDriverFixture fixture;
    WdfObjectDelete(earlier);
    EXPECT_EQ(fixture.TakeRules(), std::vector{Rule::kForeignHandle});
}

TEST_F(Objects, AttributesAreRefusedInTheFrameworksOrder)
{
    WDF_OBJECT_ATTRIBUTES attributes = Attributes();
    attributes.ContextSizeOverride = 8;  // and no type
    attributes.ExecutionLevel = WdfExecutionLevelInvalid;
    WDFOBJECT object = nullptr;
    EXPECT_EQ(WdfObjectCreate(&attributes, &object), STATUS_WDF_OBJECT_ATTRIBUTES_INVALID);

    attributes = Attributes();
    attributes.ExecutionLevel = WdfExecutionLevelPassive;
    EXPECT_EQ(WdfObjectCreate(&attributes, &object), STATUS_SUCCESS);
    WDFWAITLOCK lock = nullptr;
    EXPECT_EQ(WdfWaitLockCreate(&attributes, &lock), STATUS_WDF_EXECUTION_LEVEL_INVALID);

    // A context that is attached later is as zero as one of the creation.
    EXPECT_EQ(WdfObjectAllocateContext(object, nullptr, nullptr), STATUS_WDF_PARENT_NOT_SPECIFIED);
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, FAULTY_CONTEXT);
    ASSERT_EQ(WdfObjectAllocateContext(object, &attributes, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(WdfObjectGet_FAULTY_CONTEXT(object)->Numbers[9], 0u);
}

void NTAPI NoWork(WDFWORKITEM)
{
}

template <class Handle, class Create>
bool FailureClears(const Create& create)
{
    char somewhere = 0;
    auto* const before = reinterpret_cast<Handle>(&somewhere);
    Handle handle = before;
    EXPECT_FALSE(NT_SUCCESS(create(&handle)));
    EXPECT_TRUE(handle == nullptr || handle == before);
    return handle == nullptr;
}

TEST_F(Creations, ThatFailClearTheHandleOrKeepItAsTheFrameworkDoes)
{
    WDF_OBJECT_ATTRIBUTES refused{};
    WDF_WORKITEM_CONFIG work;
    WDF_WORKITEM_CONFIG_INIT(&work, NoWork);
    WDF_IO_QUEUE_CONFIG queue;
    WDF_IO_QUEUE_CONFIG_INIT(&queue, WdfIoQueueDispatchManual);
    for (const char* cause : {"wrong size", "not initialised", "injected"}) {
        SCOPED_TRACE(cause);
        const bool isInjected = std::string(cause) == "injected";
        refused.Size = std::string(cause) == "wrong size" ? sizeof(refused) - 8 : sizeof(refused);
        for (const char* function : {"WdfCollectionCreate", "WdfWaitLockCreate", "WdfDriverOpenParametersRegistryKey",
                                     "WdfDeviceCreate", "WdfObjectCreate", "WdfWorkItemCreate", "WdfIoQueueCreate"}) {
            if (isInjected) {
                machine.faults().Add({.function = function});
            }
        }
        EXPECT_TRUE(FailureClears<WDFCOLLECTION>([&](auto* handle) { return WdfCollectionCreate(&refused, handle); }));
        EXPECT_TRUE(FailureClears<WDFWAITLOCK>([&](auto* handle) { return WdfWaitLockCreate(&refused, handle); }));
        EXPECT_TRUE(FailureClears<WDFKEY>([&](auto* handle) {
            return WdfDriverOpenParametersRegistryKey(WdfGetDriver(), KEY_READ, &refused, handle);
        }));
        EXPECT_FALSE(FailureClears<WDFOBJECT>([&](auto* handle) { return WdfObjectCreate(&refused, handle); }));
        EXPECT_FALSE(
            FailureClears<WDFWORKITEM>([&](auto* handle) { return WdfWorkItemCreate(&work, &refused, handle); }));
        EXPECT_FALSE(FailureClears<WDFQUEUE>(
            [&](auto* handle) { return WdfIoQueueCreate(table.Device, &queue, &refused, handle); }));
    }
    // Its init structure exists only during device add, so here this one can only be made to fail.
    PWDFDEVICE_INIT init = nullptr;
    EXPECT_TRUE(FailureClears<WDFDEVICE>([&](auto* handle) { return WdfDeviceCreate(&init, &refused, handle); }));
    machine.faults().Clear();
}

}  // namespace
}  // namespace tests
