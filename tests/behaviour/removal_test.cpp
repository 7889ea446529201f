// A client is deregistered, or all are removed with the device: what is deleted, what stays, and who is notified.
#include "tests/kit/driver_fixture.h"

namespace tests {
namespace {

using host::checks::Rule;

class Removal : public OnContainer {};
FOR_ALL_CONTAINERS(Removal);

TEST_P(Removal, TakesTheClientItsEntriesAndItsSubscriptions)
{
    DriverFixture fixture(GetParam());
    Peer leaving(1);
    Peer target(2);
    const ZepDataEntry entries[3] = {};
    ASSERT_EQ(fixture.Register(leaving, 3, entries), STATUS_SUCCESS);
    ASSERT_EQ(fixture.Register(target), STATUS_SUCCESS);
    for (const ULONG state : {3u, 4u, 4u}) {
        ASSERT_EQ(fixture.Subscribe(leaving, target, state), STATUS_SUCCESS);
    }
    const WDFCOLLECTION registrations = fixture.Client(leaving)->registrations;
    EXPECT_EQ(fixture.Leave(leaving), STATUS_SUCCESS);
    EXPECT_EQ(fixture.Count(fixture.Context().clients), 1u);
    EXPECT_EQ(fixture.Alive(kRegistrationContextName), 0u);
    EXPECT_FALSE(fixture.machine.inspect().Find(registrations).has_value());
    EXPECT_TRUE(fixture.machine.PoolInUse().empty());
    EXPECT_EQ(fixture.Queued(), 0u) << "the crash-dump driver never had it";
    EXPECT_EQ(fixture.Count(fixture.Context().removeQueue), 0u);
    EXPECT_EQ(fixture.Leave(leaving), STATUS_NOT_FOUND);
    EXPECT_EQ(fixture.TakeReports(), Lines{}) << "a client that is not there is no report";
    EXPECT_EQ(fixture.Register(leaving), STATUS_SUCCESS);
}

TEST_P(Removal, LeavesTheAnnouncementQueueEveryTimeItStandsThere)
{
    DriverFixture fixture(GetParam());
    ASSERT_EQ(fixture.Attach(), STATUS_SUCCESS);
    Peer leaving(1);
    Peer staying(2);
    ASSERT_EQ(fixture.Register(leaving), STATUS_SUCCESS);
    ASSERT_EQ(fixture.Register(staying), STATUS_SUCCESS);
    for (Peer* peer : {&leaving, &staying, &leaving, &leaving, &staying}) {
        ASSERT_EQ(fixture.Post(*peer, 1), STATUS_SUCCESS);
    }
    EXPECT_EQ(fixture.Count(fixture.Context().addQueue), 5u);
    EXPECT_EQ(fixture.Leave(leaving), STATUS_SUCCESS);
    EXPECT_EQ(fixture.Count(fixture.Context().addQueue), 2u);
    fixture.Deliver();
    EXPECT_EQ(fixture.Client(staying)->addedToWpcd, 1u);
}

TEST_P(Removal, OfAnAnnouncedClientQueuesOneCopyAndOneRun)
{
    DriverFixture fixture(GetParam());
    ASSERT_EQ(fixture.Attach(), STATUS_SUCCESS);
    Peer leaving(1);
    ASSERT_EQ(fixture.Register(leaving), STATUS_SUCCESS);
    ASSERT_EQ(fixture.Post(leaving, 6), STATUS_SUCCESS);
    fixture.Deliver();
    const ClientContext before = *fixture.Client(leaving);
    ASSERT_EQ(before.addedToWpcd, 1u);
    ASSERT_EQ(fixture.Leave(leaving), STATUS_SUCCESS);
    EXPECT_EQ(fixture.Queued(), 1u);
    const auto copies = fixture.machine.inspect().Find(fixture.Context().removeQueue)->items;
    ASSERT_EQ(copies.size(), 1u);
    EXPECT_EQ(fixture.machine.inspect().Find(copies[0])->parent, fixture.driver->Handle());
    const auto copy = fixture.machine.inspect().Context<ClientContext>(copies[0], kClientContextName);
    EXPECT_EQ(memcmp(&*copy, &before, sizeof(before)), 0);

    // Anew it starts unannounced.
    ASSERT_EQ(fixture.Register(leaving), STATUS_SUCCESS);
    EXPECT_EQ(fixture.Client(leaving)->addedToWpcd, 0u);
    fixture.Deliver();
    EXPECT_EQ(fixture.Alive(kClientContextName), 1u) << "the copy was withdrawn and deleted";
}

TEST_P(Removal, DeviceCleanUpDropsAllClientsAndTellsNobody)
{
    DriverFixture fixture(GetParam());
    ASSERT_EQ(fixture.Attach(), STATUS_SUCCESS);
    std::deque<Peer> peers;
    const ZepDataEntry entry{};
    for (ULONG number = 1; number <= 5; ++number) {
        ASSERT_EQ(fixture.Register(peers.emplace_back(number), 1, &entry), STATUS_SUCCESS);
        ASSERT_EQ(fixture.Subscribe(peers.back(), peers.front(), 3), STATUS_SUCCESS);
        ASSERT_EQ(fixture.Post(peers.back(), 1), STATUS_SUCCESS);
    }
    fixture.Deliver();
    ASSERT_EQ(fixture.Post(peers.front(), 2), STATUS_SUCCESS);  // left in the queue, an orphan until unload
    fixture.driver->SurpriseRemoveDevice();
    (void)fixture.TakeReports();
    EXPECT_FALSE(fixture.driver->RemoveDevice().parked);
    EXPECT_EQ(fixture.Count(fixture.Context().clients), 0u);
    EXPECT_EQ(fixture.Count(fixture.Context().removeQueue), 0u);
    EXPECT_EQ(fixture.Alive(kClientContextName), 0u);
    EXPECT_TRUE(fixture.machine.PoolInUse().empty());
}

}  // namespace
}  // namespace tests
