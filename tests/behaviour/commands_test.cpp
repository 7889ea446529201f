// Commands: what reaches the target, one per run; what is refused, dropped, left alive, and how delivery can stop for
// good.
#include "tests/support/world.h"

namespace tests {
namespace {

using host::checks::Rule;

class Commands : public OnContainer {};
FOR_ALL_CONTAINERS(Commands);

struct Pair {
    Peer sender{1};
    Peer target{2};

    explicit Pair(World& world)
    {
        target.TakesCommands();
        EXPECT_EQ(world.Register(sender), STATUS_SUCCESS);
        EXPECT_EQ(world.Register(target), STATUS_SUCCESS);
    }
};

TEST_P(Commands, ReachTheTargetWithTheSendersStateAndStayWithTheSender)
{
    World world(GetParam());
    Pair pair(world);
    ASSERT_EQ(world.Post(pair.sender, 8), STATUS_SUCCESS);
    world.Deliver();
    ASSERT_EQ(world.Send(pair.sender, pair.target, 77, 1234), STATUS_SUCCESS);
    EXPECT_TRUE(pair.target.commands.empty());
    world.Deliver();
    ASSERT_EQ(pair.target.commands.size(), 1u);
    const auto& [id, info] = pair.target.commands[0];
    EXPECT_EQ(id, 77u);
    EXPECT_EQ(info.Size, 32u);
    EXPECT_EQ(info.CommandArgument, 1234u);
    EXPECT_EQ(info.SourceState, 8u);
    EXPECT_EQ(memcmp(&info.SourceGuid, &pair.sender.guid, sizeof(GUID)), 0);
    EXPECT_EQ(world.Count(world.Context().states), 0u) << "an unchanged state posts nothing";

    // A delivered command is not deleted: it goes with its sender.
    EXPECT_EQ(world.Count(world.Context().commands), 0u);
    EXPECT_EQ(world.Alive(kCommandContextName), 1u);
    ASSERT_EQ(world.Leave(pair.sender), STATUS_SUCCESS);
    EXPECT_EQ(world.Alive(kCommandContextName), 0u);
}

TEST_P(Commands, ChangedStateOfTheTargetIsPostedOnce)
{
    World world(GetParam());
    Pair pair(world);
    Peer watcher(3);
    ASSERT_EQ(world.Register(watcher), STATUS_SUCCESS);
    ASSERT_EQ(world.Subscribe(watcher, pair.target, 5), STATUS_SUCCESS);
    pair.target.onCommand = [](ULONG, ULONG& state) { state = 5; };
    ASSERT_EQ(world.Send(pair.sender, pair.target, 1), STATUS_SUCCESS);
    world.Deliver();
    ASSERT_EQ(watcher.deliveries.size(), 1u);
    EXPECT_EQ(watcher.deliveries[0].Size, 32u);
    EXPECT_EQ(world.Client(pair.target)->currentState, 5u);
}

TEST_P(Commands, FailedPostOfTheNewStateIsOnlyTraced)
{
    World world(GetParam());
    Pair pair(world);
    pair.target.onCommand = [](ULONG, ULONG& state) { state = 5; };
    ASSERT_EQ(world.Send(pair.sender, pair.target, 1), STATUS_SUCCESS);
    (void)world.TakeRecords();
    world.Fail("WdfObjectCreate", STATUS_NO_MEMORY);
    (void)world.machine.RunOneWorkItem();
    world.EndFaults();
    EXPECT_EQ(world.TakeReports(), (Lines{"1 Notifier_HelperSendState: WdfObjectCreate, 0xC0000017"}));
    EXPECT_EQ(world.TakeRecords().back(), "M181 NotifierEvtWorkItemNotifyCommands") << "the failed post is traced";
}

TEST_P(Commands, OneRunDeliversOneOfABurst)
{
    World world(GetParam());
    Pair pair(world);
    for (const ULONG id : {1u, 2u, 3u}) {
        ASSERT_EQ(world.Send(pair.sender, pair.target, id), STATUS_SUCCESS);
    }
    EXPECT_EQ(world.Queued(), 1u);
    world.Deliver();
    EXPECT_EQ(pair.target.commands.size(), 1u);
    EXPECT_EQ(world.Count(world.Context().commands), 2u);
    ASSERT_EQ(world.Send(pair.sender, pair.target, 4), STATUS_SUCCESS);
    world.Deliver();
    ASSERT_EQ(pair.target.commands.size(), 2u);
    EXPECT_EQ(pair.target.commands[1].first, 2u) << "the oldest comes first";
}

TEST_P(Commands, AreRefusedWithoutSenderTargetOrCallback)
{
    World world(GetParam());
    Pair pair(world);
    Peer stranger(9);
    EXPECT_EQ(world.helper.Notifier_HelperSendCommand(nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(world.Send(stranger, pair.target, 1), STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(world.Send(pair.sender, stranger, 1), STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(world.Send(pair.target, pair.sender, 1), STATUS_INVALID_DEVICE_REQUEST);
    const std::string tail = "-1111-2222-0102-030405060708}, 0xC0000010";
    const std::string kSend = "Notifier_HelperSendCommand: ";
    EXPECT_EQ(world.TakeReports(),
              (Lines{"2 " + kSend + "ZepCommand is NULL, 0xC000000D",
                     "12 " + kSend + "Unable to find client with , {00000009" + tail,
                     "12 " + kSend + "Unable to find client with , {00000009" + tail,
                     "12 " + kSend + "No command callback function for target client with , {00000001" + tail}));
    EXPECT_EQ(world.Queued(), 0u);
    EXPECT_EQ(world.Alive(kCommandContextName), 0u);
}

TEST_P(Commands, FailuresBehindAcceptanceAreOnlyReported)
{
    struct Row {
        const char* name;
        std::function<void(World&)> arm;
        NTSTATUS status;
        std::string report;
    };
    const Row kRows[] = {
        {"no driver", [](World& w) { w.HideDriver(); }, STATUS_IO_DEVICE_ERROR,
         "2 Notifier_HelperSendCommand: WdfGetDriver returned NULL?!, 0xC0000185"},
        {"no context", [](World& w) { w.Lose("WdfObjectGetTypedContextWorker", kDriverContextName); },
         STATUS_IO_DEVICE_ERROR, "7 Notifier_HelperSendCommand: Driver object context, <driver>, 0xC0000185"},
        {"object", [](World& w) { w.Fail("WdfObjectCreate", STATUS_NO_MEMORY); }, STATUS_SUCCESS,
         "1 Notifier_HelperSendCommand: WdfObjectCreate, 0xC0000017"},
        {"command context", [](World& w) { w.Lose("WdfObjectGetTypedContextWorker", kCommandContextName); },
         STATUS_SUCCESS, "7 Notifier_HelperSendcommand: Client command context, <gone>, 0xC0000185"},
        {"lock", [](World& w) { w.Fail("WdfWaitLockAcquire", STATUS_TIMEOUT, 2); }, STATUS_SUCCESS,
         "1 Notifier_HelperSendCommand: WdfWaitLockAcquire for wdfWaitLockCommandsCollection, 0x00000102"},
        {"append", [](World& w) { w.Fail("WdfCollectionAdd", STATUS_UNSUCCESSFUL); }, STATUS_SUCCESS,
         "1 Notifier_HelperSendCommand: WdfCollectionAdd for wdfCollectionZepCommands, 0xC0000001"},
    };
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.name);
        World world(GetParam());
        Pair pair(world);
        row.arm(world);
        EXPECT_EQ(world.Send(pair.sender, pair.target, 1), row.status);
        world.EndFaults();
        EXPECT_EQ(world.TakeReports(), Lines{row.report});
        EXPECT_EQ(world.Alive(kCommandContextName), 0u);
        EXPECT_EQ(world.Queued(), 0u);
        EXPECT_EQ(world.Send(pair.sender, pair.target, 2), STATUS_SUCCESS);
        world.Deliver();
        EXPECT_EQ(pair.target.commands.size(), 1u);
    }
}

TEST_P(Commands, EveryFailureOfADeliveryEndsTheRunAsItMust)
{
    struct Row {
        const char* name;
        std::function<void(World&)> arm;
        Lines reports;
        std::size_t queued;
        std::size_t alive;
    };
    const std::string kRun = "NotifierEvtWorkItemNotifyCommands: ";
    const Row kRows[] = {
        {"no driver", [](World& w) { w.HideDriver(); }, {"13 " + kRun + "WdfGetDriver returned NULL?!"}, 1, 1},
        {"no driver context",
         [](World& w) { w.Lose("WdfObjectGetTypedContextWorker", kDriverContextName); },
         {"13 " + kRun + "Driver context is NULL?!"}, 1, 1},
        {"item lock",
         [](World& w) { w.Fail("WdfWaitLockAcquire", STATUS_TIMEOUT); },
         {"1 " + kRun + "WdfWaitLockAcquire for wdfWaitLockNotifyCommandsWorkItem, 0x00000102"}, 1, 1},
        {"clients lock",
         [](World& w) { w.Fail("WdfWaitLockAcquire", STATUS_UNSUCCESSFUL, 1); },
         {"1 " + kRun + "WdfWaitLockAcquire for wdfWaitLockClientsCollection, 0xC0000001"}, 1, 1},
        {"commands lock",
         [](World& w) { w.Fail("WdfWaitLockAcquire", STATUS_UNSUCCESSFUL, 2); },
         {"1 " + kRun + "WdfWaitLockAcquire for wdfWaitLockCommandsCollection, 0xC0000001"}, 1, 1},
        {"empty queue", [](World& w) { w.Lose("WdfCollectionGetFirstItem"); }, {"10 " + kRun + "<commands>"}, 1, 1},
        // Out of the queue and gone, or it would stay first for ever.
        {"command context",
         [](World& w) { w.Lose("WdfObjectGetTypedContextWorker", kCommandContextName); },
         {"6 " + kRun + "Command context, <gone>"}, 0, 0},
        {"client item",
         [](World& w) { w.Lose("WdfCollectionGetItem", "", 1); },
         {"5 " + kRun + "WdfCollectionGetItem, 1, <clients>, 2"}, 0, 1},
        {"client context",
         [](World& w) { w.Lose("WdfObjectGetTypedContextWorker", kClientContextName); },
         {"6 " + kRun + "Client context, <object>"}, 0, 1},
    };
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.name);
        World world(GetParam());
        Pair pair(world);
        ASSERT_EQ(world.Send(pair.sender, pair.target, 1), STATUS_SUCCESS);
        row.arm(world);
        world.Deliver();
        world.EndFaults();
        EXPECT_EQ(world.TakeReports(), row.reports);
        EXPECT_TRUE(pair.target.commands.empty());
        EXPECT_EQ(world.Count(world.Context().commands), row.queued);
        EXPECT_EQ(world.Alive(kCommandContextName), row.alive);
        ASSERT_EQ(world.Send(pair.sender, pair.target, 2), STATUS_SUCCESS);
        world.Deliver();
        EXPECT_EQ(pair.target.commands.size(), 1u);
    }
}

// The target registers anew without a callback between post and delivery.
TEST_P(Commands, TargetThatLostItsCallbackEndsTheRun)
{
    World world(GetParam());
    Pair pair(world);
    ASSERT_EQ(world.Send(pair.sender, pair.target, 1), STATUS_SUCCESS);
    ASSERT_EQ(world.Leave(pair.target), STATUS_SUCCESS);
    pair.target.callbacks.CommandCallback = nullptr;
    ASSERT_EQ(world.Register(pair.target), STATUS_SUCCESS);
    world.Deliver();
    EXPECT_EQ(world.TakeReports(), (Lines{"12 NotifierEvtWorkItemNotifyCommands: Target Client has NULL "
                                          "CommandCallback(), {00000002-1111-2222-0102-030405060708}, 0x00000000"}));
    EXPECT_EQ(world.Alive(kCommandContextName), 1u) << "dropped, not deleted";
    EXPECT_EQ(world.Leave(pair.sender), STATUS_SUCCESS);
}

TEST_P(Commands, MissingPartyStopsCommandDeliveryForGood)
{
    enum class Missing { kSender, kTarget, kBoth, kSelf };
    for (const Missing missing : {Missing::kSender, Missing::kTarget, Missing::kBoth, Missing::kSelf}) {
        SCOPED_TRACE(static_cast<int>(missing));
        World world(GetParam());
        Pair pair(world);
        const std::string kRun = "NotifierEvtWorkItemNotifyCommands: Unable to find client with , {0000000";
        const std::string tail = "-1111-2222-0102-030405060708}, 0xC0000001";
        const std::string noSender = "12 " + kRun + "1" + tail;
        const std::string noTarget = "12 " + kRun + "2" + tail;
        Lines reports;
        if (missing == Missing::kSelf) {
            ASSERT_EQ(world.Send(pair.target, pair.target, 1), STATUS_SUCCESS);
            reports = {noTarget};
        } else {
            ASSERT_EQ(world.Send(pair.sender, pair.target, 1), STATUS_SUCCESS);
            if (missing != Missing::kTarget) {
                ASSERT_EQ(world.Leave(pair.sender), STATUS_SUCCESS);
                reports.push_back(noSender);
            }
            if (missing != Missing::kSender) {
                ASSERT_EQ(world.Leave(pair.target), STATUS_SUCCESS);
                reports.push_back(noTarget);
            }
        }
        const auto result = world.machine.RunWorkItems();
        ASSERT_EQ(result.parked.size(), 1u);
        EXPECT_NE(result.parked[0].reason.find("holds itself"), std::string::npos) << result.parked[0].reason;
        EXPECT_EQ(world.TakeReports(), reports);
        EXPECT_EQ(world.Alive(kCommandContextName), 0u) << "the command is deleted first";
        EXPECT_EQ(world.machine.violations().Take(Rule::kSelfWait).size(), 1u);
        world.Abandon();
    }
}

}  // namespace
}  // namespace tests
