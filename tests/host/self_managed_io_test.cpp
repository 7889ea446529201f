// The callbacks of a device's life beside its power: when each comes, and what follows one that fails.
#include "tests/host/faulty_driver_fixture.h"

namespace tests {
namespace {

std::vector<std::string> g_calls;
std::string g_failing;

NTSTATUS NoteCall(const char* name)
{
    g_calls.emplace_back(name);
    return g_failing == name ? STATUS_IO_DEVICE_ERROR : STATUS_SUCCESS;
}

void NTAPI SetAllCallbacks(PWDFDEVICE_INIT init)
{
    WDF_PNPPOWER_EVENT_CALLBACKS power;
    WDF_PNPPOWER_EVENT_CALLBACKS_INIT(&power);
    power.EvtDeviceD0Entry = [](WDFDEVICE, WDF_POWER_DEVICE_STATE) NTAPI { return NoteCall("entry"); };
    power.EvtDeviceD0EntryPostInterruptsEnabled = [](WDFDEVICE, WDF_POWER_DEVICE_STATE)
                                                      NTAPI { return NoteCall("enabled"); };
    power.EvtDeviceD0ExitPreInterruptsDisabled = [](WDFDEVICE, WDF_POWER_DEVICE_STATE)
                                                     NTAPI { return NoteCall("disabled"); };
    power.EvtDeviceD0Exit = [](WDFDEVICE, WDF_POWER_DEVICE_STATE) NTAPI { return NoteCall("exit"); };
    power.EvtDeviceReleaseHardware = [](WDFDEVICE, WDFCMRESLIST) NTAPI { return NoteCall("release"); };
    power.EvtDeviceSelfManagedIoInit = [](WDFDEVICE) NTAPI { return NoteCall("init"); };
    power.EvtDeviceSelfManagedIoSuspend = [](WDFDEVICE) NTAPI { return NoteCall("suspend"); };
    power.EvtDeviceSelfManagedIoRestart = [](WDFDEVICE) NTAPI { return NoteCall("restart"); };
    power.EvtDeviceSelfManagedIoFlush = [](WDFDEVICE) NTAPI { (void)NoteCall("flush"); };
    power.EvtDeviceSelfManagedIoCleanup = [](WDFDEVICE) NTAPI { (void)NoteCall("cleanup"); };
    power.EvtDeviceQueryRemove = [](WDFDEVICE) NTAPI { return NoteCall("query remove"); };
    power.EvtDeviceQueryStop = [](WDFDEVICE) NTAPI { return NoteCall("query stop"); };
    WdfDeviceInitSetPnpPowerEventCallbacks(init, &power);
}

class SelfManagedIo : public FaultyDriverTest {
protected:
    SelfManagedIo()
    {
        EndDevice();
        table.Hooks->Init = SetAllCallbacks;
        g_failing.clear();
        EXPECT_EQ(driver.AddDevice(), STATUS_SUCCESS);
        g_calls.clear();
    }

    std::string TakeCalls()
    {
        std::string text;
        for (const std::string& call : std::exchange(g_calls, {})) {
            text += (text.empty() ? "" : ", ") + call;
        }
        return text;
    }
};

TEST_F(SelfManagedIo, FollowsThePowerOfTheDevice)
{
    EXPECT_EQ(driver.StartDevice(), STATUS_SUCCESS);
    EXPECT_EQ(TakeCalls(), "entry, enabled, init");
    EXPECT_EQ(driver.Sleep(), STATUS_SUCCESS);
    EXPECT_EQ(TakeCalls(), "suspend, disabled, exit");
    EXPECT_EQ(driver.Wake(), STATUS_SUCCESS);
    EXPECT_EQ(TakeCalls(), "entry, enabled, restart");
    driver.SurpriseRemoveDevice();
    EXPECT_EQ(TakeCalls(), "suspend, disabled, exit, release, flush");
    EXPECT_FALSE(driver.RemoveDevice().parked);
    EXPECT_EQ(TakeCalls(), "cleanup");
}

TEST_F(SelfManagedIo, ThatDoesNotStartFailsTheStart)
{
    g_failing = "init";
    EXPECT_EQ(driver.StartDevice(), STATUS_IO_DEVICE_ERROR);
    EXPECT_EQ(TakeCalls(), "entry, enabled, init, exit, release, flush");
    EXPECT_FALSE(driver.RemoveDevice().parked);
    EXPECT_EQ(TakeCalls(), "cleanup");

    EXPECT_EQ(driver.AddDevice(), STATUS_SUCCESS);
    g_failing = "enabled";
    EXPECT_EQ(driver.StartDevice(), STATUS_IO_DEVICE_ERROR);
    EXPECT_EQ(TakeCalls(), "entry, enabled, exit, release");
    EXPECT_FALSE(driver.RemoveDevice().parked);
    EXPECT_EQ(TakeCalls(), "");  // it was never initialised
}

using DeviceQueries = SelfManagedIo;

TEST_F(DeviceQueries, AreForTheDriverToRefuse)
{
    EXPECT_EQ(driver.StartDevice(), STATUS_SUCCESS);
    g_calls.clear();
    EXPECT_EQ(driver.QueryStopDevice(), STATUS_SUCCESS);
    g_failing = "query stop";
    EXPECT_EQ(driver.QueryStopDevice(), STATUS_IO_DEVICE_ERROR);
    EXPECT_EQ(driver.QueryRemoveDevice(), STATUS_SUCCESS);
    g_failing = "query remove";
    EXPECT_EQ(driver.QueryRemoveDevice(), STATUS_IO_DEVICE_ERROR);
    EXPECT_EQ(TakeCalls(), "query stop, query stop, query remove, query remove");
    WdfDeviceSetStaticStopRemove(driver.Device(), FALSE);
    EXPECT_EQ(driver.QueryStopDevice(), STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(driver.QueryRemoveDevice(), STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(TakeCalls(), "");  // refused before the driver is asked
}

}  // namespace
}  // namespace tests
