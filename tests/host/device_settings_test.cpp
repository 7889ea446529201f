// What a driver sets before its device exists, and what it can ask of the device afterwards.
#include "tests/host/faulty_driver_fixture.h"

namespace tests {
namespace {

class DeviceSettings : public FaultyDriverTest {};
class IdleSettings : public FaultyDriverTest {};
class ResourceLists : public FaultyDriverTest {};

TEST_F(DeviceSettings, ShowInTheDeviceObject)
{
    RenewDevice([](PWDFDEVICE_INIT init) NTAPI {
        WdfDeviceInitSetExclusive(init, TRUE);
        WdfDeviceInitSetIoType(init, WdfDeviceIoDirect);
        WdfDeviceInitSetDeviceType(init, 0x2A);
        WdfDeviceInitSetCharacteristics(init, 0x40, FALSE);
        WdfDeviceInitSetCharacteristics(init, 0x01, TRUE);
        WdfDeviceInitSetPowerPageable(init);
        WdfDeviceInitSetPowerInrush(init);
    });
    const WDFDEVICE device = driver.Device();
    DEVICE_OBJECT* const object = WdfDeviceWdmGetDeviceObject(device);
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(WdfDeviceWdmGetDeviceObject(device), object);
    EXPECT_EQ(object->DriverObject, WdfDriverWdmGetDriverObject(driver.Handle()));
    EXPECT_EQ(object->DeviceType, 0x2Au);
    EXPECT_EQ(object->Characteristics, 0x41u | FILE_DEVICE_SECURE_OPEN);
    EXPECT_EQ(object->Flags, static_cast<ULONG>(DO_EXCLUSIVE | DO_DIRECT_IO | DO_POWER_INRUSH));
    DEVICE_OBJECT* const below = WdfDeviceWdmGetPhysicalDevice(device);
    EXPECT_EQ(WdfDeviceWdmGetAttachedDevice(device), below);
    EXPECT_EQ(below->AttachedDevice, object);
    EXPECT_EQ(WdfWdmDeviceGetWdfDeviceHandle(object), device);
    EXPECT_EQ(WdfWdmDeviceGetWdfDeviceHandle(below), nullptr);
    EXPECT_EQ(TakeRules(), std::vector{Rule::kForeignHandle});

    host::FileId first = 0;
    host::FileId second = 0;
    EXPECT_EQ(driver.Open(first).status, STATUS_SUCCESS);
    EXPECT_EQ(driver.Open(second).status, STATUS_ACCESS_DENIED);
    driver.Close(first);
    EXPECT_EQ(driver.Open(second).status, STATUS_SUCCESS);
    driver.Close(second);
}

TEST_F(DeviceSettings, GiveRequestsTheirContext)
{
    static std::vector<WDFOBJECT> cleaned;
    cleaned.clear();
    RenewDevice([](PWDFDEVICE_INIT init) NTAPI {
        WDF_OBJECT_ATTRIBUTES attributes;
        WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, FAULTY_CONTEXT);
        attributes.EvtCleanupCallback = [](WDFOBJECT request) NTAPI {
            EXPECT_EQ(WdfObjectGet_FAULTY_CONTEXT(request)->Numbers[0], 7u);
            cleaned.push_back(request);
        };
        WdfDeviceInitSetRequestAttributes(init, &attributes);
    });
    static WDFREQUEST sent;
    table.Hooks->Control = [](WDFREQUEST request) NTAPI {
        sent = request;
        WdfObjectGet_FAULTY_CONTEXT(request)->Numbers[0] = 7;
        WdfRequestComplete(request, STATUS_SUCCESS);
        EXPECT_TRUE(cleaned.empty() || cleaned.back() != request);  // the sender has yet to get its result
    };
    table.Hooks->FileCreate = [](WDFREQUEST request, WDFFILEOBJECT) NTAPI {
        WdfObjectGet_FAULTY_CONTEXT(request)->Numbers[0] = 7;
        WdfRequestComplete(request, STATUS_SUCCESS);
    };
    host::FileId file = 0;
    EXPECT_EQ(driver.Open(file).status, STATUS_SUCCESS);
    driver.DeviceControl(file, CTL_CODE(FILE_DEVICE_UNKNOWN, 0x800, METHOD_BUFFERED, FILE_ANY_ACCESS));
    EXPECT_EQ(cleaned.size(), 2u);
    EXPECT_EQ(cleaned.back(), sent);
    driver.Close(file);
}

TEST_F(DeviceSettings, ThatCannotBeAreReported)
{
    const auto rulesOf = [&](void(NTAPI * init)(PWDFDEVICE_INIT init)) {
        RenewDevice(init);
        return TakeRules();
    };
    const std::vector<Rule> bad{Rule::kBadParameter};
    EXPECT_EQ(rulesOf([](PWDFDEVICE_INIT init) NTAPI {
                  WDF_POWER_POLICY_EVENT_CALLBACKS callbacks;
                  WDF_POWER_POLICY_EVENT_CALLBACKS_INIT(&callbacks);
                  WdfDeviceInitSetPowerPolicyEventCallbacks(init, &callbacks);
                  callbacks.EvtDeviceArmWakeFromSx = &callbacks;
                  callbacks.EvtDeviceArmWakeFromSxWithReason = &callbacks;
                  callbacks.Size = 56;  // of a framework without the second
                  WdfDeviceInitSetPowerPolicyEventCallbacks(init, &callbacks);
              }),
              std::vector<Rule>{});
    EXPECT_EQ(rulesOf([](PWDFDEVICE_INIT init) NTAPI {
                  WDF_POWER_POLICY_EVENT_CALLBACKS callbacks;
                  WDF_POWER_POLICY_EVENT_CALLBACKS_INIT(&callbacks);
                  callbacks.EvtDeviceArmWakeFromSx = &callbacks;
                  callbacks.EvtDeviceArmWakeFromSxWithReason = &callbacks;
                  WdfDeviceInitSetPowerPolicyEventCallbacks(init, &callbacks);
              }),
              bad);
    EXPECT_EQ(rulesOf([](PWDFDEVICE_INIT init) NTAPI {
                  WDF_POWER_POLICY_EVENT_CALLBACKS callbacks{};
                  WdfDeviceInitSetPowerPolicyEventCallbacks(init, &callbacks);
              }),
              bad);
    EXPECT_EQ(rulesOf([](PWDFDEVICE_INIT init) NTAPI {
                  WDF_OBJECT_ATTRIBUTES attributes{};
                  WdfDeviceInitSetRequestAttributes(init, &attributes);
              }),
              bad);
    EXPECT_EQ(rulesOf([](PWDFDEVICE_INIT) NTAPI { WdfDeviceInitSetExclusive(nullptr, TRUE); }),
              std::vector{Rule::kRequiredParameter});
}

TEST_F(IdleSettings, AreForWhoOwnsThePowerPolicyOfADeviceThatCannotWake)
{
    WDF_DEVICE_POWER_POLICY_IDLE_SETTINGS settings;
    const auto statusWith = [&](const auto& change) {
        WDF_DEVICE_POWER_POLICY_IDLE_SETTINGS_INIT(&settings, IdleCannotWakeFromS0);
        change();
        return WdfDeviceAssignS0IdleSettings(driver.Device(), &settings);
    };
    EXPECT_EQ(statusWith([] {}), STATUS_SUCCESS);
    EXPECT_EQ(statusWith([&] { settings.Size = 20; }), STATUS_INFO_LENGTH_MISMATCH);
    EXPECT_EQ(statusWith([&] { settings.DxState = PowerDeviceD0; }), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(statusWith([&] { settings.Enabled = static_cast<WDF_TRI_STATE>(3); }), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(statusWith([&] { settings.IdleCaps = IdleCanWakeFromS0; }), STATUS_POWER_STATE_INVALID);
    EXPECT_EQ(statusWith([&] {
                  settings.IdleCaps = IdleCanWakeFromS0;
                  settings.PowerUpIdleDeviceOnSystemWake = WdfTrue;
              }),
              STATUS_INVALID_PARAMETER);
    const auto systemManaged = [&] { settings.IdleTimeoutType = SystemManagedIdleTimeout; };
    EXPECT_EQ(statusWith(systemManaged), STATUS_INVALID_DEVICE_REQUEST);  // it was the driver's first
    EXPECT_EQ(statusWith([&] {
                  systemManaged();
                  settings.Size = 28;  // of a framework without it
              }),
              STATUS_SUCCESS);
}

TEST_F(IdleSettings, AreRefusedOnADeviceOfAnothersPowerPolicy)
{
    RenewDevice([](PWDFDEVICE_INIT init) NTAPI { WdfDeviceInitSetPowerPolicyOwnership(init, FALSE); });
    WDF_DEVICE_POWER_POLICY_IDLE_SETTINGS settings;
    WDF_DEVICE_POWER_POLICY_IDLE_SETTINGS_INIT(&settings, IdleCannotWakeFromS0);
    EXPECT_EQ(WdfDeviceAssignS0IdleSettings(driver.Device(), &settings), STATUS_INVALID_DEVICE_REQUEST);
}

TEST_F(ResourceLists, AreEmptyAndEndWithTheDevice)
{
    static std::vector<WDFCMRESLIST> lists;
    lists.clear();
    table.Hooks->Resources = [](WDFCMRESLIST list) NTAPI {
        EXPECT_EQ(WdfCmResourceListGetCount(list), 0u);
        EXPECT_EQ(WdfCmResourceListGetDescriptor(list, 0), nullptr);
        lists.push_back(list);
    };
    RenewDevice();
    driver.SurpriseRemoveDevice();
    ASSERT_EQ(lists.size(), 4u);  // translated at the first's end; raw and translated at the next one's start and end
    EXPECT_NE(lists[1], lists[2]);
    EXPECT_EQ(lists[3], lists[2]);
    EXPECT_FALSE(driver.RemoveDevice().parked);
    EXPECT_EQ(WdfCmResourceListGetCount(lists[0]), 0u);
    EXPECT_EQ(TakeRules(), std::vector{Rule::kDeadHandle});
}

}  // namespace
}  // namespace tests
