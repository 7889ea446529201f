// Subscriptions: what is stored, and which of equal ones ends.
#include "tests/kit/driver_fixture.h"

namespace tests {
namespace {

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
