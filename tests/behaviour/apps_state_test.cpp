// The application-state broadcast: power transitions, the I/O control, handles of the control device.
#include "tests/kit/world.h"

namespace tests {
namespace {

using host::checks::Rule;

class AppsState : public OnContainer {};
FOR_ALL_CONTAINERS(AppsState);

constexpr std::uintptr_t kStateLock = PO_CB_SYSTEM_STATE_LOCK;

TEST_P(AppsState, PowerTransitionTellsEveryClientAndPostsTheAnswers)
{
    World world(GetParam());
    Peer deaf(1);
    Peer content(2);
    Peer changing(3);
    Peer watcher(4);
    content.HearsAppsState();
    changing.HearsAppsState();
    ULONG entered = 99;
    changing.onAppsState = [&](ULONG& state) {
        entered = state;
        state = 4;
    };
    for (Peer* peer : {&deaf, &content, &changing, &watcher}) {
        ASSERT_EQ(world.Register(*peer), STATUS_SUCCESS);
    }
    ASSERT_EQ(world.Post(changing, 1), STATUS_SUCCESS);
    ASSERT_EQ(world.Subscribe(watcher, changing, 4), STATUS_SUCCESS);
    world.Deliver();
    (void)world.TakeReports();

    world.machine.NotifyPowerState(kStateLock, 0);
    EXPECT_EQ(entered, 1u);
    EXPECT_EQ(content.appsStateCalls, 1u);
    EXPECT_EQ(changing.appsStateCalls, 1u);
    EXPECT_EQ(world.TakeReports(),
              (Lines{"6 Notifier_NotifyAppsState: ActionCallbackTable.AppsStateNotificationCallback, <object>",
                     "6 Notifier_NotifyAppsState: ActionCallbackTable.AppsStateNotificationCallback, <object>",
                     "13 ZEPReadRegistry: WdfDriverOpenParametersRegistryKey failed with status NULL?!"}));
    EXPECT_TRUE(world.machine.Delays().empty());
    world.Deliver();
    ASSERT_EQ(watcher.deliveries.size(), 1u);
    EXPECT_EQ(watcher.deliveries[0].Size, 32u);
    EXPECT_EQ(world.Client(changing)->currentState, 4u);
}

TEST_P(AppsState, OnlyLeavingTheWorkingStateDoesAnything)
{
    World world(GetParam());
    Peer peer(1);
    peer.HearsAppsState();
    ASSERT_EQ(world.Register(peer), STATUS_SUCCESS);
    world.machine.SetRegistryValue(kService, "SubsystemNotificationTimeout", 100);
    for (const std::uintptr_t kind : {0u, 1u, 2u, 4u}) {
        (void)world.TakeRecords();
        world.machine.NotifyPowerState(kind, 0);
        EXPECT_EQ(world.TakeRecords(), Lines{});
    }
    world.machine.NotifyPowerState(kStateLock, 1);
    EXPECT_EQ(world.TakeRecords(),
              (Lines{"M199 EvtPowerStateCallback", "M201 EvtPowerStateCallback", "M202 EvtPowerStateCallback"}));
    world.machine.NotifyPowerState(kStateLock, 2);
    EXPECT_EQ(peer.appsStateCalls, 0u);
    EXPECT_TRUE(world.machine.Delays().empty());
    // The second argument counts as 32 bits.
    world.machine.NotifyPowerState(kStateLock, std::uintptr_t{1} << 32);
    EXPECT_EQ(peer.appsStateCalls, 1u);
    EXPECT_EQ(world.machine.Delays().size(), 1u);
    // Other kinds may come at DISPATCH_LEVEL and must be turned away at once.
    const host::ScopedIrql irql(DISPATCH_LEVEL);
    world.machine.NotifyPowerState(1, 0);
}

TEST_P(AppsState, WaitIsReadAnewEachTimeAndIsInMilliseconds)
{
    World world(GetParam());
    const auto wait = [&] {
        const auto before = world.machine.Delays().size();
        world.machine.NotifyPowerState(kStateLock, 0);
        const auto delays = world.machine.Delays();
        return delays.size() == before ? std::int64_t{0} : delays.back();
    };
    EXPECT_EQ(wait(), 0);
    world.machine.SetRegistryValue(kService, "SubsystemNotificationTimeout", 250);
    EXPECT_EQ(wait(), -2500000);
    world.machine.SetRegistryValue(kService, "SubsystemNotificationTimeout", 0xFFFFFFFF);
    EXPECT_EQ(wait(), -42949672950000);
    world.machine.SetRegistryValue(kService, "SubsystemNotificationTimeout", 0);
    EXPECT_EQ(wait(), 0);
    (void)world.TakeReports();
    world.machine.SetRegistryString(kService, "SubsystemNotificationTimeout", "250");
    EXPECT_EQ(wait(), 0);
    EXPECT_EQ(world.TakeReports(), (Lines{"13 ZEPReadRegistry: WdfRegistryQueryULong returned NULL?!"}));
    EXPECT_TRUE(world.machine.inspect().Objects(host::framework::ObjectType::kKey).empty()) << "the key is closed";
}

struct Handle {
    World& world;
    host::FileId file = 0;

    explicit Handle(World& ofWorld) : world(ofWorld)
    {
        const auto opened = world.driver->Open(file);
        EXPECT_TRUE(opened.completed);
        EXPECT_EQ(opened.status, STATUS_SUCCESS);
    }
    ~Handle() { world.driver->Close(file); }
    NTSTATUS Control(std::uint32_t code)
    {
        const auto result = world.driver->DeviceControl(file, code);
        EXPECT_TRUE(result.completed);
        EXPECT_EQ(result.information, 0u);
        return result.status;
    }
};

TEST_P(AppsState, ControlCodeBroadcastsAndOthersAreNotSupported)
{
    World world(GetParam());
    Peer peer(1);
    peer.HearsAppsState();
    ASSERT_EQ(world.Register(peer), STATUS_SUCCESS);
    Handle handle(world);
    EXPECT_EQ(handle.Control(0x01002144), STATUS_SUCCESS);
    EXPECT_EQ(peer.appsStateCalls, 1u);
    for (const std::uint32_t code : {0u, 0x01002140u, 0x01002148u, 0x01002145u}) {
        (void)world.TakeRecords();
        EXPECT_EQ(handle.Control(code), STATUS_NOT_SUPPORTED);
        EXPECT_EQ(world.TakeRecords(), (Lines{"M208 NotifierEvtIoDeviceControl", "E64 NotifierEvtIoDeviceControl",
                                              "M209 NotifierEvtIoDeviceControl"}));
    }
    EXPECT_EQ(peer.appsStateCalls, 1u);
}

TEST_P(AppsState, HandlesWorkInEveryStageOfTheDevice)
{
    World world(GetParam());
    Peer peer(1);
    peer.HearsAppsState();
    ASSERT_EQ(world.Register(peer), STATUS_SUCCESS);
    {
        Handle handle(world);
        EXPECT_EQ(world.driver->Sleep(), STATUS_SUCCESS);
        EXPECT_EQ(handle.Control(0x01002144), STATUS_SUCCESS);
        EXPECT_EQ(world.driver->Wake(), STATUS_SUCCESS);
        world.driver->SurpriseRemoveDevice();
        EXPECT_EQ(handle.Control(0x01002144), STATUS_SUCCESS) << "also between surprise removal and removal";
    }
    EXPECT_EQ(peer.appsStateCalls, 2u);
}

TEST_P(AppsState, ControlSentAtARaisedLevelIsHandledBelowIt)
{
    World world(GetParam());
    Peer peer(1);
    peer.HearsAppsState();
    ASSERT_EQ(world.Register(peer), STATUS_SUCCESS);
    Handle handle(world);
    {
        const host::ScopedIrql irql(DISPATCH_LEVEL);
        EXPECT_FALSE(world.driver->DeviceControl(handle.file, 0x01002144).completed);
    }
    world.Deliver();
    EXPECT_EQ(peer.appsStateCalls, 1u);
}

TEST_P(AppsState, TemporaryObjectsStayUntilUnloadOnPurpose)
{
    World world(GetParam());
    Peer peer(1);
    peer.HearsAppsState().onAppsState = [](ULONG& state) { ++state; };
    ASSERT_EQ(world.Register(peer), STATUS_SUCCESS);
    const std::size_t before = world.machine.inspect().Objects().size();
    for (int round = 0; round < 3; ++round) {
        world.machine.NotifyPowerState(kStateLock, 0);
        world.Deliver();
    }
    // Each broadcast leaves its parent, its collection and one object for each answer.
    EXPECT_EQ(world.machine.inspect().Objects().size(), before + 3 * 3);
}

TEST_P(AppsState, HandleCarriesAZeroedContextThatNobodyUses)
{
    World world(GetParam());
    {
        Handle handle(world);
        const auto files = world.machine.inspect().Objects(host::framework::ObjectType::kFileObject);
        ASSERT_EQ(files.size(), 1u);
        const auto context = world.machine.inspect().Context<ClientContext>(files[0].handle, kClientContextName);
        ASSERT_TRUE(context);
        EXPECT_EQ(memcmp(&*context, std::vector<char>(sizeof(*context)).data(), sizeof(*context)), 0);
        EXPECT_EQ(world.Count(world.Context().clients), 0u);
        EXPECT_EQ(world.TakeRecords(), (Lines{"M49 NotifierEvtDeviceFileCreate", "E45 NotifierEvtDeviceFileCreate"}));
    }
    EXPECT_EQ(world.TakeRecords(), (Lines{"M52 NotifierEvtDeviceFileClose", "E45 NotifierEvtDeviceFileClose"}));
    EXPECT_TRUE(world.machine.inspect().Objects(host::framework::ObjectType::kFileObject).empty());
}

}  // namespace
}  // namespace tests
