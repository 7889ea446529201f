// Drivers and devices: binding, the steps of plug and play, interfaces, requests and open files.
#include "tests/host/faulty_driver_fixture.h"

namespace tests {
namespace {

class Devices : public FaultyDriverTest {};
class Interfaces : public FaultyDriverTest {};
class Queues : public FaultyDriverTest {};
class Requests : public FaultyDriverTest {
protected:
    Requests() { EXPECT_EQ(driver.Open(file).status, STATUS_SUCCESS); }

    host::FileId file = 0;
};
class Files : public FaultyDriverTest {};
class Drivers : public FaultyDriverTest {};

TEST_F(Devices, SleepWakeAndAreRemovedInTheFrameworksOrder)
{
    EXPECT_EQ(driver.Sleep(), STATUS_SUCCESS);
    EXPECT_EQ(driver.Wake(), STATUS_SUCCESS);
    EXPECT_EQ(TakeSteps(), (Steps{"D0 exit to D3", "D0 entry from D3"}));
    driver.SurpriseRemoveDevice();
    EXPECT_EQ(TakeSteps(), (Steps{"surprise removal", "D0 exit to D3Final", "release"}));
    EXPECT_FALSE(driver.RemoveDevice().parked);
    EXPECT_EQ(TakeSteps(), Steps{"cleanup"});

    // A sleeping one is not put to sleep again by its removal.
    EXPECT_EQ(driver.AddDevice(), STATUS_SUCCESS);
    EXPECT_EQ(driver.StartDevice(), STATUS_SUCCESS);
    (void)driver.Sleep();
    (void)TakeSteps();
    EndDevice();
    EXPECT_EQ(TakeSteps(), (Steps{"surprise removal", "release", "cleanup"}));
}

TEST_F(Devices, AFailedStartReleasesTheHardwareAndEntersNoPowerState)
{
    EndDevice();
    for (const char* step : {"prepare", "D0 entry from D3Final"}) {
        (void)TakeSteps();
        failingStep = step;
        ASSERT_EQ(driver.AddDevice(), STATUS_SUCCESS);
        EXPECT_EQ(driver.StartDevice(), STATUS_IO_DEVICE_ERROR);
        EXPECT_FALSE(driver.IsInterfaceEnabled(kFaultyInterface));
        EXPECT_FALSE(driver.RemoveDevice().parked);
        Steps expected = {"prepare", "D0 entry from D3Final", "release", "cleanup"};
        if (failingStep == "prepare") {
            expected.erase(expected.begin() + 1);
        }
        EXPECT_EQ(TakeSteps(), expected);
    }
    failingStep.clear();
    ASSERT_EQ(driver.AddDevice(), STATUS_SUCCESS);
    ASSERT_EQ(driver.StartDevice(), STATUS_SUCCESS);
    WdfWorkItemEnqueue(table.WorkItem);  // of the first device
    EXPECT_EQ(TakeRules(), std::vector{Rule::kDeadHandle});
}

TEST_F(Devices, RefusalsOfStopAndRemoveAreCounted)
{
    WdfDeviceSetStaticStopRemove(table.Device, FALSE);
    WdfDeviceSetStaticStopRemove(table.Device, FALSE);
    WdfDeviceSetStaticStopRemove(table.Device, TRUE);
    EXPECT_EQ(driver.QueryRemoveDevice(), STATUS_INVALID_DEVICE_STATE);
    WdfDeviceSetStaticStopRemove(table.Device, TRUE);
    EXPECT_EQ(driver.QueryStopDevice(), STATUS_SUCCESS);
    WdfDeviceSetStaticStopRemove(table.Device, TRUE);  // once too often
    EXPECT_EQ(driver.QueryStopDevice(), STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(driver.QueryRemoveDevice(), STATUS_INVALID_DEVICE_STATE);
}

TEST_F(Devices, SymbolicLinksAreOneDevicesUntilItsRemoval)
{
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, u"\\DosDevices\\Faulty");
    EXPECT_EQ(WdfDeviceCreateSymbolicLink(table.Device, &name), STATUS_SUCCESS);
    ASSERT_EQ(driver.AddDevice(), STATUS_SUCCESS);  // beside the first
    EXPECT_EQ(WdfDeviceCreateSymbolicLink(driver.Device(), &name), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_FALSE(driver.RemoveDevice().parked);
    RenewDevice();
    EXPECT_EQ(WdfDeviceCreateSymbolicLink(driver.Device(), &name), STATUS_SUCCESS);
}

constexpr GUID kOwnInterface = {0x0C52B1AE, 0x77A1, 0x4E0B, {0x9D, 0x31, 0x52, 0x0A, 0xC4, 0x18, 0x7F, 0x91}};

struct OwnTable {
    INTERFACE Header;
    ULONG Number;
};

void NTAPI NoReference(PVOID)
{
}

class OwnInterfaces : public FaultyDriverTest {
protected:
    NTSTATUS Add(USHORT version, ULONG number, void (*change)(WDF_QUERY_INTERFACE_CONFIG& config) = nullptr)
    {
        OwnTable own{};
        own.Header.Size = sizeof(own);
        own.Header.Version = version;
        own.Header.InterfaceReference = NoReference;
        own.Number = number;
        WDF_QUERY_INTERFACE_CONFIG config;
        WDF_QUERY_INTERFACE_CONFIG_INIT(&config, &own.Header, &kOwnInterface, nullptr);
        if (change != nullptr) {
            change(config);
        }
        return WdfDeviceAddQueryInterface(table.Device, &config);
    }
    NTSTATUS Query(USHORT version)
    {
        return driver.QueryInterface(kOwnInterface, std::as_writable_bytes(std::span(&got, 1)), version);
    }

    struct : OwnTable {
        ULONG64 More;  // the buffer may be larger than the table
    } got{};
};

TEST_F(OwnInterfaces, GetTheRoutineThatIsMissingAndKeepTheOther)
{
    ASSERT_EQ(Add(1, 10), STATUS_SUCCESS);
    EXPECT_EQ(Query(1), STATUS_SUCCESS);
    EXPECT_EQ(got.Header.InterfaceReference, NoReference);
    ASSERT_NE(got.Header.InterfaceDereference, nullptr);
    got.Header.InterfaceDereference(nullptr);
}

NTSTATUS NTAPI AddFive(WDFDEVICE, LPGUID, PINTERFACE table, PVOID)
{
    reinterpret_cast<OwnTable*>(table)->Number += 5;
    return STATUS_SUCCESS;
}

TEST_F(OwnInterfaces, AnImportedTableIsLeftToTheCallback)
{
    const auto import = [](WDF_QUERY_INTERFACE_CONFIG& config) {
        config.ImportInterface = TRUE;
        config.EvtDeviceProcessQueryInterfaceRequest = AddFive;
    };
    ASSERT_EQ(Add(1, 10, import), STATUS_SUCCESS);
    got.Number = 1;
    EXPECT_EQ(Query(0), STATUS_NOT_SUPPORTED);  // its version is the least that is served
    EXPECT_EQ(Query(1), STATUS_SUCCESS);
    EXPECT_EQ(got.Number, 6u);
}

TEST_F(OwnInterfaces, WithoutATypeOrATargetThatIsOpenAreAViolation)
{
    EXPECT_FALSE(NT_SUCCESS(Add(1, 10, [](WDF_QUERY_INTERFACE_CONFIG& config) { config.InterfaceType = nullptr; })));
    EXPECT_EQ(TakeRules(), std::vector{Rule::kRequiredParameter});
    WDFIOTARGET target = nullptr;
    ASSERT_EQ(WdfIoTargetCreate(table.Device, nullptr, &target), STATUS_SUCCESS);
    EXPECT_FALSE(
        NT_SUCCESS(WdfIoTargetQueryForInterface(target, &kOwnInterface, &got.Header, sizeof(got), 1, nullptr)));
    EXPECT_EQ(TakeRules(), std::vector{Rule::kBadParameter});
    EXPECT_TRUE(Has(Text(), "I/O target #1 is not open"));
}

TEST_F(Interfaces, DisabledBeforeTheStartAreEnabledByIt)
{
    EndDevice();
    ASSERT_EQ(driver.AddDevice(), STATUS_SUCCESS);
    WdfDeviceSetDeviceInterfaceState(driver.Device(), &kFaultyInterface, nullptr, FALSE);
    EXPECT_FALSE(driver.IsInterfaceEnabled(kFaultyInterface));
    ASSERT_EQ(driver.StartDevice(), STATUS_SUCCESS);
    EXPECT_TRUE(driver.IsInterfaceEnabled(kFaultyInterface));
    ASSERT_EQ(driver.InterfaceChanges().size(), 1u);
    EXPECT_FALSE(driver.InterfaceChanges()[0].enabled);
}

TEST_F(Queues, RefuseWhatTheFrameworkRefuses)
{
    WDF_IO_QUEUE_CONFIG config;
    WDF_IO_QUEUE_CONFIG_INIT(&config, WdfIoQueueDispatchSequential);
    WDFQUEUE queue = nullptr;
    config.EvtIoDefault = [](WDFQUEUE, WDFREQUEST) NTAPI {};
    EXPECT_EQ(WdfIoQueueCreate(table.Device, &config, nullptr, nullptr), STATUS_INVALID_PARAMETER_4);
    for (const int type : {WdfIoQueueDispatchInvalid + 0, WdfIoQueueDispatchManual + 1, WdfIoQueueDispatchManual + 0}) {
        config.DispatchType = static_cast<WDF_IO_QUEUE_DISPATCH_TYPE>(type);  // a manual queue has no callback
        EXPECT_EQ(WdfIoQueueCreate(table.Device, &config, nullptr, &queue), STATUS_INVALID_PARAMETER) << type;
    }
    config.DispatchType = WdfIoQueueDispatchSequential;
    config.DefaultQueue = TRUE;
    EXPECT_EQ(WdfIoQueueCreate(table.Device, &config, nullptr, &queue), STATUS_INVALID_DEVICE_STATE);
    ASSERT_EQ(driver.AddDevice(), STATUS_SUCCESS);
    EXPECT_EQ(WdfIoQueueCreate(driver.Device(), &config, nullptr, &queue), STATUS_UNSUCCESSFUL);
    EXPECT_FALSE(driver.RemoveDevice().parked);
}

TEST_F(Requests, CompletedTwiceOrWithTooMuchAreReported)
{
    std::byte output[8]{};
    const host::IoResult result = driver.DeviceControl(file, kCompletes, {}, output);
    EXPECT_TRUE(result.completed);
    EXPECT_EQ(result.information, sizeof(output));

    (void)driver.DeviceControl(file, kCompletesTwice, {}, output);
    TakeFaulty(Rule::kRequestCompletedTwice, "EvtDeviceControl");
    (void)driver.DeviceControl(file, kClaimsTooMuch, {}, output);
    TakeFaulty(Rule::kRequestInformation, "EvtDeviceControl");
    driver.Close(file);
}

TEST_F(Requests, AreHandedOutOneAfterTheOtherAndHoldTheirFileOpen)
{
    static bool closed;
    closed = false;
    table.Hooks->FileClose = [](WDFFILEOBJECT) NTAPI { closed = true; };
    EXPECT_FALSE(driver.DeviceControl(file, kNeverCompletes).completed);
    const WDFREQUEST first = *table.Pending;
    EXPECT_FALSE(driver.DeviceControl(file, kNeverCompletes).completed);
    EXPECT_EQ(*table.Pending, first);
    WdfRequestComplete(first, STATUS_SUCCESS);
    EXPECT_NE(*table.Pending, first);

    driver.Close(file);
    EXPECT_FALSE(closed);
    WdfRequestComplete(*table.Pending, STATUS_SUCCESS);
    EXPECT_TRUE(closed);
}

TEST_F(Requests, NeverCompletedOneParksTheRemoval)
{
    (void)driver.DeviceControl(file, kNeverCompletes);
    driver.Close(file);
    driver.SurpriseRemoveDevice();
    EXPECT_TRUE(driver.RemoveDevice().parked);
    TakeFaulty(Rule::kRequestNotCompleted, "");
    Abandon();
}

TEST_F(Files, WhoseCreateFailsLeaveNoObjectAndAreNotClosed)
{
    static WDFFILEOBJECT seen;
    static bool closed;
    closed = false;
    table.Hooks->FileCreate = [](WDFREQUEST request, WDFFILEOBJECT object) NTAPI {
        seen = object;
        WdfRequestComplete(request, STATUS_ACCESS_DENIED);
    };
    table.Hooks->FileClose = [](WDFFILEOBJECT) NTAPI { closed = true; };
    host::FileId file = 0;
    EXPECT_EQ(driver.Open(file).status, STATUS_ACCESS_DENIED);
    EXPECT_EQ(file, 0u);
    EXPECT_FALSE(closed);
    EXPECT_FALSE(machine.inspect().Find(seen).has_value());
}

TEST_F(Drivers, HaveATagAndNoFlagsThatDoNotExist)
{
    EXPECT_EQ(driver.PoolTag(), 0x6C756166u);  // "faul" in memory: the first letters of its name
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
}

TEST_F(Drivers, ProvidersOfOneIdentifierMayBeRegisteredTwice)
{
    REGHANDLE handles[2] = {};
    for (REGHANDLE& handle : handles) {
        ASSERT_EQ(EtwRegister(&kOwnInterface, nullptr, nullptr, &handle), STATUS_SUCCESS);
    }
    EXPECT_NE(handles[0], handles[1]);
    for (const REGHANDLE handle : handles) {
        EXPECT_EQ(EtwUnregister(handle), STATUS_SUCCESS);
    }
}

}  // namespace
}  // namespace tests
