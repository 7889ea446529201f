// Drivers and devices: binding, the steps of plug and play, interfaces, requests and open files.
#include "tests/host/broken_world.h"

namespace tests {
namespace {

using Steps = std::vector<std::string>;

TEST(Devices, SleepWakeAndGoInTheFrameworksOrder)
{
    BrokenWorld world;
    EXPECT_EQ(world.driver.Sleep(), STATUS_SUCCESS);
    EXPECT_EQ(world.driver.Wake(), STATUS_SUCCESS);
    EXPECT_EQ(world.TakeSteps(), (Steps{"D0 exit to D3", "D0 entry from D3"}));
    world.driver.SurpriseRemoveDevice();
    EXPECT_EQ(world.TakeSteps(), (Steps{"surprise removal", "D0 exit to D3Final", "release"}));
    EXPECT_FALSE(world.driver.RemoveDevice().parked);
    EXPECT_EQ(world.TakeSteps(), Steps{"cleanup"});
}

TEST(Devices, ASleepingOneIsNotPutToSleepAgainWhenItGoes)
{
    BrokenWorld world;
    (void)world.driver.Sleep();
    (void)world.TakeSteps();
    world.driver.SurpriseRemoveDevice();
    EXPECT_EQ(world.TakeSteps(), (Steps{"surprise removal", "release"}));
}

TEST(Devices, AFailedStartReleasesTheHardwareAndEntersNoPowerState)
{
    BrokenWorld world;
    for (const char* step : {"prepare", "D0 entry from D3Final"}) {
        world.driver.SurpriseRemoveDevice();
        (void)world.driver.RemoveDevice();
        (void)world.TakeSteps();
        failingStep = step;
        ASSERT_EQ(world.driver.AddDevice(), STATUS_SUCCESS);
        EXPECT_EQ(world.driver.StartDevice(), STATUS_IO_DEVICE_ERROR);
        EXPECT_FALSE(world.driver.IsInterfaceEnabled(kBrokenInterface));
        EXPECT_FALSE(world.driver.RemoveDevice().parked);
        failingStep.clear();
        Steps expected = {"prepare", "D0 entry from D3Final", "release", "cleanup"};
        if (std::string(step) == "prepare") {
            expected.erase(expected.begin() + 1);
        }
        EXPECT_EQ(world.TakeSteps(), expected);
        ASSERT_EQ(world.driver.AddDevice(), STATUS_SUCCESS);
        ASSERT_EQ(world.driver.StartDevice(), STATUS_SUCCESS);
    }
}

TEST(Devices, WorkItemsOfARemovedDeviceAreDead)
{
    BrokenWorld world;
    world.driver.SurpriseRemoveDevice();
    (void)world.driver.RemoveDevice();
    WdfWorkItemEnqueue(world.table.WorkItem);
    EXPECT_EQ(world.TakeRules(), std::vector{Rule::kDeadHandle});
}

TEST(Devices, RefusalsOfStopAndRemoveAreCounted)
{
    BrokenWorld world;
    WdfDeviceSetStaticStopRemove(world.table.Device, FALSE);
    WdfDeviceSetStaticStopRemove(world.table.Device, FALSE);
    WdfDeviceSetStaticStopRemove(world.table.Device, TRUE);
    EXPECT_EQ(world.driver.QueryRemoveDevice(), STATUS_INVALID_DEVICE_STATE);
    WdfDeviceSetStaticStopRemove(world.table.Device, TRUE);
    EXPECT_EQ(world.driver.QueryStopDevice(), STATUS_SUCCESS);
}

TEST(Devices, SymbolicLinksAreGivenOnceAndTakenBackAtRemoval)
{
    BrokenWorld world;
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, u"\\DosDevices\\Broken");
    EXPECT_EQ(WdfDeviceCreateSymbolicLink(world.table.Device, &name), STATUS_SUCCESS);
    EXPECT_EQ(WdfDeviceCreateSymbolicLink(world.table.Device, &name), STATUS_INVALID_DEVICE_REQUEST);
    ASSERT_EQ(world.driver.AddDevice(), STATUS_SUCCESS);  // beside the first
    EXPECT_EQ(WdfDeviceCreateSymbolicLink(world.driver.Device(), &name), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_FALSE(world.driver.RemoveDevice().parked);
    world.driver.SurpriseRemoveDevice();
    (void)world.driver.RemoveDevice();
    ASSERT_EQ(world.driver.AddDevice(), STATUS_SUCCESS);
    EXPECT_EQ(WdfDeviceCreateSymbolicLink(world.driver.Device(), &name), STATUS_SUCCESS);
}

TEST(Interfaces, QuerySizeAndVersionAreMinimums)
{
    BrokenWorld world;
    std::vector<std::byte> buffer(sizeof(BrokenTable) + 8);
    const auto query = [&](std::size_t size, std::uint16_t version) {
        return world.driver.QueryInterface(kBrokenInterface, std::span(buffer).first(size), version);
    };
    EXPECT_EQ(query(sizeof(BrokenTable), 2), STATUS_SUCCESS);
    EXPECT_EQ(query(sizeof(BrokenTable) + 8, 9), STATUS_SUCCESS);
    EXPECT_EQ(query(sizeof(BrokenTable) - 1, 2), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(query(sizeof(BrokenTable), 1), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(world.driver.QueryInterface(GUID{}, buffer, 2), STATUS_NOT_SUPPORTED);
}

TEST(Interfaces, AreEnabledAtStartAndOneDisabledBeforeIsToo)
{
    BrokenWorld world;
    EXPECT_TRUE(world.driver.IsInterfaceEnabled(kBrokenInterface));
    world.driver.SurpriseRemoveDevice();
    EXPECT_FALSE(world.driver.IsInterfaceEnabled(kBrokenInterface));
    (void)world.driver.RemoveDevice();
    ASSERT_EQ(world.driver.AddDevice(), STATUS_SUCCESS);
    WdfDeviceSetDeviceInterfaceState(world.driver.Device(), &kBrokenInterface, nullptr, FALSE);
    EXPECT_FALSE(world.driver.IsInterfaceEnabled(kBrokenInterface));
    ASSERT_EQ(world.driver.StartDevice(), STATUS_SUCCESS);
    EXPECT_TRUE(world.driver.IsInterfaceEnabled(kBrokenInterface));
    ASSERT_EQ(world.driver.InterfaceChanges().size(), 1u);
    EXPECT_FALSE(world.driver.InterfaceChanges()[0].enabled);
}

TEST(Queues, RefuseWhatTheFrameworkRefuses)
{
    BrokenWorld world;
    WDF_IO_QUEUE_CONFIG config;
    WDF_IO_QUEUE_CONFIG_INIT(&config, WdfIoQueueDispatchSequential);
    WDFQUEUE queue = nullptr;
    EXPECT_EQ(WdfIoQueueCreate(world.table.Device, &config, nullptr, &queue), STATUS_WDF_NO_CALLBACK);
    config.EvtIoDefault = [](WDFQUEUE, WDFREQUEST) NTAPI {};
    EXPECT_EQ(WdfIoQueueCreate(world.table.Device, &config, nullptr, nullptr), STATUS_INVALID_PARAMETER_4);
    config.DefaultQueue = TRUE;
    EXPECT_EQ(WdfIoQueueCreate(world.table.Device, &config, nullptr, &queue), STATUS_INVALID_DEVICE_STATE);
    ASSERT_EQ(world.driver.AddDevice(), STATUS_SUCCESS);
    EXPECT_EQ(WdfIoQueueCreate(world.driver.Device(), &config, nullptr, &queue), STATUS_UNSUCCESSFUL);
    EXPECT_FALSE(world.driver.RemoveDevice().parked);
    config.Size = 80;
    EXPECT_EQ(WdfIoQueueCreate(world.table.Device, &config, nullptr, &queue), STATUS_INFO_LENGTH_MISMATCH);
    EXPECT_EQ(queue, nullptr);
}

TEST(Requests, CompletedTwiceOrWithTooMuchAreReported)
{
    BrokenWorld world;
    host::FileId file = 0;
    ASSERT_EQ(world.driver.Open(file).status, STATUS_SUCCESS);
    std::byte output[8]{};
    const host::IoResult result = world.driver.DeviceControl(file, kCompletes, {}, output);
    EXPECT_TRUE(result.completed);
    EXPECT_EQ(result.information, sizeof(output));
    EXPECT_EQ(world.TakeRules(), std::vector<Rule>{}) << world.Text();

    (void)world.driver.DeviceControl(file, kCompletesTwice, {}, output);
    world.TakeBroken(Rule::kRequestCompletedTwice, "EvtDeviceControl");
    (void)world.driver.DeviceControl(file, kClaimsTooMuch, {}, output);
    world.TakeBroken(Rule::kRequestInformation, "EvtDeviceControl");
    world.driver.Close(file);
}

TEST(Requests, AreHandedOutOneAfterTheOtherAndHoldTheirFileOpen)
{
    BrokenWorld world;
    static bool closed;
    closed = false;
    world.table.Hooks->FileClose = [](WDFFILEOBJECT) NTAPI { closed = true; };
    host::FileId file = 0;
    ASSERT_EQ(world.driver.Open(file).status, STATUS_SUCCESS);
    EXPECT_FALSE(world.driver.DeviceControl(file, kNeverCompletes).completed);
    const WDFREQUEST first = *world.table.Pending;
    EXPECT_FALSE(world.driver.DeviceControl(file, kNeverCompletes).completed);
    EXPECT_EQ(*world.table.Pending, first);
    WdfRequestComplete(first, STATUS_SUCCESS);
    EXPECT_NE(*world.table.Pending, first);

    world.driver.Close(file);
    EXPECT_FALSE(closed);
    WdfRequestComplete(*world.table.Pending, STATUS_SUCCESS);
    EXPECT_TRUE(closed);
}

TEST(Requests, NeverCompletedOneParksTheRemoval)
{
    BrokenWorld world;
    host::FileId file = 0;
    ASSERT_EQ(world.driver.Open(file).status, STATUS_SUCCESS);
    (void)world.driver.DeviceControl(file, kNeverCompletes);
    world.driver.Close(file);
    world.driver.SurpriseRemoveDevice();
    EXPECT_TRUE(world.driver.RemoveDevice().parked);
    world.TakeBroken(Rule::kRequestNotCompleted, "");
    world.Abandon();
}

TEST(Files, WhoseCreateFailsLeaveNoObjectAndAreNotClosed)
{
    BrokenWorld world;
    static WDFFILEOBJECT seen;
    static bool closed;
    closed = false;
    world.table.Hooks->FileCreate = [](WDFREQUEST request, WDFFILEOBJECT object) NTAPI {
        seen = object;
        WdfRequestComplete(request, STATUS_ACCESS_DENIED);
    };
    world.table.Hooks->FileClose = [](WDFFILEOBJECT) NTAPI { closed = true; };
    host::FileId file = 0;
    EXPECT_EQ(world.driver.Open(file).status, STATUS_ACCESS_DENIED);
    EXPECT_EQ(file, 0u);
    EXPECT_FALSE(closed);
    EXPECT_FALSE(world.machine.inspect().Find(seen).has_value());
}

TEST(Keys, GiveNumbersOfTheRightTypeAndAreGoneWhenClosed)
{
    BrokenWorld world;
    WDFKEY key = nullptr;
    constexpr ACCESS_MASK kRead = KEY_READ;
    EXPECT_EQ(WdfDriverOpenParametersRegistryKey(WdfGetDriver(), kRead, nullptr, &key), STATUS_OBJECT_NAME_NOT_FOUND);
    world.machine.SetRegistryValue("broken", "Number", 7);
    world.machine.SetRegistryString("broken", "Text", "7");
    ASSERT_EQ(WdfDriverOpenParametersRegistryKey(WdfGetDriver(), kRead, nullptr, &key), STATUS_SUCCESS);
    const auto query = [&](const WCHAR* name, ULONG& number) {
        UNICODE_STRING text;
        RtlInitUnicodeString(&text, name);
        return WdfRegistryQueryULong(key, &text, &number);
    };
    ULONG number = 0;
    EXPECT_EQ(query(u"nUMBER", number), STATUS_SUCCESS);
    EXPECT_EQ(number, 7u);
    EXPECT_EQ(query(u"Text", number), STATUS_OBJECT_TYPE_MISMATCH);
    EXPECT_EQ(query(u"Other", number), STATUS_OBJECT_NAME_NOT_FOUND);
    WdfRegistryClose(key);
    WdfRegistryClose(key);
    EXPECT_EQ(world.TakeRules(), std::vector{Rule::kDeadHandle});
}

TEST(Binding, RefusesAClientNewerThanTheFramework)
{
    host::Machine machine({.frameworkMinor = 13});
    const host::Driver& driver = machine.Load(BROKEN_DRIVER, "broken");
    EXPECT_FALSE(NT_SUCCESS(driver.EntryStatus()));
    EXPECT_FALSE(driver.IsLoaded());
    EXPECT_EQ(machine.violations().Count(), 0u);
}

TEST(Faults, StrikeTheNamedCallOfTheNamedFunctionOnce)
{
    host::Machine machine;
    host::checks::Fault fault;
    fault.function = "WdfWorkItemCreate";
    fault.caller = "CreateParts";
    machine.faults().Add(fault);
    host::Driver& driver = machine.Load(BROKEN_DRIVER, "broken");
    EXPECT_EQ(driver.AddDevice(), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_FALSE(driver.HasDevice());
    EXPECT_EQ(driver.AddDevice(), STATUS_SUCCESS);
    EXPECT_EQ(machine.faults().StruckCount(), 1u);
    EXPECT_FALSE(driver.RemoveDevice().parked);
    driver.Unload();
    EXPECT_EQ(machine.violations().Count(), 0u);
}

}  // namespace
}  // namespace tests
