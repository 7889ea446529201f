// What the others do to the client in a run: peers that post, command and dump, the system's sleep, and another
// instance that was there before it.
#include "tools/test_client/run.h"

#include <algorithm>

namespace test_client {
namespace {

constexpr unsigned kDrainMaximum = 64;  // commands of a client's that nobody has taken yet

}  // namespace

void Run::Post(const Identity& poster, ULONG state)
{
    const ZepState record{.Size = sizeof(record), .InterfaceGUID = poster.guid, .State = state, .Reserved = 0};
    Doing("a client that it watches posts state " + std::to_string(state));
    Call("another driver", [&] { (void)helper_.Notifier_HelperSendState(&record); });
    Settle();
}

std::vector<Peer*> Run::JoinPeers()
{
    Doing("its peers register and subscribe to it");
    std::vector<Peer*> peers = {&peers_.stranger(), &peers_.other()};
    const auto isOwn = [&](const Identity& identity) {
        return std::ranges::find(seen_.clients, identity, &OwnClient::identity) != seen_.clients.end();
    };
    const auto add = [&](const Identity& identity, const char* name) {
        if (!isOwn(identity) && std::ranges::find(peers, identity, &Peer::identity) == peers.end()) {
            peers.push_back(&peers_.Find(identity, name));
        }
    };
    for (const Subscription& subscription :
         std::vector<Subscription>(seen_.subscriptions.begin(), seen_.subscriptions.end())) {
        add(subscription.watched, "a client that it watches");
    }
    for (const Identity& target : std::vector<Identity>(seen_.targets.begin(), seen_.targets.end())) {
        add(target, "a client that it commands");
    }
    Call("another driver", [&] {
        if (!seen_.attaches) {
            (void)peers_.Attach(wpcd_);
        }
        for (Peer* peer : peers) {
            (void)Peers::Register(helper_, *peer);
        }
        for (const OwnClient& client : seen_.clients) {
            (void)Peers::Watch(helper_, peers_.stranger(), client.identity);
        }
    });
    Settle();
    return peers;
}

void Run::Converse()
{
    const std::vector<Peer*> peers = JoinPeers();
    const std::vector<Subscription> subscriptions(seen_.subscriptions.begin(), seen_.subscriptions.end());
    const std::vector<OwnClient> clients(seen_.clients.begin(), seen_.clients.end());
    for (const Subscription& subscription : subscriptions) {
        if (subscription.state != ZEP_STATE_ANY) {
            Post(subscription.watched, subscription.state);
            continue;
        }
        for (const ULONG state : setup_.states) {
            Post(subscription.watched, state);
        }
    }
    for (const OwnClient& client : clients) {
        for (const ULONG command : client.takesCommands ? setup_.commands : std::vector<ULONG>()) {
            for (const ULONG argument : {1u, 0u}) {
                Doing("it is sent command " + std::to_string(command) + " with argument " + std::to_string(argument));
                Call("another driver",
                     [&] { (void)Peers::Send(helper_, peers_.stranger(), client.identity, command, argument); });
                Settle();
                LetTimePass();  // what one argument starts the next may stop
            }
        }
    }
    if (seen_.attaches) {
        Doing("a client records a dump");
        Call("another driver", [&] { peers_.Dump(helper_); });
        Settle();
    }
    LetTimePass();
    DismissPeers(peers);
}

// What a state or a command makes it queue runs when it has left, and so do its timers.
void Run::RemoveClientAfterMessages(unsigned workItems)
{
    StartClient();
    const std::vector<Peer*> peers = JoinPeers();
    const std::vector<Subscription> subscriptions(seen_.subscriptions.begin(), seen_.subscriptions.end());
    // One command, and it arrives first: one that does not, because its target has deregistered, stops the Notifier.
    Doing("it is sent a command");
    const auto target = std::ranges::find_if(seen_.clients, &OwnClient::takesCommands);
    if (target != seen_.clients.end()) {
        const Identity identity = target->identity;
        Call("another driver",
             [&] { (void)Peers::Send(helper_, peers_.stranger(), identity, setup_.commands.front(), 1); });
    }
    while (machine.IsNextWorkItemOf(*notifier_)) {
        RunWorkItems(1);
    }
    Doing("it is sent states, and removed after " + std::to_string(workItems) + " work items");
    Call("another driver", [&] {
        for (const Subscription& subscription : subscriptions) {
            const bool isAny = subscription.state == ZEP_STATE_ANY;
            const ZepState record{.Size = sizeof(record),
                                  .InterfaceGUID = subscription.watched.guid,
                                  .State = isAny ? setup_.states.front() : subscription.state,
                                  .Reserved = 0};
            (void)helper_.Notifier_HelperSendState(&record);
        }
    });
    RunWorkItems(workItems);
    Call("plug and play", [&] { client_->SurpriseRemoveDevice(); });
    Settle();
    LetTimePass();
    UnloadClient();
    DismissPeers(peers);
}

void Run::DismissPeers(const std::vector<Peer*>& peers)
{
    DrainCommands();

    Doing("its peers deregister");
    Call("another driver", [&] {
        for (Peer* peer : peers) {
            if (!haveStrangersCommands_ || (peer != &peers_.stranger() && peer != &peers_.other())) {
                (void)Peers::Deregister(helper_, *peer);
            }
        }
        if (peers_.isAttached()) {
            (void)peers_.Detach(wpcd_);
        }
    });
    Settle();
}

// For its timers.
void Run::LetTimePass()
{
    const std::string before = during_;
    Doing("time passes");
    Call("clock", [&] { machine.AdvanceClock(std::chrono::seconds(1)); });
    Settle();
    during_ = before;
}

// One run delivers one command, and who deregisters before a command from or to it is delivered stops them all. So the
// strangers send commands until one of theirs arrives: what the client sent is delivered then. After a burst of its
// commands some of the strangers' stay undelivered for good, and the strangers stay, too.
void Run::DrainCommands()
{
    Doing("its commands are delivered");
    const unsigned before = peers_.other().commandCount;
    unsigned sent = 0;
    while (sent < kDrainMaximum && peers_.other().commandCount == before) {
        Call("another driver", [&] { (void)Peers::Send(helper_, peers_.stranger(), peers_.other().identity, 1, 0); });
        Settle();
        ++sent;
    }
    haveStrangersCommands_ = haveStrangersCommands_ || sent > 1;
}

void Run::Sleep()
{
    Doing("the system leaves its working state");
    Call("power", [&] { machine.NotifyPowerState(PO_CB_SYSTEM_STATE_LOCK, 0); });
    Settle();
    if (IsClientUp()) {
        Doing("its device goes to sleep");
        Call("power", [&] { (void)client_->Sleep(); });
        Settle();
    }
    if (notifier_ != nullptr) {
        Call("power", [&] {
            (void)notifier_->Sleep();
            (void)notifier_->Wake();
        });
    }
    if (IsClientUp()) {
        Doing("its device wakes up");
        Call("power", [&] { (void)client_->Wake(); });
        Settle();
    }
    LetTimePass();
    Doing("the system is in its working state again");
    Call("power", [&] { machine.NotifyPowerState(PO_CB_SYSTEM_STATE_LOCK, 1); });
    Settle();
}

void Run::TakeIdentities()
{
    Doing("another instance of it is there already");
    Call("another driver", [&] {
        for (const OwnClient& client : seen_.clients) {
            (void)Peers::Register(helper_, peers_.Find(client.identity, "another instance of it"));
        }
        if (seen_.attaches) {
            (void)peers_.Attach(wpcd_);
        }
    });
    Settle();
}

void Run::GiveIdentitiesBack()
{
    Doing("the other instance of it goes");
    NTSTATUS detached = STATUS_SUCCESS;
    Call("another driver", [&] {
        for (Peer& peer : peers_.all()) {
            if (peer.isRegistered) {
                (void)Peers::Deregister(helper_, peer);
            }
        }
        if (peers_.isAttached()) {
            detached = peers_.Detach(wpcd_);
        }
    });
    Settle();
    if (!NT_SUCCESS(detached)) {
        AddFinding("it has detached another crash-dump driver, which was attached before it");
        throw Stopped();
    }
}

}  // namespace test_client
