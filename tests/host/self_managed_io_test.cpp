// The callbacks of a device besides those of its power: when each comes, and what follows one that fails.
#include "tests/host/faulty_driver_fixture.h"

namespace tests {
namespace {

void NTAPI SetAllCallbacks(PWDFDEVICE_INIT init)
{
    WDF_PNPPOWER_EVENT_CALLBACKS power;
    WDF_PNPPOWER_EVENT_CALLBACKS_INIT(&power);
    power.EvtDeviceD0Entry = [](WDFDEVICE, WDF_POWER_DEVICE_STATE) NTAPI { return RecordStep("entry"); };
    power.EvtDeviceD0EntryPostInterruptsEnabled = [](WDFDEVICE, WDF_POWER_DEVICE_STATE)
                                                      NTAPI { return RecordStep("enabled"); };
    power.EvtDeviceD0ExitPreInterruptsDisabled = [](WDFDEVICE, WDF_POWER_DEVICE_STATE)
                                                     NTAPI { return RecordStep("disabled"); };
    power.EvtDeviceD0Exit = [](WDFDEVICE, WDF_POWER_DEVICE_STATE) NTAPI { return RecordStep("exit"); };
    power.EvtDeviceReleaseHardware = [](WDFDEVICE, WDFCMRESLIST) NTAPI { return RecordStep("release"); };
    power.EvtDeviceSelfManagedIoInit = [](WDFDEVICE) NTAPI { return RecordStep("init"); };
    power.EvtDeviceSelfManagedIoSuspend = [](WDFDEVICE) NTAPI { return RecordStep("suspend"); };
    power.EvtDeviceSelfManagedIoRestart = [](WDFDEVICE) NTAPI { return RecordStep("restart"); };
    power.EvtDeviceSelfManagedIoFlush = [](WDFDEVICE) NTAPI { (void)RecordStep("flush"); };
    power.EvtDeviceSelfManagedIoCleanup = [](WDFDEVICE) NTAPI { (void)RecordStep("I/O cleanup"); };
    power.EvtDeviceQueryRemove = [](WDFDEVICE) NTAPI { return RecordStep("query remove"); };
    power.EvtDeviceQueryStop = [](WDFDEVICE) NTAPI { return RecordStep("query stop"); };
    WdfDeviceInitSetPnpPowerEventCallbacks(init, &power);
}

class SelfManagedIo : public FaultyDriverTest {
protected:
    SelfManagedIo()
    {
        EndDevice();
        table.Hooks->Init = SetAllCallbacks;
        EXPECT_EQ(driver.AddDevice(), STATUS_SUCCESS);
        (void)TakeSteps();
    }
};

TEST_F(SelfManagedIo, FollowsThePowerOfTheDevice)
{
    EXPECT_EQ(driver.StartDevice(), STATUS_SUCCESS);
    EXPECT_EQ(TakeSteps(), (Steps{"entry", "enabled", "init"}));
    EXPECT_EQ(driver.Sleep(), STATUS_SUCCESS);
    EXPECT_EQ(TakeSteps(), (Steps{"suspend", "disabled", "exit"}));
    EXPECT_EQ(driver.Wake(), STATUS_SUCCESS);
    EXPECT_EQ(TakeSteps(), (Steps{"entry", "enabled", "restart"}));
    driver.SurpriseRemoveDevice();
    EXPECT_EQ(TakeSteps(), (Steps{"suspend", "disabled", "exit", "release", "flush"}));
    EXPECT_FALSE(driver.RemoveDevice().parked);
    EXPECT_EQ(TakeSteps(), (Steps{"I/O cleanup", "cleanup"}));
}

TEST_F(SelfManagedIo, ThatDoesNotStartFailsTheStart)
{
    failingStep = "init";
    EXPECT_EQ(driver.StartDevice(), STATUS_IO_DEVICE_ERROR);
    EXPECT_EQ(TakeSteps(), (Steps{"entry", "enabled", "init", "exit", "release", "flush"}));
    EXPECT_FALSE(driver.RemoveDevice().parked);
    EXPECT_EQ(TakeSteps(), (Steps{"I/O cleanup", "cleanup"}));

    EXPECT_EQ(driver.AddDevice(), STATUS_SUCCESS);
    failingStep = "enabled";
    EXPECT_EQ(driver.StartDevice(), STATUS_IO_DEVICE_ERROR);
    EXPECT_EQ(TakeSteps(), (Steps{"entry", "enabled", "exit", "release"}));
    EXPECT_FALSE(driver.RemoveDevice().parked);
    EXPECT_EQ(TakeSteps(), Steps{"cleanup"});  // its I/O was never initialised
}

using DeviceQueries = SelfManagedIo;

TEST_F(DeviceQueries, AreForTheDriverToRefuse)
{
    EXPECT_EQ(driver.StartDevice(), STATUS_SUCCESS);
    (void)TakeSteps();
    EXPECT_EQ(driver.QueryStopDevice(), STATUS_SUCCESS);
    failingStep = "query stop";
    EXPECT_EQ(driver.QueryStopDevice(), STATUS_IO_DEVICE_ERROR);
    EXPECT_EQ(driver.QueryRemoveDevice(), STATUS_SUCCESS);
    failingStep = "query remove";
    EXPECT_EQ(driver.QueryRemoveDevice(), STATUS_IO_DEVICE_ERROR);
    EXPECT_EQ(TakeSteps(), (Steps{"query stop", "query stop", "query remove", "query remove"}));
    WdfDeviceSetStaticStopRemove(driver.Device(), FALSE);
    EXPECT_EQ(driver.QueryStopDevice(), STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(driver.QueryRemoveDevice(), STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(TakeSteps(), Steps{});  // refused before the driver is asked
}

}  // namespace
}  // namespace tests
