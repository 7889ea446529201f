// What other threads may do between any two instructions of an operation.
#include "tests/kit/one_report.h"
#include "tests/kit/driver_fixture.h"
#include "tests/kit/single_steps.h"

namespace tests {
namespace {

struct Interruption {
    const char* function;      // counting begins when the calling thread calls this platform function
    unsigned skip = 0;         // let this many calls of it pass first
    unsigned instruction = 1;  // of the driver's, from there on; 0: no action
    std::function<void()> action;
};

// Runs work on the calling thread. Gives the number of the driver's instructions between the platform call and the
// end of the work, or of the counting.
unsigned RunInterrupted(host::Machine& machine, const host::Driver& driver, const Interruption& interruption,
                        const std::function<void()>& work)
{
    SingleSteps steps(driver.ImageBase(), driver.ImageSizeBytes(), interruption.instruction, interruption.action);
    const std::uint64_t caller = host::ThreadState::Current().id;
    machine.environment().SetObserver([&, calls = 0u](const host::ObservedCall& call) mutable {
        if (host::ThreadState::Current().id == caller && call.function == std::string_view(interruption.function) &&
            calls++ == interruption.skip) {
            SingleSteps::Begin();
        }
    });
    work();
    SingleSteps::End();
    machine.environment().SetObserver(nullptr);
    return steps.Seen();
}

class Interrupted : public OnContainer {
protected:
    void SetUp() override
    {
        if (!kCanInterrupt) {
            GTEST_SKIP() << "needs a processor with a trap flag";
        }
    }
};
FOR_ALL_CONTAINERS(Interrupted);

// Where a client's current state lies: posts that have found the client write it without the clients lock.
ULONG* CurrentStateOf(DriverFixture& fixture, const Peer& peer)
{
    for (const auto& object : fixture.machine.inspect().WithContext(kClientContextName)) {
        const auto* context = reinterpret_cast<const ClientContext*>(object.contexts.front().bytes.data());
        if (memcmp(&context->guid, &peer.guid, sizeof(GUID)) == 0) {
            return const_cast<ULONG*>(&context->currentState);
        }
    }
    throw std::logic_error("no such client");
}

TEST_P(Interrupted, SubscriberAwaitingAStateIsCalledWithNoOther)
{
    DriverFixture fixture(GetParam(), {.records = false});
    Peer& subscriber = fixture.Join(1);
    Peer& target = fixture.Join(2);
    ULONG* const current = CurrentStateOf(fixture, target);
    subscriber.onState = [](const ZepState&, ULONG&) { SingleSteps::End(); };

    unsigned instructionCount = 1;
    unsigned calledCount = 0;
    for (unsigned instruction = 0; instruction <= instructionCount; ++instruction) {
        *current = 3;
        subscriber.deliveries.clear();
        const unsigned seen = RunInterrupted(
            fixture.machine, *fixture.driver,
            {.function = "WdfCollectionAdd", .instruction = instruction, .action = [&] { *current = 5; }},
            [&] { EXPECT_EQ(fixture.Subscribe(subscriber, target, 3), STATUS_SUCCESS); });
        instructionCount = instruction == 0 ? seen : instructionCount;
        for (const ZepState& delivery : subscriber.deliveries) {
            EXPECT_EQ(delivery.State, 3u) << "posted before instruction " << instruction << " of " << instructionCount;
        }
        calledCount += subscriber.deliveries.empty() ? 0 : 1;
        ASSERT_EQ(fixture.Unsubscribe(subscriber, target, 3), STATUS_SUCCESS);
    }
    // The state changes before the comparison in some of the runs, and after it in the others.
    EXPECT_GT(calledCount, 1u);
    EXPECT_LT(calledCount, instructionCount);
}

// The record is queued already, so the client may deregister and its context be deleted: with tracing enabled, too.
TEST_P(Interrupted, PostIsTracedWithoutTheContextOfAClientThatLeavesMeanwhile)
{
    DriverFixture fixture(GetParam());
    Peer& poster = fixture.Join(1);
    (void)fixture.TakeRecords();
    const auto leave = [&] {
        (void)fixture.machine.OnThread("leaver", [&] { EXPECT_EQ(fixture.Leave(poster), STATUS_SUCCESS); });
    };
    // The first append is that for the crash-dump driver.
    RunInterrupted(fixture.machine, *fixture.driver, {.function = "WdfCollectionAdd", .skip = 1, .action = leave},
                   [&] { EXPECT_EQ(fixture.Post(poster, 5), STATUS_SUCCESS); });
    EXPECT_EQ(fixture.TakeRecords(),
              (Lines{"M125 Notifier_HelperSendState", "M63 _getClientContextByGUID", "M87 Notifier_HelperClientDeinit",
                     "M94 Notifier_HelperClientDeinit", "M137 Notifier_HelperSendState"}));
    EXPECT_EQ(NumbersOf(fixture.machine.tracing().Messages().back()), (std::vector<std::uint64_t>{1, 5}));
    fixture.Deliver();
}

}  // namespace
}  // namespace tests
