// The other drivers of a run: clients that the client under test watches, commands or is commanded by, and a crash-dump
// driver. They take what they are given and answer nothing.
#pragma once

#include "tools/test_client/seen.h"

#include <deque>
#include <functional>

namespace test_client {

struct Peer {
    Identity identity;
    const char* name;
    bool isRegistered = false;
    unsigned commandCount = 0;  // delivered to it
};

class Peers {
public:
    Peers();
    ~Peers();
    Peers(const Peers&) = delete;
    Peers& operator=(const Peers&) = delete;

    // Two that no client knows.
    [[nodiscard]] Peer& stranger() { return peers_[0]; }
    [[nodiscard]] Peer& other() { return peers_[1]; }
    // The one with this identity, made when there is none yet.
    Peer& Find(const Identity& identity, const char* name);
    [[nodiscard]] std::deque<Peer>& all() { return peers_; }
    [[nodiscard]] unsigned RegisteredCount() const;
    void Forget();  // the Notifier is gone, and with it who was registered and attached

    // ---- Their calls; the caller sees to thread and lock ----

    static NTSTATUS Register(const ZEP_NOTIFIER_HELPER_INTERFACE& helper, Peer& peer);
    static NTSTATUS Watch(const ZEP_NOTIFIER_HELPER_INTERFACE& helper, const Peer& peer, const Identity& watched);
    static NTSTATUS Send(const ZEP_NOTIFIER_HELPER_INTERFACE& helper, const Peer& from, const Identity& to, ULONG id,
                         ULONG argument);
    static NTSTATUS Deregister(const ZEP_NOTIFIER_HELPER_INTERFACE& helper, Peer& peer);
    // All dump calls, in the order of a dump.
    void Dump(const ZEP_NOTIFIER_HELPER_INTERFACE& helper);
    NTSTATUS Attach(const ZEP_NOTIFIER_WPCD_INTERFACE& wpcd);
    NTSTATUS Detach(const ZEP_NOTIFIER_WPCD_INTERFACE& wpcd);
    [[nodiscard]] bool isAttached() const { return isAttached_; }

private:
    std::deque<Peer> peers_;  // whose addresses are callback contexts
    bool isAttached_ = false;
};

}  // namespace test_client
