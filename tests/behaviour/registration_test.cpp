// Registration of clients: what is stored and what is refused.
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

}  // namespace
}  // namespace tests
