// Load, device add, start, removal and unload: what exists, what is reported, and every way device add can fail.
#include "tests/support/world.h"

namespace tests {
namespace {

using host::checks::Rule;

class Lifecycle : public OnContainer {};
FOR_ALL_CONTAINERS(Lifecycle);

TEST_P(Lifecycle, FirstReportsOfALoadAreTheBuildDateOnBothChannels)
{
    World world(GetParam(), {.boots = false});
    world.Load();
    EXPECT_EQ(world.driver->EntryStatus(), STATUS_SUCCESS);
    EXPECT_EQ(world.TakeRecords(), (Lines{"E44 DriverEntry", "M10 DriverEntry"}));
    const auto messages = world.machine.tracing().Messages();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].argumentSizes, (std::vector<std::uint32_t>{12, 9}));
    // "Nov  1 2026" and "02:40:53": 11 and 8 characters with their ends.
    const auto* text = reinterpret_cast<const char*>(messages[0].payload.data());
    EXPECT_EQ(text[3], ' ');
    EXPECT_EQ(text[6], ' ');
    EXPECT_EQ(text[12 + 2], ':');
    EXPECT_EQ(text[12 + 5], ':');
    // No device add has taken the reference that unload gives back.
    world.TakeDown();
    EXPECT_EQ(world.machine.violations().Take(Rule::kReferenceUnderflow).size(), 1u);
}

TEST_P(Lifecycle, WholeLifeReportsEachCallbackInOrderAndLeavesNothing)
{
    World world(GetParam(), {.boots = false});
    world.Load();
    ASSERT_EQ(world.driver->AddDevice(), STATUS_SUCCESS);
    world.Start();
    EXPECT_EQ(world.driver->Sleep(), STATUS_SUCCESS);
    EXPECT_EQ(world.driver->Wake(), STATUS_SUCCESS);
    world.TakeDown();
    EXPECT_EQ(world.TakeRecords(), (Lines{
                                       "E44 DriverEntry",
                                       "M10 DriverEntry",
                                       "M12 NotifierEvtDeviceAdd",
                                       "E41 NotifierEvtDeviceAdd",
                                       "E43 NotifierEvtDeviceAdd",
                                       "M16 NotifierEvtDeviceAdd",
                                       "M59 NotifierEvtDevicePrepareHardware",
                                       "E43 NotifierEvtDevicePrepareHardware",
                                       "M61 NotifierEvtDeviceD0Entry",
                                       "E43 NotifierEvtDeviceD0Entry",
                                       "M62 NotifierEvtDeviceD0Exit",
                                       "E43 NotifierEvtDeviceD0Exit",
                                       "M61 NotifierEvtDeviceD0Entry",
                                       "E43 NotifierEvtDeviceD0Entry",
                                       "M259 NotifierEvtDeviceSurpriseRemoval",
                                       "M62 NotifierEvtDeviceD0Exit",
                                       "E43 NotifierEvtDeviceD0Exit",
                                       "M60 NotifierEvtDeviceReleaseHardware",
                                       "E43 NotifierEvtDeviceReleaseHardware",
                                       "M54 NotifierEvtDeviceContextCleanup",
                                       "E43 NotifierEvtDeviceContextCleanup",
                                       "M99 NotifierClientCleanup",
                                       "M55 NotifierEvtDriverUnload",
                                       "E41 NotifierEvtDriverUnload",
                                       "M57 NotifierEvtDriverUnload",
                                       "M58 NotifierEvtDriverUnload",
                                   }));
    EXPECT_EQ(world.machine.tracing().EventProviders(), 0u);
    EXPECT_EQ(world.machine.tracing().MessageProviders(), 0u);
}

TEST_P(Lifecycle, FailingDriverCreationReturnsItsStatusAndLeavesTracingRegistered)
{
    World world(GetParam(), {.boots = false});
    world.Fail("WdfDriverCreate", STATUS_INSUFFICIENT_RESOURCES);
    world.Load();
    EXPECT_EQ(world.driver->EntryStatus(), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(world.TakeReports(), (Lines{"1 DriverEntry: WdfDriverCreate, 0xC000009A"}));
    EXPECT_EQ(world.TakeRecords(), (Lines{"E44 DriverEntry", "M10 DriverEntry", "E1 DriverEntry", "M11 DriverEntry"}));
    world.EndFaults();
    // Known and kept: both providers stay registered when the image goes.
    EXPECT_EQ(world.machine.violations().Take(Rule::kUnloadRegistration).size(), 2u);
}

TEST_P(Lifecycle, DeviceAddFillsTheContextAndRegistersForPowerStates)
{
    World world(GetParam());
    const DriverContext context = world.Context();
    const auto inspect = world.machine.inspect();
    const auto typeOf = [&](const void* handle) { return inspect.Find(const_cast<void*>(handle))->type; };
    using host::framework::ObjectType;
    EXPECT_EQ(typeOf(context.queue), ObjectType::kQueue);
    for (const auto collection :
         {context.addQueue, context.removeQueue, context.clients, context.states, context.commands}) {
        EXPECT_EQ(typeOf(collection), ObjectType::kCollection);
        EXPECT_EQ(inspect.Find(collection)->parent, world.driver->Handle());
    }
    for (const auto item :
         {context.addItem, context.removeItem, context.notifyStatesItem, context.notifyCommandsItem}) {
        EXPECT_EQ(typeOf(item), ObjectType::kWorkItem);
        EXPECT_EQ(inspect.Find(item)->parent, world.driver->Device());
    }
    for (const auto lock : {context.generalLock, context.clientsLock, context.statesLock, context.commandsLock,
                            context.notifyStatesLock, context.notifyCommandsLock, context.notifyAppsStateLock}) {
        EXPECT_EQ(typeOf(lock), ObjectType::kWaitLock);
        EXPECT_EQ(inspect.Find(lock)->parent, world.driver->Handle());
    }
    EXPECT_EQ(context.wpcdClient, nullptr);
    EXPECT_EQ(world.driver->PoolTag(), 0x3066746Eu) << "ntf0";
    EXPECT_NE(context.powerCallbackObject, nullptr);
    EXPECT_NE(context.powerCallbackRegistration, nullptr);
    // One more reference than the creation's, for the power callback.
    EXPECT_EQ(inspect.Find(world.driver->Handle())->references, 2);
}

TEST_P(Lifecycle, EveryDeviceAddStepFailsWithItsReportAndLeavesLaterFieldsNull)
{
    struct Row {
        const char* function;
        unsigned skip;
        const char* text;
        unsigned trace;
        unsigned filledFields;  // of the twenty
    };
    constexpr Row kRows[] = {
        {"WdfDeviceInitAssignName", 0, "WdfDeviceInitAssignName", 14, 0},
        {"WdfDeviceCreate", 0, "WdfDeviceCreate", 15, 0},
        {"WdfDeviceCreateSymbolicLink", 0, "WdfDeviceCreateSymbolicLink", 17, 0},
        {"WdfIoQueueCreate", 0, "WdfIoQueueCreate", 18, 0},
        {"WdfCollectionCreate", 0, "WdfCollectionObjectCreate for for wdfCollectionWpcdClientAddQueue", 19, 1},
        {"WdfCollectionCreate", 1, "WdfCollectionObjectCreate for for wdfCollectionWpcdClientRemoveQueue", 20, 2},
        {"WdfCollectionCreate", 2, "WdfCollectionObjectCreate for for wdfCollectionZepClients", 21, 3},
        {"WdfCollectionCreate", 3, "WdfCollectionObjectCreate for for wdfCollectionZepStates", 22, 4},
        {"WdfCollectionCreate", 4, "WdfCollectionObjectCreate for for wdfCollectionZepCommands", 23, 5},
        {"WdfWorkItemCreate", 0, "WdfWorkItemCreate for client add work item", 24, 6},
        {"WdfWorkItemCreate", 1, "WdfWorkItemCreate for client remove work item", 25, 7},
        {"WdfWorkItemCreate", 2, "WdfWorkItemCreate for client state notify work item", 26, 8},
        {"WdfWorkItemCreate", 3, "WdfWorkItemCreate for client notify command work item", 27, 9},
        {"WdfWaitLockCreate", 0, "WdfWaitLockCreate for wdfWaitLockGeneral", 31, 10},
        {"WdfWaitLockCreate", 1, "WdfWaitLockCreate for wdfWaitLockClientsCollection", 32, 11},
        {"WdfWaitLockCreate", 2, "WdfWaitLockCreate for wdfWaitLockStatesCollection", 33, 12},
        {"WdfWaitLockCreate", 3, "WdfWaitLockCreate for wdfWaitLockCommandsCollection", 34, 13},
        {"WdfWaitLockCreate", 4, "WdfWaitLockCreate for wdfWaitLockNotifyStatesWorkItem", 35, 14},
        {"WdfWaitLockCreate", 5, "WdfWaitLockCreate for wdfWaitLockNotifyCommandsWorkItem", 36, 15},
        {"WdfWaitLockCreate", 6, "WdfWaitLockCreate for wdfWaitLockNotifyAppsStateWorkItem", 37, 16},
        {"WdfDeviceCreateDeviceInterface", 0, "WdfDeviceCreateDeviceInterface for WPCD interface", 38, 17},
        {"WdfDeviceCreateDeviceInterface", 1, "WdfDeviceCreateDeviceInterface for Helper interface", 39, 17},
        {"WdfDeviceAddQueryInterface", 0, "WdfDeviceAddQueryInterface for WPCD interface", 40, 17},
        {"WdfDeviceAddQueryInterface", 1, "WdfDeviceAddQueryInterface for Helper interface", 41, 17},
        {"ExCreateCallback", 0, "ExCreateCallback for Power state callback", 42, 17},
    };
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.text);
        World world(GetParam(), {.boots = false});
        world.Load();
        world.Fail(row.function, STATUS_INSUFFICIENT_RESOURCES, row.skip);
        EXPECT_EQ(world.driver->AddDevice(), STATUS_INSUFFICIENT_RESOURCES);
        world.EndFaults();
        EXPECT_EQ(world.TakeReports(), (Lines{std::string("1 NotifierEvtDeviceAdd: ") + row.text + ", 0xC000009A"}));
        bool traced = false;
        for (const std::string& record : world.TakeRecords()) {
            traced = traced || record == "M" + std::to_string(row.trace) + " NotifierEvtDeviceAdd";
        }
        EXPECT_TRUE(traced);
        EXPECT_FALSE(world.driver->HasDevice());

        // The client object's field (number 11) stays null; it lies between locks and work items.
        const auto context = world.Context();
        const void* const fields[] = {context.queue,
                                      context.addQueue,
                                      context.removeQueue,
                                      context.clients,
                                      context.states,
                                      context.commands,
                                      context.addItem,
                                      context.removeItem,
                                      context.notifyStatesItem,
                                      context.notifyCommandsItem,
                                      context.generalLock,
                                      context.clientsLock,
                                      context.statesLock,
                                      context.commandsLock,
                                      context.notifyStatesLock,
                                      context.notifyCommandsLock,
                                      context.notifyAppsStateLock};
        for (unsigned index = 0; index < std::size(fields); ++index) {
            EXPECT_EQ(fields[index] != nullptr, index < row.filledFields) << "field " << index;
        }
        EXPECT_EQ(context.powerCallbackRegistration, nullptr);

        // Unload gives back a reference that this device add never took.
        world.TakeDown();
        EXPECT_EQ(world.machine.violations().Take(Rule::kReferenceUnderflow).size(), 1u);
    }
}

TEST_P(Lifecycle, StopAndRemoveRequestsAreRefusedButSurpriseRemovalDisablesHelperThenWpcd)
{
    World world(GetParam());
    EXPECT_EQ(world.driver->QueryStopDevice(), STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(world.driver->QueryRemoveDevice(), STATUS_INVALID_DEVICE_STATE);
    EXPECT_TRUE(world.driver->IsInterfaceEnabled(GUID_ZEP_NOTIFIER_HELPER_INTERFACE));
    EXPECT_TRUE(world.driver->IsInterfaceEnabled(GUID_ZEP_NOTIFIER_WPCD_INTERFACE));
    EXPECT_TRUE(world.driver->InterfaceChanges().empty());

    world.driver->SurpriseRemoveDevice();
    const auto changes = world.driver->InterfaceChanges();
    ASSERT_EQ(changes.size(), 2u);
    EXPECT_EQ(memcmp(&changes[0].interfaceClass, &GUID_ZEP_NOTIFIER_HELPER_INTERFACE, sizeof(GUID)), 0);
    EXPECT_EQ(memcmp(&changes[1].interfaceClass, &GUID_ZEP_NOTIFIER_WPCD_INTERFACE, sizeof(GUID)), 0);
    EXPECT_FALSE(changes[0].enabled || changes[1].enabled);
    EXPECT_FALSE(world.driver->IsInterfaceEnabled(GUID_ZEP_NOTIFIER_HELPER_INTERFACE));
}

TEST_P(Lifecycle, SecondDeviceIsRefusedByItsName)
{
    World world(GetParam());
    EXPECT_EQ(world.driver->AddDevice(), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(world.TakeReports(), (Lines{"1 NotifierEvtDeviceAdd: WdfDeviceCreate, 0xC0000035"}));
    EXPECT_TRUE(world.driver->HasDevice());
}

TEST_P(Lifecycle, TablesHaveTheBindingHeaderAndTheirReferencesDoNothing)
{
    World world(GetParam());
    for (const auto& [header, size] :
         {std::pair(world.helper.InterfaceHeader, 120), {world.wpcd.InterfaceHeader, 64}}) {
        EXPECT_EQ(header.Size, size);
        EXPECT_EQ(header.Version, 1);
        EXPECT_EQ(header.Context, world.driver->Device());
        ULONG padding = 1;
        memcpy(&padding, reinterpret_cast<const char*>(&header) + 4, sizeof(padding));
        EXPECT_EQ(padding, 0u) << "peers get no stack contents";
        EXPECT_EQ(header.InterfaceReference, header.InterfaceDereference);
        const long before = world.machine.inspect().Find(world.driver->Device())->references;
        header.InterfaceReference(header.Context);
        header.InterfaceDereference(nullptr);
        EXPECT_EQ(world.machine.inspect().Find(world.driver->Device())->references, before);
    }
    const auto* slots = reinterpret_cast<void* const*>(&world.helper);
    for (unsigned slot = 4; slot < 15; ++slot) {
        EXPECT_NE(slots[slot], nullptr) << "slot " << slot;
    }
}

}  // namespace
}  // namespace tests
