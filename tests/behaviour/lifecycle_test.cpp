// Load, device add, start, removal and unload: what exists, what is reported, and every way device add can fail.
#include "tests/kit/driver_fixture.h"

namespace tests {
namespace {

using host::checks::Rule;

class Lifecycle : public OnDriver {};
FOR_ALL_CONTAINERS(Lifecycle);
class Loading : public OnContainer {};
FOR_ALL_CONTAINERS(Loading);

TEST_P(Loading, FirstReportsOfALoadAreTheBuildDateOnBothChannels)
{
    DriverFixture fixture(GetParam(), {.boots = false});
    fixture.Load();
    EXPECT_EQ(fixture.driver->EntryStatus(), STATUS_SUCCESS);
    EXPECT_EQ(fixture.TakeRecords(), (Lines{"E44 DriverEntry", "M10 DriverEntry"}));
    const auto messages = fixture.machine.tracing().Messages();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].argumentSizes, (std::vector<std::uint32_t>{12, 9}));
    // "Nov  1 2026" and "02:40:53": 11 and 8 characters with their ends.
    const std::string text(reinterpret_cast<const char*>(messages[0].payload.data()), 20);
    EXPECT_EQ(CountMatches(text, "^... .. .......:..:..$"), 1u) << text;
    // No device add has taken the reference that unload gives back.
    fixture.TakeDown();
    EXPECT_EQ(fixture.machine.violations().Take(Rule::kReferenceUnderflow).size(), 1u);
}

TEST_P(Loading, WholeLifeReportsEachCallbackInOrderAndLeavesNothing)
{
    DriverFixture fixture(GetParam(), {.boots = false});
    fixture.Boot();
    EXPECT_EQ(fixture.driver->Sleep(), STATUS_SUCCESS);
    EXPECT_EQ(fixture.driver->Wake(), STATUS_SUCCESS);
    fixture.TakeDown();
    EXPECT_EQ(fixture.TakeRecords(),
              (Lines{"E44 DriverEntry", "M10 DriverEntry",
                     "M12 NotifierEvtDeviceAdd", "E41 NotifierEvtDeviceAdd",
                     "E43 NotifierEvtDeviceAdd", "M16 NotifierEvtDeviceAdd",
                     "M59 NotifierEvtDevicePrepareHardware", "E43 NotifierEvtDevicePrepareHardware",
                     "M61 NotifierEvtDeviceD0Entry", "E43 NotifierEvtDeviceD0Entry",
                     "M62 NotifierEvtDeviceD0Exit", "E43 NotifierEvtDeviceD0Exit",
                     "M61 NotifierEvtDeviceD0Entry", "E43 NotifierEvtDeviceD0Entry",
                     "M259 NotifierEvtDeviceSurpriseRemoval",
                     "M62 NotifierEvtDeviceD0Exit", "E43 NotifierEvtDeviceD0Exit",
                     "M60 NotifierEvtDeviceReleaseHardware", "E43 NotifierEvtDeviceReleaseHardware",
                     "M54 NotifierEvtDeviceContextCleanup", "E43 NotifierEvtDeviceContextCleanup",
                     "M99 NotifierClientCleanup",
                     "M55 NotifierEvtDriverUnload", "E41 NotifierEvtDriverUnload",
                     "M57 NotifierEvtDriverUnload", "M58 NotifierEvtDriverUnload"}));
    EXPECT_EQ(fixture.machine.tracing().EventProviders(), 0u);
    EXPECT_EQ(fixture.machine.tracing().MessageProviders(), 0u);
}

// What it creates, and below what, is for fault injection to compare.
TEST_P(Lifecycle, DeviceAddKeepsThePowerCallbacksObjectAndTakesEmptyRequestsOneByOne)
{
    const auto queue = machine.inspect().Find(Context().queue);
    EXPECT_TRUE(queue->config->AllowZeroLengthRequests);
    EXPECT_EQ(queue->config->DispatchType, WdfIoQueueDispatchSequential);
    EXPECT_NE(Context().powerCallbackObject, nullptr);
    EXPECT_EQ(driver->PoolTag(), 0x3066746Eu) << "ntf0";
}

TEST_P(Loading, GivesWhatNothingElseShowsAndUnloadClearsThePowerStateCallbackBeforeTheContextGoes)
{
    DriverFixture fixture(GetParam(), {.boots = false});
    std::optional<DriverContext> context;
    const std::set<std::string_view> shown = {"WdfDeviceInitAssignName", "WdfDeviceSetStaticStopRemove",
                                              "WdfDeviceCreateSymbolicLink", "ExAllocatePoolWithTag",
                                              "KeDelayExecutionThread"};
    Lines given;
    fixture.machine.environment().SetObserver([&](const host::ObservedCall& call) {
        const std::string_view function = call.function;
        if (function == "EtwUnregister") {  // the last step
            context = fixture.Context();
        } else if (shown.contains(function) || std::string_view(call.detail).starts_with("driver:")) {
            given.emplace_back(call.detail);  // of a reference, its mark
        }
    });
    fixture.Boot();
    Peer peer(1);
    const ZepDataEntry entry{};
    ASSERT_EQ(fixture.Register(peer, 1, &entry), STATUS_SUCCESS);
    fixture.machine.SetRegistryValue(kService, "SubsystemNotificationTimeout", 100);
    fixture.machine.NotifyPowerState(PO_CB_SYSTEM_STATE_LOCK, 0);
    fixture.driver->SurpriseRemoveDevice();
    ASSERT_FALSE(fixture.driver->RemoveDevice().parked);
    fixture.TakeDown();
    fixture.machine.environment().SetObserver(nullptr);
    ASSERT_TRUE(context);
    EXPECT_EQ(given, (Lines{"\\Device\\ZEPN", "refuses", "\\DosDevices\\ZEPN", "driver:769", "paged pool",
                            "kernel mode", "driver:1092"}));
    EXPECT_EQ(context->powerCallbackRegistration, nullptr);
    EXPECT_EQ(context->powerCallbackObject, nullptr);
}

TEST_P(Loading, EachStepOfDeviceAddFillsItsOwnField)
{
    struct Row {
        const char* function;
        unsigned count;  // of the fields that it fills, one after the other
    };
    unsigned filled = 0;
    for (const Row& row : {Row{"WdfIoQueueCreate", 1}, Row{"WdfCollectionCreate", 5}, Row{"WdfWorkItemCreate", 4},
                           Row{"WdfWaitLockCreate", 7}}) {
        for (unsigned skip = 0; skip < row.count; ++skip, ++filled) {
            DriverFixture fixture(GetParam(), {.boots = false});
            fixture.Load();
            fixture.Fail(row.function, STATUS_INSUFFICIENT_RESOURCES, skip);
            EXPECT_EQ(fixture.driver->AddDevice(), STATUS_INSUFFICIENT_RESOURCES);
            fixture.EndFaults();
            const auto fields = layout::FieldsOfDeviceAdd(fixture.Context());
            for (unsigned index = 0; index < std::size(fields); ++index) {
                EXPECT_EQ(fields[index] != nullptr, index < filled) << row.function << " " << skip << ": " << index;
            }
            // Unload gives back a reference that this device add never took.
            fixture.TakeDown();
            EXPECT_EQ(fixture.machine.violations().Take(Rule::kReferenceUnderflow).size(), 1u);
        }
    }
    EXPECT_EQ(filled, 17u);
}

TEST_P(Loading, PowerStateCallbackIsOpenedButNeverCreated)
{
    DriverFixture fixture(GetParam(), {.machine = {.hasPowerStateCallback = false}, .boots = false});
    fixture.Load();
    EXPECT_EQ(fixture.driver->AddDevice(), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(fixture.TakeReports(),
              (Lines{"1 NotifierEvtDeviceAdd: ExCreateCallback for Power state callback, 0xC0000034"}));
    fixture.TakeDown();
    EXPECT_EQ(fixture.machine.violations().Take(Rule::kReferenceUnderflow).size(), 1u);
}

TEST_P(Lifecycle, StopAndRemoveRequestsAreRefusedButSurpriseRemovalDisablesHelperThenWpcd)
{
    EXPECT_EQ(driver->QueryStopDevice(), STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(driver->QueryRemoveDevice(), STATUS_INVALID_DEVICE_STATE);
    EXPECT_TRUE(driver->IsInterfaceEnabled(GUID_ZEP_NOTIFIER_HELPER_INTERFACE));
    EXPECT_TRUE(driver->IsInterfaceEnabled(GUID_ZEP_NOTIFIER_WPCD_INTERFACE));
    EXPECT_TRUE(driver->InterfaceChanges().empty());

    driver->SurpriseRemoveDevice();
    const auto changes = driver->InterfaceChanges();
    ASSERT_EQ(changes.size(), 2u);
    EXPECT_EQ(memcmp(&changes[0].interfaceClass, &GUID_ZEP_NOTIFIER_HELPER_INTERFACE, sizeof(GUID)), 0);
    EXPECT_EQ(memcmp(&changes[1].interfaceClass, &GUID_ZEP_NOTIFIER_WPCD_INTERFACE, sizeof(GUID)), 0);
    EXPECT_FALSE(changes[0].enabled || changes[1].enabled);
    EXPECT_FALSE(driver->IsInterfaceEnabled(GUID_ZEP_NOTIFIER_HELPER_INTERFACE));
}

TEST_P(Lifecycle, SecondDeviceIsRefusedByItsName)
{
    EXPECT_EQ(driver->AddDevice(), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(TakeReports(), (Lines{"1 NotifierEvtDeviceAdd: WdfDeviceCreate, 0xC0000035"}));
    EXPECT_TRUE(driver->HasDevice());
}

TEST_P(Lifecycle, TablesHaveTheBindingHeaderAndTheirReferencesDoNothing)
{
    for (const auto& [header, size] :
         {std::pair(helper.InterfaceHeader, 120), {wpcd.InterfaceHeader, 64}}) {
        EXPECT_EQ(header.Size, size);
        EXPECT_EQ(header.Version, 1);
        EXPECT_EQ(header.Context, driver->Device());
        ULONG padding = 1;
        memcpy(&padding, reinterpret_cast<const char*>(&header) + 4, sizeof(padding));
        EXPECT_EQ(padding, 0u) << "peers get no stack contents";
        EXPECT_EQ(header.InterfaceReference, header.InterfaceDereference);
        const long before = machine.inspect().Find(driver->Device())->references;
        header.InterfaceReference(header.Context);
        header.InterfaceDereference(nullptr);
        EXPECT_EQ(machine.inspect().Find(driver->Device())->references, before);
    }
}

}  // namespace
}  // namespace tests
