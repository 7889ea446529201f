// Objects and their attributes in the corners that the probe does not ask for.
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

class Objects : public FaultyDriverTest {
protected:
    Objects() { g_order.clear(); }
};
class Creations : public FaultyDriverTest {};

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
