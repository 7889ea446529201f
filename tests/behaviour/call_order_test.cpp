// The order in which the operations lock, create, queue, call back and delete: each operation's platform calls, one
// after the other.
#include "tests/kit/driver_fixture.h"

namespace tests {
namespace {

class CallOrder : public OnContainer {};
FOR_ALL_CONTAINERS(CallOrder);

// Those that change something, by the words that the expectations use.
const std::map<std::string_view, const char*> kWords = {
    {"WdfObjectCreate", "create"},
    {"WdfCollectionCreate", "create"},
    {"WdfObjectAllocateContext", "create"},
    {"ExAllocatePoolWithTag", "allocate"},
    {"ExFreePoolWithTag", "free"},
    {"WdfObjectDelete", "delete"},
    {"WdfObjectReferenceActual", "reference"},
    {"WdfObjectDereferenceActual", "dereference"},
    {"WdfCollectionAdd", "add"},
    {"WdfCollectionRemove", "remove"},
    {"WdfCollectionRemoveItem", "remove"},
    {"WdfWorkItemEnqueue", "enqueue"},
    {"WdfRequestComplete", "complete"},
    {"WdfRequestCompleteWithInformation", "complete"},
};

// Writes down what a driver does from its construction on. A lock that is taken stands there as "+name", one that is
// given back as "-name".
class Recorder {
public:
    explicit Recorder(DriverFixture& fixture) : machine_(fixture.machine)
    {
        const DriverContext context = fixture.Context();
        names_ = {{context.generalLock, "general"},
                  {context.clientsLock, "clients"},
                  {context.statesLock, "states"},
                  {context.commandsLock, "commands"},
                  {context.notifyStatesLock, "run"},
                  {context.notifyCommandsLock, "run"}};
        machine_.environment().SetObserver([this](const host::ObservedCall& call) {
            NoteLocks(host::ThreadState::Current().heldLocks);
            if (const auto word = kWords.find(call.function); word != kWords.end()) {
                Note(word->second);
            }
        });
    }
    ~Recorder() { machine_.environment().SetObserver(nullptr); }
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    void Note(const std::string& word) { calls_ += (calls_.empty() ? "" : " ") + word; }

    // Everything since the last call.
    std::string Take()
    {
        NoteLocks({});
        return std::exchange(calls_, "");
    }

private:
    // The call that changed them came before the one that is seen now.
    void NoteLocks(const std::vector<void*>& held)
    {
        for (void* lock : held_) {
            if (std::ranges::find(held, lock) == held.end()) {
                Note("-" + names_.at(lock));
            }
        }
        for (void* lock : held) {
            if (std::ranges::find(held_, lock) == held_.end()) {
                Note("+" + names_.at(lock));
            }
        }
        held_ = held;
    }

    host::Machine& machine_;
    std::map<const void*, std::string> names_;
    std::vector<void*> held_;
    std::string calls_;
};

TEST_P(CallOrder, OfEachOperationIsFixed)
{
    DriverFixture fixture(GetParam(), {.records = false});
    Recorder recorder(fixture);
    const auto note = [&](const char* word) { recorder.Note(word); };
    Peer sender(1);
    Peer target(2);
    target.onState = [&](const ZepState&, ULONG& response) { note("CALL"), response = 8; };
    target.TakesCommands().onCommand = [&](ULONG, ULONG& state) { note("CALL"), state = 9; };
    target.WantsAppsState().onAppsState = [&](ULONG& state) { note("CALL"), state = 10; };
    fixture.crashDump.onAdd = [&](const ZEP_SUBSYSTEM_DESCRIPTOR&) { return note("CALL"), STATUS_SUCCESS; };
    fixture.crashDump.onRemove = [&](const layout::ClientContext&) { return note("CALL"), STATUS_SUCCESS; };
    const auto runWorkItem = [&] { (void)fixture.machine.RunOneWorkItem(); };
    const ZepDataEntry entry{};
    host::FileId file = 0;

    const auto expect = [&](const char* operation, const std::function<void()>& act, const std::string& calls) {
        act();
        EXPECT_EQ(recorder.Take(), calls) << operation;
    };

    const std::string queueState = "create +states add enqueue -states";
    const std::string post = "+clients -clients +general -general " + queueState;
    const std::string firstPost = "+clients -clients +general -general +clients add -clients enqueue " + queueState;
    const std::string announce = "+clients CALL +general -general remove -clients";
    const std::string takeState = "+states reference remove -states ";
    const std::string deliverToNobody =
        "+run +clients " + takeState + "delete dereference +states -states -clients -run";

    expect("attach", [&] { (void)fixture.Attach(); }, "create");
    expect("open", [&] { (void)fixture.driver->Open(file); }, "create complete");
    expect("register with an entry", [&] { (void)fixture.Register(target, 1, &entry); },
           "+clients -clients create allocate create +clients add -clients");
    expect("register", [&] { (void)fixture.Register(sender); },
           "+clients -clients create create +clients add -clients");
    expect("subscribe", [&] { (void)fixture.Subscribe(target, sender, 5); }, "+clients create add -clients");
    expect("subscribe", [&] { (void)fixture.Subscribe(target, sender, 6); }, "+clients create add -clients");
    expect("unsubscribe", [&] { (void)fixture.Unsubscribe(target, sender, 6); }, "+clients remove delete -clients");
    expect("post for the first time", [&] { (void)fixture.Post(sender, 5); }, firstPost);
    expect("announce", runWorkItem, announce);
    expect("deliver a state that is answered", runWorkItem,
           "+run +clients " + takeState + "CALL " + queueState + " delete dereference " + takeState +
               "delete dereference +states -states -clients -run");
    expect("run once more for the answer", runWorkItem, "+run +clients +states -states -clients -run");
    expect("post again", [&] { (void)fixture.Post(sender, 1); }, post);
    expect("deliver to nobody", runWorkItem, deliverToNobody);
    expect("command", [&] { (void)fixture.Send(sender, target, 1); },
           "+clients -clients +clients -clients create +commands add enqueue -commands");
    expect("hand over a command that is answered", runWorkItem,
           "+run +clients +commands reference remove -commands CALL dereference -clients " + firstPost + " -run");
    expect("announce its target", runWorkItem, announce);
    expect("deliver its answer", runWorkItem, deliverToNobody);
    expect("broadcast", [&] { (void)fixture.driver->DeviceControl(file, IOCTL_ZEPN_NOTIFY_APPS_STATE); },
           "+clients create create reference reference CALL create add -clients " + post +
               " dereference dereference complete");
    expect("deliver the answer", runWorkItem, deliverToNobody);
    std::vector<ZEP_SUBSYSTEM_DESCRIPTOR> descriptors(2);
    ULONG count = 2;
    expect("describe",
           [&] { (void)fixture.wpcd.Notifier_WpcdGetAllSubsystemDescriptors(descriptors.data(), &count); },
           "+clients +general -general +general -general -clients");
    expect("deregister", [&] { (void)fixture.Leave(target); },
           "+clients free remove create add enqueue remove delete delete delete -clients");
    expect("withdraw", runWorkItem, "+clients remove CALL -clients delete");
    expect("detach", [&] { (void)fixture.Detach(); }, "+clients delete -clients");
    expect("close", [&] { fixture.driver->Close(file); }, "");
    fixture.driver->SurpriseRemoveDevice();
    (void)fixture.driver->RemoveDevice();
    EXPECT_EQ(recorder.Take(), "+clients remove delete delete -clients") << "the sender is still there";
}

// What a post and an announcement leave in the client's context, at the moment when they release the general lock.
TEST_P(CallOrder, ChangesOfAClientAreMadeBeforeTheGeneralLockIsReleased)
{
    DriverFixture fixture(GetParam(), {.records = false});
    Peer peer(1);
    ASSERT_EQ(fixture.Register(peer), STATUS_SUCCESS);
    ASSERT_EQ(fixture.Attach(), STATUS_SUCCESS);
    const void* general = fixture.Context().generalLock;
    Lines seen;
    fixture.machine.environment().SetObserver([&](const host::ObservedCall& call) {
        const std::vector<void*>& held = host::ThreadState::Current().heldLocks;
        if (call.function == std::string_view("WdfWaitLockRelease") && !held.empty() && held.back() == general) {
            const auto client = fixture.Client(peer);
            seen.push_back(std::to_string(client->currentState) + (client->addedToWpcd != 0 ? " announced" : "") +
                           (client->wpcdRefreshPending != 0 ? " refresh" : ""));
        }
    });
    EXPECT_EQ(fixture.Post(peer, 0), STATUS_SUCCESS);
    fixture.Deliver();
    EXPECT_EQ(fixture.Post(peer, 5), STATUS_SUCCESS);
    fixture.Deliver();
    fixture.machine.environment().SetObserver(nullptr);
    EXPECT_EQ(seen, (Lines{"0", "0 announced refresh", "5 announced refresh", "5 announced"}));
}

}  // namespace
}  // namespace tests
