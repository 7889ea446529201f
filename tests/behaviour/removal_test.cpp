// A client leaves, alone or with all others: what goes, what stays, and who is told.
#include "tests/kit/world.h"

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

}  // namespace
}  // namespace tests
