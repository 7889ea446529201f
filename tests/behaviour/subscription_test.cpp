// Subscriptions: keys, the immediate delivery, answers, and failures.
#include "tests/kit/driver_fixture.h"

namespace tests {
namespace {

class Subscription : public OnContainer {};
FOR_ALL_CONTAINERS(Subscription);

constexpr const char* kGuid1 = "{00000001-1111-2222-0102-030405060708}";

TEST_P(Subscription, StoresTheWholeFilterAsAChildOfTheSubscriber)
{
    DriverFixture fixture(GetParam());
    Peer& subscriber = fixture.Join(1);
    Peer target(2);
    const ZepState filter{.Size = 0x1122334455667788, .InterfaceGUID = target.guid, .State = 3, .Reserved = 0x99};
    // The target may register later; the report carries the subscriber's GUID and success.
    ASSERT_EQ(fixture.helper.Notifier_HelperRegisterForStateNotification(&subscriber.guid, &filter, &Peer::OnState),
              STATUS_SUCCESS);
    EXPECT_EQ(fixture.TakeReports(),
              (Lines{std::string("12 Notifier_HelperRegisterForStateNotification: Unable to find client with , ") +
                     kGuid1 + ", 0x00000000"}));
    const auto objects = fixture.machine.inspect().WithContext(kRegistrationContextName);
    ASSERT_EQ(objects.size(), 1u);
    const auto stored =
        fixture.machine.inspect().Context<RegistrationContext>(objects[0].handle, kRegistrationContextName);
    EXPECT_EQ(memcmp(&stored->subscriber, &subscriber.guid, sizeof(GUID)), 0);
    EXPECT_EQ(memcmp(&stored->filter, &filter, sizeof(filter)), 0);
    EXPECT_EQ(fixture.Count(fixture.Client(subscriber)->registrations), 1u);

    ASSERT_EQ(fixture.Register(target), STATUS_SUCCESS);
    ASSERT_EQ(fixture.Post(target, 3), STATUS_SUCCESS);
    fixture.Deliver();
    EXPECT_EQ(subscriber.deliveries.size(), 1u);
}

TEST_P(Subscription, MatchingCurrentStateIsDeliveredAtOnce)
{
    struct Row {
        ULONG targetState;  // 0: never posted
        ULONG filterState;
        bool delivered;
    };
    constexpr Row kRows[] = {{0, ZEP_STATE_ANY, true}, {0, 0, true},  {5, 3, false}, {5, 5, true},
                             {5, ZEP_STATE_ANY, true}, {0, 5, false}, {10, 10, true}};
    for (const Row& row : kRows) {
        SCOPED_TRACE(testing::Message() << "state " << row.targetState << ", filter " << row.filterState);
        DriverFixture fixture(GetParam());
        Peer& subscriber = fixture.Join(1);
        Peer& target = fixture.Join(2);
        ASSERT_EQ(fixture.Post(subscriber, 7), STATUS_SUCCESS);
        if (row.targetState != 0) {
            ASSERT_EQ(fixture.Post(target, row.targetState), STATUS_SUCCESS);
        }
        fixture.Deliver();
        ASSERT_EQ(fixture.Subscribe(subscriber, target, row.filterState), STATUS_SUCCESS);
        ASSERT_EQ(subscriber.deliveries.size(), row.delivered ? 1u : 0u);
        if (row.delivered) {
            EXPECT_EQ(subscriber.deliveries[0].Size, 32u);
            EXPECT_EQ(subscriber.deliveries[0].State, row.targetState);
            EXPECT_EQ(memcmp(&subscriber.deliveries[0].InterfaceGUID, &target.guid, sizeof(GUID)), 0);
            EXPECT_EQ(subscriber.responsesAtEntry[0], 7u) << "the response enters as the subscriber's own state";
        }
        EXPECT_EQ(fixture.Queued(), 0u) << "an unchanged response posts nothing";
    }
}

TEST_P(Subscription, EndsByExactKeyOldestFirstAndLeavesTheCollection)
{
    DriverFixture fixture(GetParam());
    Peer& subscriber = fixture.Join(1);
    Peer& target = fixture.Join(2);
    Peer& other = fixture.Join(3);
    for (const ULONG state : {3u, 3u, ZEP_STATE_ANY}) {
        ASSERT_EQ(fixture.Subscribe(subscriber, target, state), STATUS_SUCCESS);
    }
    ASSERT_EQ(fixture.Subscribe(subscriber, other, 3), STATUS_SUCCESS);
    subscriber.deliveries.clear();
    const WDFCOLLECTION registrations = fixture.Client(subscriber)->registrations;
    const auto items = fixture.machine.inspect().Find(registrations)->items;
    ASSERT_EQ(items.size(), 4u);

    ASSERT_EQ(fixture.Unsubscribe(subscriber, target, 3), STATUS_SUCCESS);
    EXPECT_EQ(fixture.machine.inspect().Find(registrations)->items,
              (std::vector<WDFOBJECT>{items[1], items[2], items[3]}));
    EXPECT_FALSE(fixture.machine.inspect().Find(items[0]).has_value());
    ASSERT_EQ(fixture.Unsubscribe(subscriber, target, ZEP_STATE_ANY), STATUS_SUCCESS);
    ASSERT_EQ(fixture.Post(target, 3), STATUS_SUCCESS);
    fixture.Deliver();
    EXPECT_EQ(subscriber.deliveries.size(), 1u);

    // What was never there ends successfully, with a warning alone.
    (void)fixture.TakeReports();
    (void)fixture.TakeRecords();
    ASSERT_EQ(fixture.Unsubscribe(subscriber, target, ZEP_STATE_ANY), STATUS_SUCCESS);
    EXPECT_EQ(fixture.TakeReports(), (Lines{"22 Notifier_HelperDeregisterForStateNotification: State notification "
                                          "registration, Client's registrations"}));
    EXPECT_EQ(fixture.Count(registrations), 2u);
}

}  // namespace
}  // namespace tests
