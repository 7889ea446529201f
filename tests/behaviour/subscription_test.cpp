// Subscriptions: keys, the immediate delivery, answers, and failures.
#include "tests/support/world.h"

namespace tests {
namespace {

class Subscription : public OnContainer {};
FOR_ALL_CONTAINERS(Subscription);

constexpr const char* kGuid1 = "{00000001-1111-2222-0102-030405060708}";

TEST_P(Subscription, StoresTheWholeFilterAsAChildOfTheSubscriber)
{
    World world(GetParam());
    Peer subscriber(1);
    Peer target(2);
    ASSERT_EQ(world.Register(subscriber), STATUS_SUCCESS);
    const ZepState filter{.Size = 0x1122334455667788, .InterfaceGUID = target.guid, .State = 3, .Reserved = 0x99};
    // The target may register later; the report carries the subscriber's GUID and success.
    ASSERT_EQ(world.helper.Notifier_HelperRegisterForStateNotification(&subscriber.guid, &filter, &World::OnState),
              STATUS_SUCCESS);
    EXPECT_EQ(world.TakeReports(),
              (Lines{std::string("12 Notifier_HelperRegisterForStateNotification: Unable to find client with , ") +
                     kGuid1 + ", 0x00000000"}));
    const auto objects = world.machine.inspect().WithContext(kRegistrationContextName);
    ASSERT_EQ(objects.size(), 1u);
    const auto stored =
        world.machine.inspect().Context<RegistrationContext>(objects[0].handle, kRegistrationContextName);
    EXPECT_EQ(memcmp(&stored->subscriber, &subscriber.guid, sizeof(GUID)), 0);
    EXPECT_EQ(memcmp(&stored->filter, &filter, sizeof(filter)), 0);
    EXPECT_EQ(world.Count(world.Client(subscriber)->registrations), 1u);

    ASSERT_EQ(world.Register(target), STATUS_SUCCESS);
    ASSERT_EQ(world.Post(target, 3), STATUS_SUCCESS);
    world.Deliver();
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
        World world(GetParam());
        Peer subscriber(1);
        Peer target(2);
        ASSERT_EQ(world.Register(subscriber), STATUS_SUCCESS);
        ASSERT_EQ(world.Register(target), STATUS_SUCCESS);
        ASSERT_EQ(world.Post(subscriber, 7), STATUS_SUCCESS);
        if (row.targetState != 0) {
            ASSERT_EQ(world.Post(target, row.targetState), STATUS_SUCCESS);
        }
        world.Deliver();
        ASSERT_EQ(world.Subscribe(subscriber, target, row.filterState), STATUS_SUCCESS);
        ASSERT_EQ(subscriber.deliveries.size(), row.delivered ? 1u : 0u);
        if (row.delivered) {
            EXPECT_EQ(subscriber.deliveries[0].Size, 32u);
            EXPECT_EQ(subscriber.deliveries[0].State, row.targetState);
            EXPECT_EQ(memcmp(&subscriber.deliveries[0].InterfaceGUID, &target.guid, sizeof(GUID)), 0);
            EXPECT_EQ(subscriber.responsesAtEntry[0], 7u) << "the response enters as the subscriber's own state";
        }
        EXPECT_EQ(world.Queued(), 0u) << "an unchanged response posts nothing";
    }
}

TEST_P(Subscription, AnswerToTheImmediateDeliveryIsPostedForTheSubscriber)
{
    World world(GetParam());
    Peer subscriber(1);
    Peer target(2);
    Peer watcher(3);
    for (Peer* peer : {&subscriber, &target, &watcher}) {
        ASSERT_EQ(world.Register(*peer), STATUS_SUCCESS);
    }
    ASSERT_EQ(world.Subscribe(watcher, subscriber, 6), STATUS_SUCCESS);
    subscriber.onState = [](const ZepState&, ULONG& response) { response = 6; };
    ASSERT_EQ(world.Subscribe(subscriber, target, ZEP_STATE_ANY), STATUS_SUCCESS);
    EXPECT_EQ(world.Client(subscriber)->currentState, 6u);
    world.Deliver();
    ASSERT_EQ(watcher.deliveries.size(), 1u);
    EXPECT_EQ(watcher.deliveries[0].Size, 32u);
}

TEST_P(Subscription, FailedPostOfTheAnswerIsReturnedAndTheSubscriptionStays)
{
    World world(GetParam());
    Peer subscriber(1);
    Peer target(2);
    ASSERT_EQ(world.Register(subscriber), STATUS_SUCCESS);
    ASSERT_EQ(world.Register(target), STATUS_SUCCESS);
    subscriber.onState = [](const ZepState&, ULONG& response) { response = 6; };
    (void)world.TakeRecords();
    world.Fail("WdfObjectCreate", STATUS_INSUFFICIENT_RESOURCES, 1);
    EXPECT_EQ(world.Subscribe(subscriber, target, ZEP_STATE_ANY), STATUS_INSUFFICIENT_RESOURCES);
    world.EndFaults();
    EXPECT_EQ(world.Count(world.Client(subscriber)->registrations), 1u);
    EXPECT_EQ(world.TakeReports(), (Lines{"1 Notifier_HelperSendState: WdfObjectCreate, 0xC000009A"}));
    const Lines records = world.TakeRecords();
    EXPECT_EQ(records.back(), "M115 Notifier_HelperRegisterForStateNotification") << "the failed post is traced";
}

TEST_P(Subscription, EndsByExactKeyOldestFirstAndLeavesTheCollection)
{
    World world(GetParam());
    Peer subscriber(1);
    Peer target(2);
    Peer other(3);
    for (Peer* peer : {&subscriber, &target, &other}) {
        ASSERT_EQ(world.Register(*peer), STATUS_SUCCESS);
    }
    for (const ULONG state : {3u, 3u, ZEP_STATE_ANY}) {
        ASSERT_EQ(world.Subscribe(subscriber, target, state), STATUS_SUCCESS);
    }
    ASSERT_EQ(world.Subscribe(subscriber, other, 3), STATUS_SUCCESS);
    subscriber.deliveries.clear();
    const WDFCOLLECTION registrations = world.Client(subscriber)->registrations;
    const auto items = world.machine.inspect().Find(registrations)->items;
    ASSERT_EQ(items.size(), 4u);

    ASSERT_EQ(world.Unsubscribe(subscriber, target, 3), STATUS_SUCCESS);
    EXPECT_EQ(world.machine.inspect().Find(registrations)->items,
              (std::vector<WDFOBJECT>{items[1], items[2], items[3]}));
    EXPECT_FALSE(world.machine.inspect().Find(items[0]).has_value());
    ASSERT_EQ(world.Unsubscribe(subscriber, target, ZEP_STATE_ANY), STATUS_SUCCESS);
    ASSERT_EQ(world.Post(target, 3), STATUS_SUCCESS);
    world.Deliver();
    EXPECT_EQ(subscriber.deliveries.size(), 1u);

    // What was never there ends successfully, with a warning alone.
    (void)world.TakeReports();
    (void)world.TakeRecords();
    ASSERT_EQ(world.Unsubscribe(subscriber, target, ZEP_STATE_ANY), STATUS_SUCCESS);
    EXPECT_EQ(world.TakeReports(), (Lines{"22 Notifier_HelperDeregisterForStateNotification: State notification "
                                          "registration, Client's registrations"}));
    EXPECT_EQ(world.Count(registrations), 2u);
}

TEST_P(Subscription, OutlivesItsTargetButNotItsSubscriber)
{
    World world(GetParam());
    Peer subscriber(1);
    Peer target(2);
    ASSERT_EQ(world.Register(subscriber), STATUS_SUCCESS);
    ASSERT_EQ(world.Register(target), STATUS_SUCCESS);
    ASSERT_EQ(world.Subscribe(subscriber, target, 3), STATUS_SUCCESS);
    ASSERT_EQ(world.Leave(target), STATUS_SUCCESS);
    ASSERT_EQ(world.Register(target), STATUS_SUCCESS);
    ASSERT_EQ(world.Post(target, 3), STATUS_SUCCESS);
    world.Deliver();
    EXPECT_EQ(subscriber.deliveries.size(), 1u);
    ASSERT_EQ(world.Leave(subscriber), STATUS_SUCCESS);
    EXPECT_EQ(world.Alive(kRegistrationContextName), 0u);
}

TEST_P(Subscription, FailuresReportReturnAndLeaveNoSubscription)
{
    struct Row {
        const char* name;
        std::function<void(World&)> arm;
        NTSTATUS status;
        Lines reports;
    };
    const std::string kRegister = "Notifier_HelperRegisterForStateNotification: ";
    const Row kRows[] = {
        {"no driver",
         [](World& w) { w.HideDriver(); }, STATUS_IO_DEVICE_ERROR,
         {"2 " + kRegister + "WdfGetDriver returned NULL?!, 0xC0000185"}},
        {"no context",
         [](World& w) { w.Lose("WdfObjectGetTypedContextWorker", kDriverContextName); }, STATUS_IO_DEVICE_ERROR,
         {"7 " + kRegister + "Driver object context, <driver>, 0xC0000185"}},
        {"lock",
         [](World& w) { w.Fail("WdfWaitLockAcquire", STATUS_TIMEOUT); }, STATUS_TIMEOUT,
         {"1 " + kRegister + "WdfWaitLockAcquire for wdfWaitLockClientsCollection, 0x00000102"}},
        {"object",
         [](World& w) { w.Fail("WdfObjectCreate", STATUS_NO_MEMORY); }, STATUS_NO_MEMORY,
         {"1 " + kRegister + "WdfObjectCreate for state notification, 0xC0000017"}},
        {"registration context",
         [](World& w) { w.Lose("WdfObjectGetTypedContextWorker", kRegistrationContextName); }, STATUS_IO_DEVICE_ERROR,
         {"7 " + kRegister + "State notification context, <gone>, 0xC0000185"}},
        {"add",
         [](World& w) { w.Fail("WdfCollectionAdd", STATUS_UNSUCCESSFUL); }, STATUS_UNSUCCESSFUL,
         {"1 " + kRegister + "WdfCollectionAdd for wdfCollectionStateRegistrations, 0xC0000001"}},
        {"add, success class",
         [](World& w) { w.Fail("WdfCollectionAdd", STATUS_PENDING); }, STATUS_PENDING,
         {"1 " + kRegister + "WdfCollectionAdd for wdfCollectionStateRegistrations, 0x00000103"}},
        {"inner look-up without driver",
         [](World& w) {
             w.machine.environment().observer = [&w, isFirst = true](const host::ObservedCall& call) mutable {
                 if (isFirst && call.function == std::string("WdfWaitLockAcquire")) {
                     isFirst = false;
                     w.HideDriver();
                 }
             };
         },
         STATUS_ZEP_NOTIFIER_NO_DRIVER,
         {"13 _getClientContextByGUID_unsafe: WdfGetDriver returned NULL?! Returning NULL",
          "12 " + kRegister + "Unable to find client with , " + kGuid1 + ", 0xE00A8101"}},
        {"inner look-up without driver context",
         [](World& w) { w.Lose("WdfObjectGetTypedContextWorker", kDriverContextName, 1); },
         STATUS_ZEP_NOTIFIER_NO_DRIVER,
         {"13 _getClientContextByGUID_unsafe: Driver context is NULL?! Returning NULL",
          "12 " + kRegister + "Unable to find client with , " + kGuid1 + ", 0xE00A8101"}},
        {"inner look-up without item",
         [](World& w) { w.Lose("WdfCollectionGetItem"); }, STATUS_ZEP_NOTIFIER_NO_DRIVER,
         {"5 _getClientContextByGUID_unsafe: WdfCollectionGetItem, 0, <clients>, 2",
          "12 " + kRegister + "Unable to find client with , " + kGuid1 + ", 0xE00A8101"}},
        {"inner look-up without client context",
         [](World& w) { w.Lose("WdfObjectGetTypedContextWorker", kClientContextName); }, STATUS_ZEP_NOTIFIER_NO_DRIVER,
         {"6 _getClientContextByGUID_unsafe: Client context, <object>",
          "12 " + kRegister + "Unable to find client with , " + kGuid1 + ", 0xE00A8101"}},
    };
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.name);
        World world(GetParam());
        Peer subscriber(1);
        Peer target(2);
        ASSERT_EQ(world.Register(subscriber), STATUS_SUCCESS);
        ASSERT_EQ(world.Register(target), STATUS_SUCCESS);
        (void)world.TakeReports();
        row.arm(world);
        EXPECT_EQ(world.Subscribe(subscriber, target, 3), row.status);
        world.EndFaults();
        EXPECT_EQ(world.TakeReports(), row.reports);
        EXPECT_EQ(world.Alive(kRegistrationContextName), 0u);
        EXPECT_EQ(world.Subscribe(subscriber, target, 3), STATUS_SUCCESS);
    }
}

TEST_P(Subscription, WrongArgumentsAndFailuresOfEndingAreReported)
{
    World world(GetParam());
    Peer subscriber(1);
    Peer target(2);
    const ZepState filter{.Size = 32, .InterfaceGUID = target.guid, .State = 3, .Reserved = 0};
    const auto& helper = world.helper;
    const std::string kRegister = "Notifier_HelperRegisterForStateNotification: ";
    const std::string kDeregister = "Notifier_HelperDeregisterForStateNotification: ";

    EXPECT_EQ(helper.Notifier_HelperRegisterForStateNotification(nullptr, &filter, &World::OnState),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(helper.Notifier_HelperRegisterForStateNotification(&subscriber.guid, nullptr, &World::OnState),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(helper.Notifier_HelperRegisterForStateNotification(&subscriber.guid, &filter, nullptr),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(helper.Notifier_HelperDeregisterForStateNotification(nullptr, &filter), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(helper.Notifier_HelperDeregisterForStateNotification(&subscriber.guid, nullptr),
              STATUS_INVALID_PARAMETER);
    const std::string null = "One of the parameters is NULL!, 0xC000000D";
    EXPECT_EQ(world.TakeReports(), (Lines{"2 " + kRegister + null, "2 " + kRegister + null, "2 " + kRegister + null,
                                          "2 " + kDeregister + null, "2 " + kDeregister + null}));

    // Nobody is registered. Ending reports under the registering operation's name.
    EXPECT_EQ(world.Subscribe(subscriber, target, 3), STATUS_ZEP_NOTIFIER_NO_DRIVER);
    EXPECT_EQ(world.Unsubscribe(subscriber, target, 3), STATUS_ZEP_NOTIFIER_NO_DRIVER);
    const std::string unknown =
        std::string("12 ") + kRegister + "Unable to find client with , " + kGuid1 + ", 0xE00A8101";
    EXPECT_EQ(world.TakeReports(), (Lines{unknown, unknown}));

    ASSERT_EQ(world.Register(subscriber), STATUS_SUCCESS);
    ASSERT_EQ(world.Register(target), STATUS_SUCCESS);
    ASSERT_EQ(world.Subscribe(subscriber, target, 3), STATUS_SUCCESS);
    struct Row {
        std::function<void()> arm;
        NTSTATUS status;
        Lines reports;
    };
    const std::string notFound = "22 " + kDeregister + "State notification registration, Client's registrations";
    const Row kRows[] = {
        {[&] { world.HideDriver(); }, STATUS_IO_DEVICE_ERROR,
         {"2 " + kDeregister + "WdfGetDriver returned NULL?!, 0xC0000185"}},
        {[&] { world.Lose("WdfObjectGetTypedContextWorker", kDriverContextName); }, STATUS_IO_DEVICE_ERROR,
         {"7 " + kDeregister + "Driver object context, <driver>, 0xC0000185"}},
        {[&] { world.Fail("WdfWaitLockAcquire", STATUS_UNSUCCESSFUL); }, STATUS_UNSUCCESSFUL,
         {"1 " + kDeregister + "WdfWaitLockAcquire for wdfWaitLockClientsCollection, 0xC0000001"}},
        {[&] { world.Lose("WdfCollectionGetItem", "", 1); }, STATUS_SUCCESS,
         {"5 _getStateNotificationContextByZepState_unsafe: WdfCollectionGetItem, 0, <collection>, 1", notFound}},
        {[&] { world.Lose("WdfObjectGetTypedContextWorker", kRegistrationContextName); }, STATUS_SUCCESS,
         {"6 _getStateNotificationContextByZepState_unsafe: State notification context, <object>", notFound}},
    };
    for (const Row& row : kRows) {
        row.arm();
        EXPECT_EQ(world.Unsubscribe(subscriber, target, 3), row.status);
        world.EndFaults();
        EXPECT_EQ(world.TakeReports(), row.reports);
        EXPECT_EQ(world.Count(world.Client(subscriber)->registrations), 1u);
    }
}

}  // namespace
}  // namespace tests
