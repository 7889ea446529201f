// Objects, references, contexts and collections, in the corners that decide what a driver may rely on.
#include "tests/host/faulty_driver_fixture.h"

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
WDFOBJECT NewNamed(WDFOBJECT parent, WDF_EXECUTION_LEVEL level = WdfExecutionLevelInheritFromParent)
{
    WDF_OBJECT_ATTRIBUTES attributes = Attributes(parent);
    attributes.ExecutionLevel = level;
    attributes.EvtCleanupCallback = Cleanup<kName>;
    attributes.EvtDestroyCallback = Destroy<kName>;
    WDFOBJECT object = nullptr;
    EXPECT_EQ(WdfObjectCreate(&attributes, &object), STATUS_SUCCESS);
    return object;
}

NTSTATUS CreateWith(WDF_OBJECT_ATTRIBUTES attributes)
{
    WDFOBJECT object = nullptr;
    return WdfObjectCreate(&attributes, &object);
}

class Objects : public FaultyDriverTest {
protected:
    Objects() { g_order.clear(); }
};
class Creations : public FaultyDriverTest {};
class Contexts : public FaultyDriverTest {};
class Collections : public FaultyDriverTest {};

TEST_F(Objects, AreDisposedChildrenFirstAndDestroyedAfterwards)
{
    const WDFOBJECT parent = NewNamed<'p'>(nullptr);
    const WDFOBJECT first = NewNamed<'1'>(parent);
    (void)NewNamed<'a'>(first);
    (void)NewNamed<'2'>(parent);
    WdfObjectDelete(parent);
    EXPECT_EQ(g_order, (Order{"cleanup a", "cleanup 1", "cleanup 2", "cleanup p", "destroy a", "destroy 1", "destroy 2",
                              "destroy p"}));
}

TEST_F(Objects, CallbacksFromTheCreationComeBeforeThoseOfLaterContexts)
{
    const WDFOBJECT object = NewNamed<'1'>(nullptr);  // without a context of its own
    WDF_OBJECT_ATTRIBUTES attributes = Attributes();
    WDF_OBJECT_ATTRIBUTES_SET_CONTEXT_TYPE(&attributes, FAULTY_CONTEXT);
    attributes.EvtCleanupCallback = Cleanup<'2'>;
    attributes.EvtDestroyCallback = Destroy<'2'>;
    ASSERT_EQ(WdfObjectAllocateContext(object, &attributes, nullptr), STATUS_SUCCESS);
    WdfObjectDelete(object);
    EXPECT_EQ(g_order, (Order{"cleanup 1", "cleanup 2", "destroy 1", "destroy 2"}));
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

TEST_F(Objects, AReferencePostponesOnlyTheDestruction)
{
    const WDFOBJECT parent = NewNamed<'p'>(nullptr);
    const WDFOBJECT child = NewNamed<'1'>(parent);
    WdfObjectReference(child);
    WdfObjectDelete(parent);
    EXPECT_EQ(g_order, (Order{"cleanup 1", "cleanup p", "destroy p"}));
    EXPECT_TRUE(machine.inspect().Find(child)->deleted);
    WdfObjectDereference(child);
    EXPECT_EQ(g_order.back(), "destroy 1");
    EXPECT_FALSE(machine.inspect().Find(child).has_value());
}

TEST_F(Objects, DeletedOnesTakeNoChildrenAndAreDeletedOnce)
{
    const WDFOBJECT object = NewObject();
    WdfObjectReference(object);
    WdfObjectDelete(object);
    EXPECT_EQ(CreateWith(Attributes(object)), STATUS_DELETE_PENDING);
    WdfObjectDelete(object);
    EXPECT_EQ(machine.SecondDeletes(), 1u);
    WdfObjectDereference(object);
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
    attributes.Size = 48;
    EXPECT_EQ(CreateWith(attributes), STATUS_INFO_LENGTH_MISMATCH);

    attributes = Attributes();
    attributes.ContextSizeOverride = 8;  // and no type
    attributes.ExecutionLevel = WdfExecutionLevelInvalid;
    EXPECT_EQ(CreateWith(attributes), STATUS_WDF_OBJECT_ATTRIBUTES_INVALID);

    attributes = {};
    attributes.Size = sizeof(attributes);
    EXPECT_EQ(CreateWith(attributes), STATUS_WDF_OBJECT_ATTRIBUTES_INVALID);

    attributes = Attributes();
    attributes.SynchronizationScope = WdfSynchronizationScopeDevice;
    EXPECT_EQ(CreateWith(attributes), STATUS_WDF_SYNCHRONIZATION_SCOPE_INVALID);

    attributes = Attributes();
    attributes.ExecutionLevel = WdfExecutionLevelPassive;
    EXPECT_EQ(CreateWith(attributes), STATUS_SUCCESS);
    WDFWAITLOCK lock = nullptr;
    EXPECT_EQ(WdfWaitLockCreate(&attributes, &lock), STATUS_WDF_EXECUTION_LEVEL_INVALID);
    EXPECT_EQ(lock, nullptr);
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

TEST_F(Contexts, AreZeroFoundByTypeAndAttachedOnce)
{
    const WDFOBJECT object = NewObject();
    EXPECT_EQ(WdfObjectGet_FAULTY_CONTEXT(object), nullptr);

    WDF_OBJECT_ATTRIBUTES attributes = Attributes();
    PVOID memory = nullptr;
    EXPECT_EQ(WdfObjectAllocateContext(object, nullptr, &memory), STATUS_WDF_PARENT_NOT_SPECIFIED);
    EXPECT_EQ(WdfObjectAllocateContext(object, &attributes, &memory), STATUS_OBJECT_NAME_INVALID);
    WDF_OBJECT_ATTRIBUTES_SET_CONTEXT_TYPE(&attributes, FAULTY_CONTEXT);
    ASSERT_EQ(WdfObjectAllocateContext(object, &attributes, &memory), STATUS_SUCCESS);
    EXPECT_EQ(static_cast<FAULTY_CONTEXT*>(memory)->Numbers[9], 0u);
    EXPECT_EQ(WdfObjectGet_FAULTY_CONTEXT(object), memory);
    EXPECT_EQ(WdfObjectContextGetObject(memory), object);

    PVOID again = nullptr;
    EXPECT_EQ(WdfObjectAllocateContext(object, &attributes, &again), STATUS_OBJECT_NAME_EXISTS);
    EXPECT_EQ(again, memory);

    WdfObjectReference(object);
    WdfObjectDelete(object);
    EXPECT_EQ(WdfObjectGet_FAULTY_CONTEXT(object), memory);
    WdfObjectDereference(object);
}

TEST_F(Collections, KeepDeletedItemsAndDuplicatesUntilTheyAreRemoved)
{
    const WDFCOLLECTION collection = NewCollection();
    const WDFOBJECT first = NewObject();
    const WDFOBJECT second = NewObject();
    for (const WDFOBJECT item : {first, second, first}) {
        ASSERT_EQ(WdfCollectionAdd(collection, item), STATUS_SUCCESS);
    }
    WdfObjectDelete(first);
    EXPECT_EQ(WdfCollectionGetCount(collection), 3u);
    WdfCollectionRemove(collection, first);  // the first of the two
    EXPECT_EQ(WdfCollectionGetFirstItem(collection), second);
    EXPECT_EQ(WdfCollectionGetLastItem(collection), first);
    EXPECT_EQ(WdfCollectionGetItem(collection, 2), nullptr);
    WdfCollectionRemoveItem(collection, 1);
    EXPECT_FALSE(machine.inspect().Find(first).has_value());

    // A collection that is deleted and still referenced keeps its contents.
    WdfObjectReference(collection);
    WdfObjectDelete(collection);
    EXPECT_EQ(WdfCollectionGetFirstItem(collection), second);
    WdfObjectDereference(collection);
    EXPECT_EQ(machine.inspect().Find(second)->references, 1);
}

}  // namespace
}  // namespace tests
