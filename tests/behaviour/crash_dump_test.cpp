// The crash-dump bridge: attaching, announcements and withdrawals.
#include "tests/kit/driver_fixture.h"

namespace tests {
namespace {

class CrashDump : public OnContainer {};
FOR_ALL_CONTAINERS(CrashDump);

TEST_P(CrashDump, AttachesOnceAndDetachesOnce)
{
    DriverFixture fixture(GetParam());
    EXPECT_EQ(fixture.Detach(), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(fixture.wpcd.Notifier_WpcdClientInit(nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(fixture.Attach(), STATUS_SUCCESS);
    const WpcdClientRegistration other{};
    EXPECT_EQ(fixture.wpcd.Notifier_WpcdClientInit(&other), STATUS_OBJECT_NAME_EXISTS);
    EXPECT_EQ(fixture.TakeReports(),
              (Lines{"2 Notifier_WpcdClientDeInit: CDI client is not already registered?!, 0xC0000034",
                     "2 Notifier_WpcdClientInit: ZepClientAdd or ZepClientRemove is NULL!, 0xC000000D",
                     "2 Notifier_WpcdClientInit: WPCD client already registered?!, 0x40000000"}));
    using Callbacks = std::array<void*, 7>;
    const auto stored = [&] {
        return *fixture.machine.inspect().Context<Callbacks>(fixture.Context().wpcdClient, kWpcdContextName);
    };
    EXPECT_EQ(memcmp(stored().data(), &fixture.crashDump.registration.ZepClientAdd, 56), 0) << "the first callbacks stay";
    EXPECT_EQ(fixture.Queued(), 0u);

    EXPECT_EQ(fixture.Detach(), STATUS_SUCCESS);
    EXPECT_EQ(fixture.Context().wpcdClient, nullptr);
    EXPECT_EQ(fixture.Alive(kWpcdContextName), 0u);
    EXPECT_EQ(fixture.wpcd.Notifier_WpcdClientInit(&other), STATUS_SUCCESS) << "null callbacks are accepted";
    EXPECT_EQ(stored(), Callbacks{});
}

TEST_P(CrashDump, AnnouncesClientsByTheirPostsInOrderThroughOneBuffer)
{
    DriverFixture fixture(GetParam());
    ASSERT_EQ(fixture.Attach(), STATUS_SUCCESS);
    Peer first(1);
    Peer second(2);
    first.WantsAppsState().TakesCommands();
    first.callbacks.ReservedCallback = &fixture;
    first.callbacks.DescriptorCallbackA = reinterpret_cast<PZEP_DESCRIPTOR_CALLBACK>(&first);
    first.callbacks.DescriptorCallbackB = reinterpret_cast<PZEP_DESCRIPTOR_CALLBACK>(&second);
    first.callbacks.DescriptorCallbackC = reinterpret_cast<PZEP_DESCRIPTOR_CALLBACK>(&fixture);
    const ZepDataEntry entries[2] = {};
    const std::string longName(70, 'n');
    ASSERT_EQ(fixture.helper.Notifier_HelperInit(&first.guid, longName.c_str(), "first one", &first.callbacks, entries,
                                                 2, &first),
              STATUS_SUCCESS);
    ASSERT_EQ(fixture.Register(second), STATUS_SUCCESS);
    fixture.Deliver();
    EXPECT_TRUE(fixture.crashDump.added.empty()) << "registration alone announces nobody";
    ASSERT_EQ(fixture.Post(second, 1), STATUS_SUCCESS);
    ASSERT_EQ(fixture.Post(first, 1), STATUS_SUCCESS);
    fixture.Deliver();

    ASSERT_EQ(fixture.crashDump.added.size(), 2u);
    EXPECT_EQ(fixture.crashDump.buffers[0], fixture.crashDump.buffers[1]);
    EXPECT_EQ(fixture.crashDump.added[0].InterfaceGUID.Data1, 2u);
    const ZEP_SUBSYSTEM_DESCRIPTOR& d = fixture.crashDump.added[1];
    EXPECT_EQ(d.InterfaceGUID.Data1, 1u);
    EXPECT_EQ(std::string(d.SubsystemName), std::string(63, 'n'));
    EXPECT_STREQ(d.SubsystemDescription, "first one");
    EXPECT_EQ(d.AppsStateNotificationCallback, first.callbacks.AppsStateNotificationCallback);
    EXPECT_EQ(d.DescriptorCallbackA, first.callbacks.DescriptorCallbackA);
    EXPECT_EQ(d.DescriptorCallbackB, first.callbacks.DescriptorCallbackB);
    EXPECT_EQ(d.DescriptorCallbackC, first.callbacks.DescriptorCallbackC);
    EXPECT_EQ(d.DataEntries, fixture.Client(first)->entries);
    EXPECT_EQ(d.DataEntryCount, 2);
    EXPECT_EQ(d.CallbackContext, &first);
    EXPECT_EQ(d.Reserved1 + d.Reserved2, 0u);
    // The name of the first is longer: the bytes after the shorter name's end are not cleared.
    EXPECT_EQ(fixture.Client(first)->addedToWpcd, 1u);
    EXPECT_EQ(fixture.Client(first)->wpcdRefreshPending, 0u);
    ASSERT_EQ(fixture.Post(first, 2), STATUS_SUCCESS);
    fixture.Deliver();
    EXPECT_EQ(fixture.crashDump.added.size(), 2u) << "announced once";
}

TEST_P(CrashDump, TextTailsKeepWhatAnEarlierDescriptorLeft)
{
    DriverFixture fixture(GetParam());
    ASSERT_EQ(fixture.Attach(), STATUS_SUCCESS);
    Peer first(1);
    Peer second(2);
    ASSERT_EQ(fixture.helper.Notifier_HelperInit(&first.guid, "a long name", "d", &first.callbacks, nullptr, 0, nullptr),
              STATUS_SUCCESS);
    ASSERT_EQ(fixture.helper.Notifier_HelperInit(&second.guid, "x", "d", &second.callbacks, nullptr, 0, nullptr),
              STATUS_SUCCESS);
    ASSERT_EQ(fixture.Post(first, 1), STATUS_SUCCESS);
    ASSERT_EQ(fixture.Post(second, 1), STATUS_SUCCESS);
    fixture.Deliver();
    ASSERT_EQ(fixture.crashDump.added.size(), 2u);
    EXPECT_EQ(std::string(fixture.crashDump.added[1].SubsystemName, 11), std::string("x\0long name", 11));
}

TEST_P(CrashDump, ClientHandedOverWithoutStateIsAnnouncedOnceMore)
{
    DriverFixture fixture(GetParam());
    ASSERT_EQ(fixture.Attach(), STATUS_SUCCESS);
    Peer peer(1);
    ASSERT_EQ(fixture.Register(peer), STATUS_SUCCESS);
    ASSERT_EQ(fixture.Post(peer, 0), STATUS_SUCCESS);
    fixture.Deliver();
    EXPECT_EQ(fixture.Client(peer)->wpcdRefreshPending, 1u);
    for (const ULONG state : {3u, 4u, 5u}) {
        ASSERT_EQ(fixture.Post(peer, state), STATUS_SUCCESS);
        EXPECT_EQ(fixture.Client(peer)->wpcdRefreshPending, 0u);
        fixture.Deliver();
    }
    EXPECT_EQ(fixture.crashDump.added.size(), 2u);
}

TEST_P(CrashDump, UnattachedOrRefusingDriverLeavesClientsUnannouncedUntilTheyPostAgain)
{
    DriverFixture fixture(GetParam());
    Peer first(1);
    Peer second(2);
    ASSERT_EQ(fixture.Register(first), STATUS_SUCCESS);
    ASSERT_EQ(fixture.Register(second), STATUS_SUCCESS);
    ASSERT_EQ(fixture.Post(first, 1), STATUS_SUCCESS);
    ASSERT_EQ(fixture.Post(second, 1), STATUS_SUCCESS);
    (void)fixture.machine.RunOneWorkItem();
    EXPECT_EQ(fixture.TakeReports(), (Lines{"22 NotifierEvtWorkItemWpcdClientAdd: Connection to CDI driver is not yet "
                                          "available, will retry later, ZEPN driver"}))
        << "one warning per run";
    EXPECT_EQ(fixture.Count(fixture.Context().addQueue), 0u);
    fixture.Deliver();
    (void)fixture.TakeReports();

    ASSERT_EQ(fixture.Attach(), STATUS_SUCCESS);
    fixture.Deliver();
    EXPECT_TRUE(fixture.crashDump.added.empty());
    for (const NTSTATUS refusal : {STATUS_NOT_SUPPORTED, STATUS_PENDING}) {
        fixture.crashDump.answer = refusal;
        ASSERT_EQ(fixture.Post(first, 2), STATUS_SUCCESS);
        (void)fixture.machine.RunOneWorkItem();
        EXPECT_EQ(fixture.Client(first)->addedToWpcd, 0u);
        fixture.Deliver();
    }
    fixture.crashDump.answer = STATUS_SUCCESS;
    const std::string refused = "3 NotifierEvtWorkItemWpcdClientAdd: Add client call to WPCD failed!, 0x";
    const std::string empty = "10 NotifierEvtWorkItemNotifyStates: <states>";
    EXPECT_EQ(fixture.TakeReports(), (Lines{refused + "C00000BB", empty, refused + "00000103", empty}));
    ASSERT_EQ(fixture.Post(first, 3), STATUS_SUCCESS);
    fixture.Deliver();
    EXPECT_EQ(fixture.Client(first)->addedToWpcd, 1u);
}

// Announces peers and deregisters them, so that as many copies wait for their withdrawal.
void QueueRemovals(DriverFixture& fixture, std::deque<Peer>& peers, unsigned count)
{
    for (unsigned number = 1; number <= count; ++number) {
        Peer& peer = peers.emplace_back(number);
        ASSERT_EQ(fixture.Register(peer), STATUS_SUCCESS);
        ASSERT_EQ(fixture.Post(peer, 1), STATUS_SUCCESS);
    }
    fixture.Deliver();
    for (Peer& peer : peers) {
        ASSERT_EQ(fixture.Leave(peer), STATUS_SUCCESS);
    }
    (void)fixture.TakeReports();
}

TEST_P(CrashDump, OneRunWithdrawsOneClient)
{
    DriverFixture fixture(GetParam());
    ASSERT_EQ(fixture.Attach(), STATUS_SUCCESS);
    std::deque<Peer> peers;
    QueueRemovals(fixture, peers, 3);
    EXPECT_EQ(fixture.Queued(), 1u);
    fixture.Deliver();
    ASSERT_EQ(fixture.crashDump.removed.size(), 1u);
    EXPECT_EQ(fixture.crashDump.removed[0].Data1, 1u);
    EXPECT_EQ(fixture.Count(fixture.Context().removeQueue), 2u);
    EXPECT_EQ(fixture.Alive(kClientContextName), 2u);
}

}  // namespace
}  // namespace tests
