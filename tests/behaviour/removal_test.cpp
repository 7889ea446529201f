// A client leaves, alone or with all others: what goes, what stays, and who is told.
#include "tests/support/world.h"

namespace tests {
namespace {

using host::checks::Rule;

class Removal : public OnContainer {};
FOR_ALL_CONTAINERS(Removal);

NTSTATUS NTAPI TakeClient(const ZEP_SUBSYSTEM_DESCRIPTOR*)
{
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI TakeRemoval(const ZEP_NOTIFIER_CLIENT_CONTEXT*)
{
    return STATUS_SUCCESS;
}

// A crash-dump driver that takes everything.
void Attach(World& world)
{
    WpcdClientRegistration registration{};
    registration.ZepClientAdd = &TakeClient;
    registration.ZepClientRemove = &TakeRemoval;
    ASSERT_EQ(world.wpcd.Notifier_WpcdClientInit(&registration), STATUS_SUCCESS);
}

TEST_P(Removal, TakesTheClientItsEntriesAndItsSubscriptions)
{
    World world(GetParam());
    Peer leaving(1);
    Peer target(2);
    const ZepDataEntry entries[3] = {};
    ASSERT_EQ(world.Register(leaving, 3, entries), STATUS_SUCCESS);
    ASSERT_EQ(world.Register(target), STATUS_SUCCESS);
    for (const ULONG state : {3u, 4u, 4u}) {
        ASSERT_EQ(world.Subscribe(leaving, target, state), STATUS_SUCCESS);
    }
    const WDFCOLLECTION registrations = world.Client(leaving)->registrations;
    EXPECT_EQ(world.Leave(leaving), STATUS_SUCCESS);
    EXPECT_EQ(world.Count(world.Context().clients), 1u);
    EXPECT_EQ(world.Alive(kRegistrationContextName), 0u);
    EXPECT_FALSE(world.machine.inspect().Find(registrations).has_value());
    EXPECT_TRUE(world.machine.PoolInUse().empty());
    EXPECT_EQ(world.Queued(), 0u) << "the crash-dump driver never had it";
    EXPECT_EQ(world.Count(world.Context().removeQueue), 0u);
    EXPECT_EQ(world.Leave(leaving), STATUS_NOT_FOUND);
    EXPECT_EQ(world.TakeReports(), Lines{}) << "a client that is not there is no report";
    EXPECT_EQ(world.Register(leaving), STATUS_SUCCESS);
}

TEST_P(Removal, LeavesTheAnnouncementQueueEveryTimeItStandsThere)
{
    World world(GetParam());
    Attach(world);
    Peer leaving(1);
    Peer staying(2);
    ASSERT_EQ(world.Register(leaving), STATUS_SUCCESS);
    ASSERT_EQ(world.Register(staying), STATUS_SUCCESS);
    for (Peer* peer : {&leaving, &staying, &leaving, &leaving, &staying}) {
        ASSERT_EQ(world.Post(*peer, 1), STATUS_SUCCESS);
    }
    EXPECT_EQ(world.Count(world.Context().addQueue), 5u);
    EXPECT_EQ(world.Leave(leaving), STATUS_SUCCESS);
    EXPECT_EQ(world.Count(world.Context().addQueue), 2u);
    world.Deliver();
    EXPECT_EQ(world.Client(staying)->addedToWpcd, 1u);
}

TEST_P(Removal, OfAnAnnouncedClientQueuesOneCopyAndOneRun)
{
    World world(GetParam());
    Attach(world);
    Peer leaving(1);
    ASSERT_EQ(world.Register(leaving), STATUS_SUCCESS);
    ASSERT_EQ(world.Post(leaving, 6), STATUS_SUCCESS);
    world.Deliver();
    const ClientContext before = *world.Client(leaving);
    ASSERT_EQ(before.addedToWpcd, 1u);
    ASSERT_EQ(world.Leave(leaving), STATUS_SUCCESS);
    EXPECT_EQ(world.Queued(), 1u);
    const auto copies = world.machine.inspect().Find(world.Context().removeQueue)->items;
    ASSERT_EQ(copies.size(), 1u);
    EXPECT_EQ(world.machine.inspect().Find(copies[0])->parent, world.driver->Handle());
    const auto copy = world.machine.inspect().Context<ClientContext>(copies[0], kClientContextName);
    EXPECT_EQ(memcmp(&*copy, &before, sizeof(before)), 0);

    // Anew it starts unannounced.
    ASSERT_EQ(world.Register(leaving), STATUS_SUCCESS);
    EXPECT_EQ(world.Client(leaving)->addedToWpcd, 0u);
    world.Deliver();
    EXPECT_EQ(world.Alive(kClientContextName), 1u) << "the copy was withdrawn and deleted";
}

TEST_P(Removal, FailuresReportAndLeaveExactlyWhatTheyMust)
{
    struct Row {
        const char* name;
        std::function<void(World&)> arm;
        NTSTATUS status;
        Lines reports;
        bool clientGone;
    };
    const std::string kLeave = "Notifier_HelperClientDeinit: ";
    const Row kRows[] = {
        {"no driver",
         [](World& w) { w.HideDriver(); }, STATUS_IO_DEVICE_ERROR,
         {"2 " + kLeave + "WdfGetDriver returned NULL?!, 0xC0000185"}, false},
        {"no driver context",
         [](World& w) { w.Lose("WdfObjectGetTypedContextWorker", kDriverContextName); }, STATUS_IO_DEVICE_ERROR,
         {"7 " + kLeave + "Driver object context, <driver>, 0xC0000185"}, false},
        {"lock",
         [](World& w) { w.Fail("WdfWaitLockAcquire", STATUS_TIMEOUT); }, STATUS_TIMEOUT,
         {"1 " + kLeave + "WdfWaitLockAcquire for wdfWaitLockClientsCollection, 0x00000102"}, false},
        {"item",
         [](World& w) { w.Lose("WdfCollectionGetItem"); }, STATUS_IO_DEVICE_ERROR,
         {"5 " + kLeave + "WdfCollectionGetItem, 0, <clients>, 2"}, false},
        {"client context",
         [](World& w) { w.Lose("WdfObjectGetTypedContextWorker", kClientContextName); }, STATUS_IO_DEVICE_ERROR,
         {"6 " + kLeave + "Client object context, <object>"}, false},
        // From here on the client goes all the same. Its collection is not drained: it stays with the driver object,
        // and the subscriptions, deleted with the client, stay in it.
        {"copy",
         [](World& w) { w.Fail("WdfObjectCreate", STATUS_NO_MEMORY); }, STATUS_NO_MEMORY,
         {"1 " + kLeave + "WdfObjectCreate for client copy, 0xC0000017"}, true},
        {"copy context",
         [](World& w) { w.Lose("WdfObjectGetTypedContextWorker", kClientContextName, 2); }, STATUS_IO_DEVICE_ERROR,
         {"7 " + kLeave + "Client context, <gone>, 0x00000000"}, true},
        {"copy queue",
         [](World& w) { w.Fail("WdfCollectionAdd", STATUS_UNSUCCESSFUL); }, STATUS_UNSUCCESSFUL,
         {"1 " + kLeave + "WdfCollectionAdd for wdfCollectionWpcdClientRemoveQueue, 0xC0000001"}, true},
    };
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.name);
        World world(GetParam());
        Attach(world);
        Peer staying(1);
        Peer leaving(2);
        ASSERT_EQ(world.Register(staying), STATUS_SUCCESS);
        ASSERT_EQ(world.Register(leaving), STATUS_SUCCESS);
        ASSERT_EQ(world.Subscribe(leaving, staying, 3), STATUS_SUCCESS);
        ASSERT_EQ(world.Post(leaving, 6), STATUS_SUCCESS);
        world.Deliver();
        (void)world.TakeReports();
        using host::framework::ObjectType;
        const auto collections = world.machine.inspect().Objects(ObjectType::kCollection).size();

        row.arm(world);
        EXPECT_EQ(world.Leave(leaving), row.status);
        world.EndFaults();
        EXPECT_EQ(world.TakeReports(), row.reports);
        EXPECT_EQ(world.Client(leaving).has_value(), !row.clientGone);
        const auto subscriptions = world.machine.inspect().WithContext(kRegistrationContextName);
        ASSERT_EQ(subscriptions.size(), 1u);
        EXPECT_EQ(subscriptions[0].deleted, row.clientGone);
        EXPECT_EQ(world.Count(world.Context().removeQueue), 0u);
        EXPECT_EQ(world.Queued(), 0u) << "the crash-dump driver is not told";
        EXPECT_EQ(world.machine.inspect().Objects(ObjectType::kCollection).size(), collections);
        EXPECT_EQ(world.Leave(leaving), row.clientGone ? STATUS_NOT_FOUND : STATUS_SUCCESS);
        EXPECT_EQ(world.Leave(staying), STATUS_SUCCESS);
    }
    World world(GetParam());
    EXPECT_EQ(world.helper.Notifier_HelperClientDeinit(nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(world.TakeReports(), (Lines{"2 " + kLeave + "InterfaceGUID is NULL, 0xC000000D"}));
}

TEST_P(Removal, ReleasesTheClientsLockTwiceWhenACollectionClaimsWhatItCannotGive)
{
    World world(GetParam());
    Peer leaving(1);
    Peer target(2);
    ASSERT_EQ(world.Register(leaving), STATUS_SUCCESS);
    ASSERT_EQ(world.Register(target), STATUS_SUCCESS);
    ASSERT_EQ(world.Subscribe(leaving, target, 3), STATUS_SUCCESS);
    world.Lose("WdfCollectionGetFirstItem");
    EXPECT_EQ(world.Leave(leaving), STATUS_SUCCESS);
    world.EndFaults();
    EXPECT_EQ(world.TakeReports(), (Lines{"5 Notifier_HelperClientDeinit: WdfCollectionGetFirstItem, 0, <gone>, 1"}));
    EXPECT_EQ(world.machine.violations().Take(Rule::kLockNotOwned).size(), 1u);
    EXPECT_EQ(world.Register(leaving), STATUS_SUCCESS);
}

TEST_P(Removal, DeviceCleanUpDropsAllClientsAndTellsNobody)
{
    World world(GetParam());
    Attach(world);
    std::deque<Peer> peers;
    const ZepDataEntry entry{};
    for (ULONG number = 1; number <= 5; ++number) {
        ASSERT_EQ(world.Register(peers.emplace_back(number), 1, &entry), STATUS_SUCCESS);
        ASSERT_EQ(world.Subscribe(peers.back(), peers.front(), 3), STATUS_SUCCESS);
        ASSERT_EQ(world.Post(peers.back(), 1), STATUS_SUCCESS);
    }
    world.Deliver();
    ASSERT_EQ(world.Post(peers.front(), 2), STATUS_SUCCESS);  // left in the queue, an orphan until unload
    world.driver->SurpriseRemoveDevice();
    (void)world.TakeReports();
    EXPECT_FALSE(world.driver->RemoveDevice().parked);
    EXPECT_EQ(world.Count(world.Context().clients), 0u);
    EXPECT_EQ(world.Count(world.Context().removeQueue), 0u);
    EXPECT_EQ(world.Alive(kClientContextName), 0u);
    EXPECT_TRUE(world.machine.PoolInUse().empty());
}

TEST_P(Removal, CleanUpFailuresLeaveTheRest)
{
    struct Row {
        const char* name;
        std::function<void(World&)> arm;
        Lines reports;
        std::size_t clientsLeft;
    };
    const Row kRows[] = {
        {"no driver",
         [](World& w) { w.HideDriver(); },
         {"2 NotifierClientCleanup: WdfGetDriver returned NULL?!, 0xC0000185"}, 2},
        {"no driver context",
         [](World& w) { w.Lose("WdfObjectGetTypedContextWorker", kDriverContextName); },
         {"7 NotifierClientCleanup: Driver object context, <driver>, 0xC0000185"}, 2},
        {"lock",
         [](World& w) { w.Fail("WdfWaitLockAcquire", STATUS_UNSUCCESSFUL); },
         {"1 NotifierClientCleanup: WdfWaitLockAcquire for wdfWaitLockClientsCollection, 0xC0000001"}, 2},
        {"first item", [](World& w) { w.Lose("WdfCollectionGetFirstItem"); }, {}, 2},
        {"client context",
         [](World& w) { w.Lose("WdfObjectGetTypedContextWorker", kClientContextName, 1); },
         {"6 NotifierClientCleanup: Client object context, <object>"}, 1},
        {"subscription",
         [](World& w) { w.Lose("WdfCollectionGetFirstItem", "", 1); },
         {"5 NotifierClientCleanup: WdfCollectionGetFirstItem, 0, <gone>, 1"}, 0},
    };
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.name);
        World world(GetParam());
        Peer first(1);
        Peer second(2);
        ASSERT_EQ(world.Register(first), STATUS_SUCCESS);
        ASSERT_EQ(world.Register(second), STATUS_SUCCESS);
        ASSERT_EQ(world.Subscribe(first, second, 3), STATUS_SUCCESS);
        world.driver->SurpriseRemoveDevice();
        (void)world.TakeReports();
        row.arm(world);
        EXPECT_FALSE(world.driver->RemoveDevice().parked);
        world.EndFaults();
        EXPECT_EQ(world.TakeReports(), row.reports);
        EXPECT_EQ(world.Count(world.Context().clients), row.clientsLeft);
    }
}

}  // namespace
}  // namespace tests
