// The application-state broadcast: power transitions, the I/O control, handles of the control device.
#include "tests/kit/driver_fixture.h"

namespace tests {
namespace {

using host::checks::Rule;

class AppsState : public OnDriver {};
FOR_ALL_CONTAINERS(AppsState);

constexpr std::uintptr_t kStateLock = PO_CB_SYSTEM_STATE_LOCK;

TEST_P(AppsState, OnlyLeavingTheWorkingStateDoesAnything)
{
    Peer& peer = Join(Peer(1).WantsAppsState());
    machine.SetRegistryValue(kService, "SubsystemNotificationTimeout", 100);
    for (const std::uintptr_t kind : {0u, 1u, 2u, 4u}) {
        (void)TakeRecords();
        machine.NotifyPowerState(kind, 0);
        EXPECT_EQ(TakeRecords(), Lines{});
    }
    machine.NotifyPowerState(kStateLock, 1);
    EXPECT_EQ(TakeRecords(),
              (Lines{"M199 EvtPowerStateCallback", "M201 EvtPowerStateCallback", "M202 EvtPowerStateCallback"}));
    machine.NotifyPowerState(kStateLock, 2);
    EXPECT_EQ(peer.appsStateCalls, 0u);
    EXPECT_TRUE(machine.Delays().empty());
    // The second argument counts as 32 bits.
    machine.NotifyPowerState(kStateLock, std::uintptr_t{1} << 32);
    EXPECT_EQ(peer.appsStateCalls, 1u);
    EXPECT_EQ(machine.Delays().size(), 1u);
    // Other kinds may come at DISPATCH_LEVEL and must be turned away at once.
    const host::ScopedIrql irql(DISPATCH_LEVEL);
    machine.NotifyPowerState(1, 0);
}

TEST_P(AppsState, LongestWaitIsNotCutAndATextIsNone)
{
    const auto wait = [&] {
        const auto before = machine.Delays().size();
        machine.NotifyPowerState(kStateLock, 0);
        const auto delays = machine.Delays();
        return delays.size() == before ? std::int64_t{0} : delays.back();
    };
    machine.SetRegistryValue(kService, "SubsystemNotificationTimeout", 0xFFFFFFFF);
    EXPECT_EQ(wait(), -42949672950000);
    (void)TakeReports();
    machine.SetRegistryString(kService, "SubsystemNotificationTimeout", "250");
    EXPECT_EQ(wait(), 0);
    EXPECT_EQ(TakeReports(), (Lines{"13 ZEPReadRegistry: WdfRegistryQueryULong returned NULL?!"}));
    EXPECT_TRUE(machine.inspect().Objects(host::framework::ObjectType::kKey).empty()) << "the key is closed";
}

struct Handle {
    host::Driver& driver;
    host::FileId file = 0;

    explicit Handle(DriverFixture& fixture) : driver(*fixture.driver)
    {
        EXPECT_EQ(driver.Open(file).status, STATUS_SUCCESS);
    }
    ~Handle() { driver.Close(file); }
    NTSTATUS Control(std::uint32_t code)
    {
        const auto result = driver.DeviceControl(file, code);
        EXPECT_TRUE(result.completed && result.information == 0);
        return result.status;
    }
};

TEST_P(AppsState, ControlCodeBroadcastsAndOthersAreNotSupported)
{
    Peer& peer = Join(Peer(1).WantsAppsState());
    Handle handle(*this);
    EXPECT_EQ(handle.Control(0x01002144), STATUS_SUCCESS);
    EXPECT_EQ(peer.appsStateCalls, 1u);
    for (const std::uint32_t code : {0u, 0x01002140u, 0x01002148u, 0x01002145u}) {
        (void)TakeRecords();
        EXPECT_EQ(handle.Control(code), STATUS_NOT_SUPPORTED);
        EXPECT_EQ(TakeRecords(), (Lines{"M208 NotifierEvtIoDeviceControl", "E64 NotifierEvtIoDeviceControl",
                                              "M209 NotifierEvtIoDeviceControl"}));
        const std::vector<std::byte> payload = machine.tracing().Events().back().payload;
        const std::uint64_t traced = code;
        EXPECT_EQ(memcmp(payload.data() + payload.size() - sizeof(traced), &traced, sizeof(traced)), 0);
    }
    EXPECT_EQ(peer.appsStateCalls, 1u);
}

TEST_P(AppsState, HandlesWorkInEveryDeviceState)
{
    Peer& peer = Join(Peer(1).WantsAppsState());
    {
        Handle handle(*this);
        EXPECT_EQ(driver->Sleep(), STATUS_SUCCESS);
        EXPECT_EQ(handle.Control(0x01002144), STATUS_SUCCESS);
        EXPECT_EQ(driver->Wake(), STATUS_SUCCESS);
        driver->SurpriseRemoveDevice();
        EXPECT_EQ(handle.Control(0x01002144), STATUS_SUCCESS) << "also between surprise removal and removal";
    }
    EXPECT_EQ(peer.appsStateCalls, 2u);
}

TEST_P(AppsState, ControlSentAtARaisedLevelIsHandledBelowIt)
{
    Peer& peer = Join(Peer(1).WantsAppsState());
    Handle handle(*this);
    {
        const host::ScopedIrql irql(DISPATCH_LEVEL);
        EXPECT_FALSE(driver->DeviceControl(handle.file, 0x01002144).completed);
    }
    Deliver();
    EXPECT_EQ(peer.appsStateCalls, 1u);
}

TEST_P(AppsState, HandleCarriesAZeroedContextThatNobodyUses)
{
    {
        Handle handle(*this);
        const auto files = machine.inspect().Objects(host::framework::ObjectType::kFileObject);
        ASSERT_EQ(files.size(), 1u);
        const auto context = machine.inspect().Context<ClientContext>(files[0].handle, kClientContextName);
        ASSERT_TRUE(context);
        EXPECT_EQ(memcmp(&*context, std::vector<char>(sizeof(*context)).data(), sizeof(*context)), 0);
        EXPECT_EQ(Count(Context().clients), 0u);
        EXPECT_EQ(TakeRecords(), (Lines{"M49 NotifierEvtDeviceFileCreate", "E45 NotifierEvtDeviceFileCreate"}));
    }
    EXPECT_EQ(TakeRecords(), (Lines{"M52 NotifierEvtDeviceFileClose", "E45 NotifierEvtDeviceFileClose"}));
    EXPECT_TRUE(machine.inspect().Objects(host::framework::ObjectType::kFileObject).empty());
}

}  // namespace
}  // namespace tests
