// The application-state broadcast: power transitions, the I/O control, handles of the control device.
#include "tests/support/world.h"

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
    world.HideDriver();
    EXPECT_EQ(wait(), 0);
    world.EndFaults();
    EXPECT_EQ(world.TakeReports(), (Lines{"13 Notifier_NotifyAppsState: WdfGetDriver returned NULL?! Returning NULL",
                                          "13 ZEPReadRegistry: WdfGetDriver returned NULL?!"}));
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
        EXPECT_EQ(handle.Control(code), STATUS_NOT_SUPPORTED);
    }
    EXPECT_EQ(peer.appsStateCalls, 1u);

    world.Fail("WdfWaitLockAcquire", STATUS_TIMEOUT);
    EXPECT_EQ(handle.Control(0x01002144), STATUS_SUCCESS) << "a success-class status is no failure here";
    world.Fail("WdfWaitLockAcquire", STATUS_NO_MEMORY);
    EXPECT_EQ(handle.Control(0x01002144), STATUS_UNSUCCESSFUL);
    world.Lose("WdfIoQueueGetDevice");
    EXPECT_EQ(handle.Control(0x01002144), STATUS_INVALID_DEVICE_REQUEST);
    world.EndFaults();
    EXPECT_EQ(world.TakeReports(),
              (Lines{"1 Notifier_NotifyAppsState: WdfWaitLockAcquire for wdfWaitLockClientsCollection, 0x00000102",
                     "1 Notifier_NotifyAppsState: WdfWaitLockAcquire for wdfWaitLockClientsCollection, 0xC0000017",
                     "9 NotifierEvtIoDeviceControl: Received device object NULL for this request's queue, <queue>, "
                     "0xC0000010"}));
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

TEST_P(AppsState, BroadcastFailuresAreReportedAndNeverStopTheOthers)
{
    struct Row {
        const char* name;
        std::function<void(World&)> arm;
        NTSTATUS control;
        Lines reports;
        unsigned calls;             // of the two hearing clients
        std::vector<ULONG> states;  // their states afterwards
        std::size_t collectionsLeft;  // the temporary one, unless a failure deleted it with its parent
    };
    const std::string kRun = "Notifier_NotifyAppsState: ";
    const Row kRows[] = {
        {"no driver context",
         [](World& w) { w.Lose("WdfObjectGetTypedContextWorker", kDriverContextName); }, STATUS_UNSUCCESSFUL,
         {"13 " + kRun + "Driver context is NULL?! Returning NULL"}, 0, {0, 0}, 0},
        {"parent",
         [](World& w) { w.Fail("WdfObjectCreate", STATUS_NO_MEMORY); }, STATUS_UNSUCCESSFUL,
         {"1 " + kRun + "WdfObjectCreate, 0xC0000017"}, 0, {0, 0}, 0},
        {"collection",
         [](World& w) { w.Fail("WdfCollectionCreate", STATUS_NO_MEMORY); }, STATUS_UNSUCCESSFUL,
         {"1 " + kRun + "WdfCollectionObjectCreate for for wdfCollectionAttributes, 0xC0000017"}, 0, {0, 0}, 0},
        {"client item",
         [](World& w) { w.Lose("WdfCollectionGetItem"); }, STATUS_SUCCESS,
         {"5 " + kRun + "WdfCollectionGetItem, 0, <clients>, 2"}, 1, {0, 7}, 1},
        {"client context",
         [](World& w) { w.Lose("WdfObjectGetTypedContextWorker", kClientContextName); }, STATUS_SUCCESS,
         {"6 " + kRun + "Client context, <object>"}, 1, {0, 7}, 1},
        {"state",
         [](World& w) { w.Fail("WdfObjectCreate", STATUS_NO_MEMORY, 1); }, STATUS_SUCCESS,
         {"1 " + kRun + "WdfObjectCreate, 0xC0000017"}, 2, {0, 7}, 1},
        // These two delete the temporary parent and go on with its collection.
        {"state context",
         [](World& w) { w.Lose("WdfObjectGetTypedContextWorker", kStateContextName); }, STATUS_SUCCESS,
         {"6 " + kRun + "State notification context, <object>"}, 2, {0, 7}, 0},
        {"append",
         [](World& w) { w.Fail("WdfCollectionAdd", STATUS_UNSUCCESSFUL); }, STATUS_SUCCESS,
         {"1 " + kRun + "WdfCollectionAdd for wdfClientCollection, 0xC0000001"}, 2, {0, 7}, 0},
        // The index is reported as 0, whichever it was.
        {"answer item",
         [](World& w) { w.Lose("WdfCollectionGetItem", "", 4); }, STATUS_SUCCESS,
         {"5 " + kRun + "WdfCollectionGetItem, 0, <collection>, 2"}, 2, {7, 0}, 1},
        {"answer context",
         [](World& w) { w.Lose("WdfObjectGetTypedContextWorker", kStateContextName, 2); }, STATUS_SUCCESS,
         {"6 " + kRun + "State notification context, <object>"}, 2, {0, 7}, 0},
        {"last post",
         [](World& w) { w.Fail("WdfCollectionAdd", STATUS_UNSUCCESSFUL, 4); }, STATUS_UNSUCCESSFUL,
         {"1 Notifier_HelperSendState: WdfCollectionAdd for wdfCollectionWpcdClientAddQueue, 0xC0000001"}, 2, {7, 7}, 0},
    };
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.name);
        World world(GetParam());
        Peer first(1);
        Peer second(2);
        for (Peer* peer : {&first, &second}) {
            peer->HearsAppsState().onAppsState = [](ULONG& state) { state = 7; };
            ASSERT_EQ(world.Register(*peer), STATUS_SUCCESS);
        }
        Handle handle(world);
        (void)world.TakeReports();
        using host::framework::ObjectType;
        const std::size_t collections = world.machine.inspect().Objects(ObjectType::kCollection).size();
        row.arm(world);
        const NTSTATUS status = handle.Control(0x01002144);
        world.EndFaults();
        EXPECT_EQ(status, row.control);
        EXPECT_EQ(world.TakeReports(), row.reports);
        EXPECT_EQ(world.machine.inspect().Objects(ObjectType::kCollection).size(), collections + row.collectionsLeft);
        EXPECT_EQ(first.appsStateCalls + second.appsStateCalls, row.calls);
        EXPECT_EQ(world.Client(first)->currentState, row.states[0]);
        EXPECT_EQ(world.Client(second)->currentState, row.states[1]);
        EXPECT_EQ(handle.Control(0x01002144), STATUS_SUCCESS) << "the clients lock is free";
    }
}

// As when a client leaves between the phases: its post fails, and the temporary objects are deleted under the loop.
TEST_P(AppsState, ClientMissingInTheSecondPhaseFailsItsPostOnly)
{
    World world(GetParam());
    Peer leaving(1);
    Peer staying(2);
    for (Peer* peer : {&leaving, &staying}) {
        peer->HearsAppsState().onAppsState = [](ULONG& state) { state = 7; };
        ASSERT_EQ(world.Register(*peer), STATUS_SUCCESS);
    }
    Handle handle(world);
    world.Lose("WdfObjectGetTypedContextWorker", kClientContextName, 2);  // the first look-up of phase two misses
    EXPECT_EQ(handle.Control(0x01002144), STATUS_SUCCESS);
    world.EndFaults();
    EXPECT_EQ(world.TakeReports(), (Lines{"6 _getClientContextByGUID: Client context, <object>",
                                          "12 Notifier_HelperSendState: Unable to find client with , "
                                          "{00000001-1111-2222-0102-030405060708}, 0xC0000010"}));
    EXPECT_EQ(world.Client(leaving)->currentState, 0u);
    EXPECT_EQ(world.Client(staying)->currentState, 7u);
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

TEST_P(AppsState, OpenFailsWithExactlyTheContextsStatus)
{
    World world(GetParam());
    host::FileId file = 0;
    world.Fail("WdfObjectAllocateContext", STATUS_NO_MEMORY);
    EXPECT_EQ(world.driver->Open(file).status, STATUS_NO_MEMORY);
    world.EndFaults();
    EXPECT_EQ(world.TakeReports(), (Lines{"1 NotifierEvtDeviceFileCreate: WdfObjectAllocateContext, 0xC0000017"}));

    world.machine.faults().Add({.function = "WdfObjectAllocateContext", .form = host::checks::FaultForm::kNullOutput});
    EXPECT_EQ(world.driver->Open(file).status, STATUS_IO_DEVICE_ERROR);
    world.EndFaults();
    EXPECT_EQ(world.TakeReports(), (Lines{"9 NotifierEvtDeviceFileCreate: Received context pointer NULL from "
                                          "WdfObjectAllocateContext, <gone>, 0xC0000185"}));

    ASSERT_EQ(world.driver->Open(file).status, STATUS_SUCCESS);
    world.Lose("WdfObjectGetTypedContextWorker", kClientContextName);
    world.driver->Close(file);
    world.EndFaults();
    EXPECT_EQ(world.TakeReports(), (Lines{"6 NotifierEvtDeviceFileClose: File handle context, <gone>"}));
}

}  // namespace
}  // namespace tests
