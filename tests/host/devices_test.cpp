// Drivers and devices: binding, the steps of plug and play, interfaces, requests and open files.
#include "tests/host/faulty_driver_fixture.h"

namespace tests {
namespace {

using Steps = std::vector<std::string>;

TEST(Devices, SleepWakeAndAreRemovedInTheFrameworksOrder)
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

TEST(Devices, ASleepingOneIsNotPutToSleepAgainByItsRemoval)
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
    WdfDeviceSetStaticStopRemove(fixture.table.Device, TRUE);  // once too often
    EXPECT_EQ(fixture.driver.QueryStopDevice(), STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(fixture.driver.QueryRemoveDevice(), STATUS_INVALID_DEVICE_STATE);
}

TEST(Devices, SymbolicLinksAreCreatedOnceAndDeletedAtRemoval)
{
    FaultyDriverFixture fixture;
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, u"\\DosDevices\\Faulty");
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

constexpr GUID kOwnInterface = {0x0C52B1AE, 0x77A1, 0x4E0B, {0x9D, 0x31, 0x52, 0x0A, 0xC4, 0x18, 0x7F, 0x91}};
unsigned g_referenced;

struct OwnTable {
    INTERFACE Header;
    ULONG Number;
};

void NTAPI CountReference(PVOID)
{
    ++g_referenced;
}

NTSTATUS AddOwnTable(WDFDEVICE device, USHORT version, ULONG number,
                     const std::function<void(WDF_QUERY_INTERFACE_CONFIG& config)>& change = nullptr)
{
    OwnTable table{};
    table.Header.Size = sizeof(table);
    table.Header.Version = version;
    table.Header.InterfaceReference = CountReference;
    table.Number = number;
    WDF_QUERY_INTERFACE_CONFIG config;
    WDF_QUERY_INTERFACE_CONFIG_INIT(&config, &table.Header, &kOwnInterface, nullptr);
    if (change) {
        change(config);
    }
    return WdfDeviceAddQueryInterface(device, &config);
}

NTSTATUS QueryOwn(FaultyDriverFixture& fixture, USHORT version, OwnTable& table)
{
    return fixture.driver.QueryInterface(kOwnInterface, std::as_writable_bytes(std::span(&table, 1)), version);
}

TEST(Interfaces, TheFirstTableOfATypeDecides)
{
    FaultyDriverFixture fixture;
    g_referenced = 0;
    ASSERT_EQ(AddOwnTable(fixture.table.Device, 2, 20), STATUS_SUCCESS);
    ASSERT_EQ(AddOwnTable(fixture.table.Device, 1, 10), STATUS_SUCCESS);
    OwnTable got{};
    EXPECT_EQ(QueryOwn(fixture, 1, got), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(QueryOwn(fixture, 2, got), STATUS_SUCCESS);
    EXPECT_EQ(got.Number, 20u);
    EXPECT_EQ(g_referenced, 1u);
    // The routine that was missing is there, the one that was given is kept.
    EXPECT_EQ(got.Header.InterfaceReference, CountReference);
    ASSERT_NE(got.Header.InterfaceDereference, nullptr);
    got.Header.InterfaceDereference(nullptr);
}

TEST(Interfaces, AnImportedTableIsLeftToTheCallback)
{
    FaultyDriverFixture fixture;
    ASSERT_EQ(AddOwnTable(fixture.table.Device, 1, 10,
                          [](WDF_QUERY_INTERFACE_CONFIG& config) {
                              config.ImportInterface = TRUE;
                              config.EvtDeviceProcessQueryInterfaceRequest = [](WDFDEVICE, LPGUID, PINTERFACE table,
                                                                                PVOID) NTAPI -> NTSTATUS {
                                  reinterpret_cast<OwnTable*>(table)->Number += 5;
                                  return STATUS_SUCCESS;
                              };
                          }),
              STATUS_SUCCESS);
    OwnTable got{};
    got.Number = 1;
    EXPECT_EQ(QueryOwn(fixture, 0, got), STATUS_NOT_SUPPORTED);  // its version is the least that is served
    EXPECT_EQ(QueryOwn(fixture, 1, got), STATUS_SUCCESS);
    EXPECT_EQ(got.Number, 6u);
}

TEST(Interfaces, WithoutATypeAreAViolation)
{
    FaultyDriverFixture fixture;
    EXPECT_FALSE(NT_SUCCESS(AddOwnTable(fixture.table.Device, 1, 10,
                                        [](WDF_QUERY_INTERFACE_CONFIG& config) { config.InterfaceType = nullptr; })));
    EXPECT_EQ(fixture.TakeRules(), std::vector{Rule::kRequiredParameter});
}

TEST(IoTargets, AQueryOnOneThatIsNotOpenIsAViolation)
{
    FaultyDriverFixture fixture;
    WDFIOTARGET target = nullptr;
    ASSERT_EQ(WdfIoTargetCreate(fixture.table.Device, nullptr, &target), STATUS_SUCCESS);
    OwnTable got{};
    EXPECT_FALSE(
        NT_SUCCESS(WdfIoTargetQueryForInterface(target, &kOwnInterface, &got.Header, sizeof(got), 1, nullptr)));
    EXPECT_EQ(fixture.TakeRules(), std::vector{Rule::kBadParameter});
    EXPECT_NE(fixture.Text().find("I/O target #1 is not open"), std::string::npos) << fixture.Text();
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
    config.Settings.Parallel.NumberOfPresentedRequests = 1;
    EXPECT_EQ(WdfIoQueueCreate(fixture.table.Device, &config, nullptr, &queue), STATUS_INVALID_PARAMETER);
    config.Settings.Parallel.NumberOfPresentedRequests = 0;
    for (const int type : {WdfIoQueueDispatchInvalid + 0, WdfIoQueueDispatchManual + 1, WdfIoQueueDispatchManual + 0}) {
        config.DispatchType = static_cast<WDF_IO_QUEUE_DISPATCH_TYPE>(type);  // a manual queue has no callback
        EXPECT_EQ(WdfIoQueueCreate(fixture.table.Device, &config, nullptr, &queue), STATUS_INVALID_PARAMETER) << type;
    }
    config.DispatchType = WdfIoQueueDispatchSequential;
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

TEST(Keys, GiveNumbersOfTheRightTypeAndAreDeadWhenClosed)
{
    FaultyDriverFixture fixture;
    WDFKEY key = nullptr;
    constexpr ACCESS_MASK kRead = KEY_READ;
    EXPECT_EQ(WdfDriverOpenParametersRegistryKey(WdfGetDriver(), kRead, nullptr, &key), STATUS_OBJECT_NAME_NOT_FOUND);
    fixture.machine.SetRegistryValue("faulty", "Number", 7);
    fixture.machine.SetRegistryString("faulty", "Text", "7");
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

    // Data that do not fill the number are no error, data that exceed it are one.
    constexpr std::byte kOne{1};
    fixture.machine.SetRegistryData("faulty", "Short", host::kernel::kTypeDword, {kOne});
    fixture.machine.SetRegistryData("faulty", "Long", host::kernel::kTypeDword, std::vector(8, kOne));
    EXPECT_EQ(query(u"Short", number), STATUS_SUCCESS);
    EXPECT_EQ(number & 0xFF, 1u);
    EXPECT_EQ(query(u"Long", number), STATUS_BUFFER_OVERFLOW);

    WdfRegistryClose(key);
    WdfRegistryClose(key);
    EXPECT_EQ(fixture.TakeRules(), std::vector{Rule::kDeadHandle});
}

TEST(Keys, AllowWhatTheyWereOpenedFor)
{
    FaultyDriverFixture fixture;
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, u"Number");
    ULONG number = 0;
    struct Row {
        ACCESS_MASK access;
        NTSTATUS write;
        NTSTATUS read;
    };
    for (const Row& row :
         {Row{KEY_READ | KEY_WRITE, STATUS_SUCCESS, STATUS_SUCCESS},
          Row{KEY_READ, STATUS_ACCESS_DENIED, STATUS_SUCCESS}, Row{KEY_WRITE, STATUS_SUCCESS, STATUS_ACCESS_DENIED}}) {
        SCOPED_TRACE(row.access);
        WDFKEY key = nullptr;
        ASSERT_EQ(WdfDriverOpenParametersRegistryKey(WdfGetDriver(), row.access, nullptr, &key), STATUS_SUCCESS);
        EXPECT_EQ(WdfRegistryAssignULong(key, &name, 7), row.write);
        EXPECT_EQ(WdfRegistryQueryULong(key, &name, &number), row.read);
        WdfRegistryClose(key);
    }
}

TEST(Strings, MustBeWholeCharactersWithinABuffer)
{
    FaultyDriverFixture fixture;
    WCHAR text[] = u"Text";
    WDFKEY key = nullptr;
    ASSERT_EQ(WdfDriverOpenParametersRegistryKey(WdfGetDriver(), KEY_READ | KEY_WRITE, nullptr, &key), STATUS_SUCCESS);
    ULONG number = 0;
    const WDFDEVICE device = fixture.table.Device;
    for (UNICODE_STRING malformed : {UNICODE_STRING{3, 8, text}, UNICODE_STRING{2, 7, text}, UNICODE_STRING{8, 4, text},
                                     UNICODE_STRING{2, 8, nullptr}}) {
        SCOPED_TRACE(malformed.Length);
        EXPECT_EQ(WdfRegistryQueryULong(key, &malformed, &number), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(WdfRegistryAssignULong(key, &malformed, 7), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(WdfDeviceCreateSymbolicLink(device, &malformed), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(WdfDeviceCreateDeviceInterface(device, &kOwnInterface, &malformed), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(fixture.TakeRules(), std::vector<Rule>{}) << fixture.Text();
        WdfDeviceSetDeviceInterfaceState(device, &kOwnInterface, &malformed, FALSE);  // which can answer no status
        EXPECT_EQ(fixture.TakeRules(), std::vector{Rule::kBadParameter});
    }
    WdfRegistryClose(key);
}

TEST(Drivers, WithoutATagGetTheFirstLettersOfTheirName)
{
    FaultyDriverFixture fixture;
    EXPECT_EQ(fixture.driver.PoolTag(), 0x6C756166u);  // "faul" in memory
}

TEST(Drivers, WithFlagsThatDoNotExistAreRefused)
{
    FaultyDriverFixture fixture;
    WDF_DRIVER_CONFIG config;
    WDF_DRIVER_CONFIG_INIT(&config, nullptr);
    UNICODE_STRING path;
    RtlInitUnicodeString(&path, u"\\Registry\\faulty");
    const auto create = [&] {
        return WdfDriverCreate(WdfDriverWdmGetDriverObject(WdfGetDriver()), &path, nullptr, &config, nullptr);
    };
    config.DriverInitFlags = 4;
    EXPECT_EQ(create(), STATUS_INVALID_PARAMETER);
    config.DriverInitFlags = 0;
    path.Length = 3;
    EXPECT_EQ(create(), STATUS_INVALID_PARAMETER);
    path.Length = 2;
    EXPECT_EQ(create(), STATUS_DRIVER_INTERNAL_ERROR);  // the second driver object
}

TEST(Pool, GivesNullWhenItIsExhausted)
{
    FaultyDriverFixture fixture({.poolBytesMaximum = 100});
    constexpr ULONG kTag = 'tseT';
    PVOID const first = ExAllocatePoolWithTag(PagedPool, 60, kTag);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(ExAllocatePoolWithTag(PagedPool, 60, kTag), nullptr);
    EXPECT_EQ(ExAllocatePoolWithTag(PagedPool, ~SIZE_T{0}, kTag), nullptr);
    ExFreePoolWithTag(first, kTag);
    PVOID const second = ExAllocatePoolWithTag(PagedPool, 100, kTag);
    ASSERT_NE(second, nullptr);
    ExFreePoolWithTag(second, kTag);
}

TEST(Providers, OfOneIdentifierMayBeRegisteredTwice)
{
    FaultyDriverFixture fixture;
    REGHANDLE handles[2] = {};
    for (REGHANDLE& handle : handles) {
        ASSERT_EQ(EtwRegister(&kOwnInterface, nullptr, nullptr, &handle), STATUS_SUCCESS);
    }
    EXPECT_NE(handles[0], handles[1]);
    for (const REGHANDLE handle : handles) {
        EXPECT_EQ(EtwUnregister(handle), STATUS_SUCCESS);
    }
}

TEST(Binding, RefusesAClientNewerThanTheFramework)
{
    host::Machine machine({.frameworkMinor = 13});
    const host::Driver& driver = machine.Load(FAULTY_DRIVER, "faulty");
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
    fault.module = "another.sys";
    machine.faults().Add(fault);
    fault.module = "faulty.so";
    machine.faults().Add(fault);
    host::Driver& driver = machine.Load(FAULTY_DRIVER, "faulty");
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
