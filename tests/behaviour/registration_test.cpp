// Registration of clients, and their subscriptions: what is stored, what is refused, and which of equal ones ends.
#include "tests/kit/driver_fixture.h"

namespace tests {
namespace {

class Registration : public OnDriver {};
FOR_ALL_CONTAINERS(Registration);

constexpr ULONG kEntriesTag = 0x6166746E;  // "ntfa"

TEST_P(Registration, StoresTheArgumentsAndStartsWithoutState)
{
    Peer peer(1);
    peer.TakesCommands().WantsAppsState();
    peer.callbacks.ReservedCallback = this;
    const ZepDataEntry entries[2] = {{{1, 2}}, {{3, 4}}};
    ASSERT_EQ(Register(peer, 2, entries), STATUS_SUCCESS);

    const auto client = Client(peer);
    ASSERT_TRUE(client);
    EXPECT_STREQ(client->name, "name");
    EXPECT_STREQ(client->description, "description");
    EXPECT_EQ(memcmp(client->callbacks, &peer.callbacks, sizeof(peer.callbacks)), 0);
    EXPECT_NE(client->entries, entries);
    EXPECT_EQ(memcmp(client->entries, entries, sizeof(entries)), 0);
    EXPECT_EQ(client->entryCount, 2);
    EXPECT_EQ(client->callbackContext, &peer);
    EXPECT_EQ(client->addedToWpcd + client->wpcdRefreshPending + client->currentState, 0u);
    EXPECT_EQ(machine.inspect().Find(client->registrations)->parent, driver->Handle());
    EXPECT_EQ(Queued(), 0u);
}

TEST_P(Registration, KeepsEntryCountsAsTheyHaveAlwaysBeenKept)
{
    struct Row {
        const char* name;
        ULONG count;
        bool givesEntries;
        bool hasDescriptorCallbackB;
        unsigned keptCount;
        std::size_t pooledBytes;
    };
    constexpr Row kRows[] = {
        {"entries", 5, true, false, 5, 80},
        {"no entries", 5, false, false, 0, 0},
        {"no entries, but the descriptor callback", 5, false, true, 5, 0},
        {"count 0 with entries", 0, true, true, 0, 0},
        {"more than a byte holds", 300, true, false, 44, 4800},
        {"more than a byte holds, none given, callback", 300, false, true, 44, 0},
    };
    const std::vector<ZepDataEntry> entries(300);
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.name);
        Peer peer(1);
        if (row.hasDescriptorCallbackB) {
            peer.callbacks.DescriptorCallbackB = reinterpret_cast<PZEP_DESCRIPTOR_CALLBACK>(this);
        }
        ASSERT_EQ(Register(peer, row.count, row.givesEntries ? entries.data() : nullptr), STATUS_SUCCESS);
        const auto client = Client(peer);
        EXPECT_EQ(client->entryCount, row.keptCount);
        EXPECT_EQ(client->entries != nullptr, row.pooledBytes != 0);
        std::size_t bytes = 0;
        for (const auto& use : machine.PoolInUse()) {
            EXPECT_EQ(use.tag, kEntriesTag);
            bytes += use.sizeBytes;
        }
        EXPECT_EQ(bytes, row.pooledBytes);
        EXPECT_EQ(Leave(peer), STATUS_SUCCESS);
    }
}

TEST_P(Registration, RefusesMoreEntriesThanThePoolHolds)
{
    Peer peer(1);
    const ZepDataEntry entry{};
    EXPECT_EQ(Register(peer, 0xFFFFFFFF, &entry), STATUS_ZEP_NOTIFIER_NO_MEMORY);
    EXPECT_FALSE(Client(peer));
    EXPECT_TRUE(machine.PoolInUse().empty());
}

class Subscription : public OnDriver {};
FOR_ALL_CONTAINERS(Subscription);

constexpr const char* kGuid1 = "{00000001-1111-2222-0102-030405060708}";

TEST_P(Subscription, StoresTheWholeFilterAsAChildOfTheSubscriber)
{
    Peer& subscriber = Join(1);
    Peer target(2);
    const ZepState filter{.Size = 0x1122334455667788, .InterfaceGUID = target.guid, .State = 3, .Reserved = 0x99};
    // The target may register later; the report carries the subscriber's GUID and success.
    ASSERT_EQ(helper.Notifier_HelperRegisterForStateNotification(&subscriber.guid, &filter, &Peer::OnState),
              STATUS_SUCCESS);
    EXPECT_EQ(TakeReports(),
              (Lines{std::string("12 Notifier_HelperRegisterForStateNotification: Unable to find client with , ") +
                     kGuid1 + ", 0x00000000"}));
    const auto objects = machine.inspect().WithContext(kRegistrationContextName);
    ASSERT_EQ(objects.size(), 1u);
    const auto stored =
        machine.inspect().Context<RegistrationContext>(objects[0].handle, kRegistrationContextName);
    EXPECT_EQ(memcmp(&stored->subscriber, &subscriber.guid, sizeof(GUID)), 0);
    EXPECT_EQ(memcmp(&stored->filter, &filter, sizeof(filter)), 0);
    EXPECT_EQ(Count(Client(subscriber)->registrations), 1u);

    ASSERT_EQ(Register(target), STATUS_SUCCESS);
    ASSERT_EQ(Post(target, 3), STATUS_SUCCESS);
    Deliver();
    EXPECT_EQ(subscriber.deliveries.size(), 1u);
}

TEST_P(Subscription, OldestOfEqualOnesEndsFirstAndLeavesTheCollection)
{
    Peer& subscriber = Join(1);
    Peer& target = Join(2);
    for (const ULONG state : {3u, 3u, ZEP_STATE_ANY}) {
        ASSERT_EQ(Subscribe(subscriber, target, state), STATUS_SUCCESS);
    }
    const WDFCOLLECTION registrations = Client(subscriber)->registrations;
    const auto items = machine.inspect().Find(registrations)->items;
    ASSERT_EQ(items.size(), 3u);
    ASSERT_EQ(Unsubscribe(subscriber, target, 3), STATUS_SUCCESS);
    EXPECT_EQ(machine.inspect().Find(registrations)->items, (std::vector<WDFOBJECT>{items[1], items[2]}));
    EXPECT_FALSE(machine.inspect().Find(items[0]).has_value());
}

}  // namespace
}  // namespace tests
