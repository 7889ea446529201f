// Drivers and devices: binding, the steps of plug and play, interfaces, requests and open files.
#include "tests/host/faulty_driver_fixture.h"

namespace tests {
namespace {

using Steps = std::vector<std::string>;

TEST(Devices, SleepWakeAndGoInTheFrameworksOrder)
{
    FaultyDriverFixture fixture;
    EXPECT_EQ(fixture.driver.Sleep(), STATUS_SUCCESS);
    EXPECT_EQ(fixture.driver.Wake(), STATUS_SUCCESS);
    EXPECT_EQ(fixture.TakeSteps(), (Steps{"D0 exit to D3", "D0 entry from D3"}));
    fixture.driver.SurpriseRemoveDevice();
    EXPECT_EQ(fixture.TakeSteps(), (Steps{"surprise removal", "D0 exit to D3Final", "release"}));
    EXPECT_FALSE(fixture.driver.RemoveDevice().parked);
    EXPECT_EQ(fixture.TakeSteps(), Steps{"cleanup"});
}

TEST(Devices, ASleepingOneIsNotPutToSleepAgainWhenItGoes)
{
    FaultyDriverFixture fixture;
    (void)fixture.driver.Sleep();
    (void)fixture.TakeSteps();
    fixture.driver.SurpriseRemoveDevice();
    EXPECT_EQ(fixture.TakeSteps(), (Steps{"surprise removal", "release"}));
}

TEST(Devices, AFailedStartReleasesTheHardwareAndEntersNoPowerState)
{
    FaultyDriverFixture fixture;
    for (const char* step : {"prepare", "D0 entry from D3Final"}) {
        fixture.driver.SurpriseRemoveDevice();
        (void)fixture.driver.RemoveDevice();
        (void)fixture.TakeSteps();
        failingStep = step;
        ASSERT_EQ(fixture.driver.AddDevice(), STATUS_SUCCESS);
        EXPECT_EQ(fixture.driver.StartDevice(), STATUS_IO_DEVICE_ERROR);
        EXPECT_FALSE(fixture.driver.IsInterfaceEnabled(kFaultyInterface));
        EXPECT_FALSE(fixture.driver.RemoveDevice().parked);
        failingStep.clear();
        Steps expected = {"prepare", "D0 entry from D3Final", "release", "cleanup"};
        if (std::string(step) == "prepare") {
            expected.erase(expected.begin() + 1);
        }
        EXPECT_EQ(fixture.TakeSteps(), expected);
        ASSERT_EQ(fixture.driver.AddDevice(), STATUS_SUCCESS);
        ASSERT_EQ(fixture.driver.StartDevice(), STATUS_SUCCESS);
    }
}

TEST(Devices, WorkItemsOfARemovedDeviceAreDead)
{
    FaultyDriverFixture fixture;
    fixture.driver.SurpriseRemoveDevice();
    (void)fixture.driver.RemoveDevice();
    WdfWorkItemEnqueue(fixture.table.WorkItem);
    EXPECT_EQ(fixture.TakeRules(), std::vector{Rule::kDeadHandle});
}

TEST(Devices, RefusalsOfStopAndRemoveAreCounted)
{
    FaultyDriverFixture fixture;
    WdfDeviceSetStaticStopRemove(fixture.table.Device, FALSE);
    WdfDeviceSetStaticStopRemove(fixture.table.Device, FALSE);
    WdfDeviceSetStaticStopRemove(fixture.table.Device, TRUE);
    EXPECT_EQ(fixture.driver.QueryRemoveDevice(), STATUS_INVALID_DEVICE_STATE);
    WdfDeviceSetStaticStopRemove(fixture.table.Device, TRUE);
    EXPECT_EQ(fixture.driver.QueryStopDevice(), STATUS_SUCCESS);
}

TEST(Devices, SymbolicLinksAreGivenOnceAndTakenBackAtRemoval)
{
    FaultyDriverFixture fixture;
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, u"\\DosDevices\\Broken");
    EXPECT_EQ(WdfDeviceCreateSymbolicLink(fixture.table.Device, &name), STATUS_SUCCESS);
    EXPECT_EQ(WdfDeviceCreateSymbolicLink(fixture.table.Device, &name), STATUS_INVALID_DEVICE_REQUEST);
    ASSERT_EQ(fixture.driver.AddDevice(), STATUS_SUCCESS);  // beside the first
    EXPECT_EQ(WdfDeviceCreateSymbolicLink(fixture.driver.Device(), &name), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_FALSE(fixture.driver.RemoveDevice().parked);
    fixture.driver.SurpriseRemoveDevice();
    (void)fixture.driver.RemoveDevice();
    ASSERT_EQ(fixture.driver.AddDevice(), STATUS_SUCCESS);
    EXPECT_EQ(WdfDeviceCreateSymbolicLink(fixture.driver.Device(), &name), STATUS_SUCCESS);
}

TEST(Interfaces, QuerySizeAndVersionAreMinimums)
{
    FaultyDriverFixture fixture;
    std::vector<std::byte> buffer(sizeof(FaultyTable) + 8);
    const auto query = [&](std::size_t size, std::uint16_t version) {
        return fixture.driver.QueryInterface(kFaultyInterface, std::span(buffer).first(size), version);
    };
    EXPECT_EQ(query(sizeof(FaultyTable), 2), STATUS_SUCCESS);
    EXPECT_EQ(query(sizeof(FaultyTable) + 8, 9), STATUS_SUCCESS);
    EXPECT_EQ(query(sizeof(FaultyTable) - 1, 2), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(query(sizeof(FaultyTable), 1), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(fixture.driver.QueryInterface(GUID{}, buffer, 2), STATUS_NOT_SUPPORTED);
}

TEST(Interfaces, AreEnabledAtStartAndOneDisabledBeforeIsToo)
{
    FaultyDriverFixture fixture;
    EXPECT_TRUE(fixture.driver.IsInterfaceEnabled(kFaultyInterface));
    fixture.driver.SurpriseRemoveDevice();
    EXPECT_FALSE(fixture.driver.IsInterfaceEnabled(kFaultyInterface));
    (void)fixture.driver.RemoveDevice();
    ASSERT_EQ(fixture.driver.AddDevice(), STATUS_SUCCESS);
    WdfDeviceSetDeviceInterfaceState(fixture.driver.Device(), &kFaultyInterface, nullptr, FALSE);
    EXPECT_FALSE(fixture.driver.IsInterfaceEnabled(kFaultyInterface));
    ASSERT_EQ(fixture.driver.StartDevice(), STATUS_SUCCESS);
    EXPECT_TRUE(fixture.driver.IsInterfaceEnabled(kFaultyInterface));
    ASSERT_EQ(fixture.driver.InterfaceChanges().size(), 1u);
    EXPECT_FALSE(fixture.driver.InterfaceChanges()[0].enabled);
}

TEST(Queues, RefuseWhatTheFrameworkRefuses)
{
    FaultyDriverFixture fixture;
    WDF_IO_QUEUE_CONFIG config;
    WDF_IO_QUEUE_CONFIG_INIT(&config, WdfIoQueueDispatchSequential);
    WDFQUEUE queue = nullptr;
    EXPECT_EQ(WdfIoQueueCreate(fixture.table.Device, &config, nullptr, &queue), STATUS_WDF_NO_CALLBACK);
    config.EvtIoDefault = [](WDFQUEUE, WDFREQUEST) NTAPI {};
    EXPECT_EQ(WdfIoQueueCreate(fixture.table.Device, &config, nullptr, nullptr), STATUS_INVALID_PARAMETER_4);
    config.DefaultQueue = TRUE;
    EXPECT_EQ(WdfIoQueueCreate(fixture.table.Device, &config, nullptr, &queue), STATUS_INVALID_DEVICE_STATE);
    ASSERT_EQ(fixture.driver.AddDevice(), STATUS_SUCCESS);
    EXPECT_EQ(WdfIoQueueCreate(fixture.driver.Device(), &config, nullptr, &queue), STATUS_UNSUCCESSFUL);
    EXPECT_FALSE(fixture.driver.RemoveDevice().parked);
    config.Size = 80;
    EXPECT_EQ(WdfIoQueueCreate(fixture.table.Device, &config, nullptr, &queue), STATUS_INFO_LENGTH_MISMATCH);
    EXPECT_EQ(queue, nullptr);
}

TEST(Requests, CompletedTwiceOrWithTooMuchAreReported)
{
    FaultyDriverFixture fixture;
    host::FileId file = 0;
    ASSERT_EQ(fixture.driver.Open(file).status, STATUS_SUCCESS);
    std::byte output[8]{};
    const host::IoResult result = fixture.driver.DeviceControl(file, kCompletes, {}, output);
    EXPECT_TRUE(result.completed);
    EXPECT_EQ(result.information, sizeof(output));
    EXPECT_EQ(fixture.TakeRules(), std::vector<Rule>{}) << fixture.Text();

    (void)fixture.driver.DeviceControl(file, kCompletesTwice, {}, output);
    fixture.TakeFaulty(Rule::kRequestCompletedTwice, "EvtDeviceControl");
    (void)fixture.driver.DeviceControl(file, kClaimsTooMuch, {}, output);
    fixture.TakeFaulty(Rule::kRequestInformation, "EvtDeviceControl");
    fixture.driver.Close(file);
}

TEST(Requests, AreHandedOutOneAfterTheOtherAndHoldTheirFileOpen)
{
    FaultyDriverFixture fixture;
    static bool closed;
    closed = false;
    fixture.table.Hooks->FileClose = [](WDFFILEOBJECT) NTAPI { closed = true; };
    host::FileId file = 0;
    ASSERT_EQ(fixture.driver.Open(file).status, STATUS_SUCCESS);
    EXPECT_FALSE(fixture.driver.DeviceControl(file, kNeverCompletes).completed);
    const WDFREQUEST first = *fixture.table.Pending;
    EXPECT_FALSE(fixture.driver.DeviceControl(file, kNeverCompletes).completed);
    EXPECT_EQ(*fixture.table.Pending, first);
    WdfRequestComplete(first, STATUS_SUCCESS);
    EXPECT_NE(*fixture.table.Pending, first);

    fixture.driver.Close(file);
    EXPECT_FALSE(closed);
    WdfRequestComplete(*fixture.table.Pending, STATUS_SUCCESS);
    EXPECT_TRUE(closed);
}

TEST(Requests, NeverCompletedOneParksTheRemoval)
{
    FaultyDriverFixture fixture;
    host::FileId file = 0;
    ASSERT_EQ(fixture.driver.Open(file).status, STATUS_SUCCESS);
    (void)fixture.driver.DeviceControl(file, kNeverCompletes);
    fixture.driver.Close(file);
    fixture.driver.SurpriseRemoveDevice();
    EXPECT_TRUE(fixture.driver.RemoveDevice().parked);
    fixture.TakeFaulty(Rule::kRequestNotCompleted, "");
    fixture.Abandon();
}

TEST(Files, WhoseCreateFailsLeaveNoObjectAndAreNotClosed)
{
    FaultyDriverFixture fixture;
    static WDFFILEOBJECT seen;
    static bool closed;
    closed = false;
    fixture.table.Hooks->FileCreate = [](WDFREQUEST request, WDFFILEOBJECT object) NTAPI {
        seen = object;
        WdfRequestComplete(request, STATUS_ACCESS_DENIED);
    };
    fixture.table.Hooks->FileClose = [](WDFFILEOBJECT) NTAPI { closed = true; };
    host::FileId file = 0;
    EXPECT_EQ(fixture.driver.Open(file).status, STATUS_ACCESS_DENIED);
    EXPECT_EQ(file, 0u);
    EXPECT_FALSE(closed);
    EXPECT_FALSE(fixture.machine.inspect().Find(seen).has_value());
}

TEST(Keys, GiveNumbersOfTheRightTypeAndAreGoneWhenClosed)
{
    FaultyDriverFixture fixture;
    WDFKEY key = nullptr;
    constexpr ACCESS_MASK kRead = KEY_READ;
    EXPECT_EQ(WdfDriverOpenParametersRegistryKey(WdfGetDriver(), kRead, nullptr, &key), STATUS_OBJECT_NAME_NOT_FOUND);
    fixture.machine.SetRegistryValue("broken", "Number", 7);
    fixture.machine.SetRegistryString("broken", "Text", "7");
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
    EXPECT_EQ(fixture.TakeRules(), std::vector{Rule::kDeadHandle});
}

TEST(Binding, RefusesAClientNewerThanTheFramework)
{
    host::Machine machine({.frameworkMinor = 13});
    const host::Driver& driver = machine.Load(FAULTY_DRIVER, "broken");
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
    host::Driver& driver = machine.Load(FAULTY_DRIVER, "broken");
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
