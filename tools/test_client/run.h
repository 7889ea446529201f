// One run of the course: a machine with the Notifier, the client under test and its peers. The run does what the
// system, the Notifier and other drivers may do to a client; the first finding ends it.
#pragma once

#include "host/machine.h"
#include "tools/test_client/notifier_calls.h"
#include "tools/test_client/peers.h"
#include "tools/test_client/seen.h"

#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace test_client {

struct CourseSetup {
    std::filesystem::path notifier;
    std::filesystem::path client;
    std::vector<std::pair<std::string, std::string>> parameters;  // registry values of the client's service
    std::vector<ULONG> states;                                    // that its peers post
    std::vector<ULONG> commands;                                  // that it is sent, where it takes any
    bool allowMissing = false;  // it may need functions that the host does not play, until it calls one

    [[nodiscard]] std::string ClientName() const { return client.filename().string(); }
    [[nodiscard]] std::string ServiceName() const { return client.stem().string(); }
};

struct Finding {
    std::string during;                // what was being done
    std::string text;                  // one sentence
    std::vector<std::string> details;  // what else there is to say, a line each
};

// The run cannot go on: its finding is in findings().
class Stopped {};

class Run {
public:
    // `seen`: what the client is known to do; the run adds to it as long as it watches.
    Run(const CourseSetup& setup, Seen& seen);
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    // ---- What happens to the client. Each step lets all queued work run and throws Stopped at a finding ----

    void StartNotifier();
    void RemoveNotifier();  // by surprise, for it refuses a removal that is requested
    void RefuseNotifierRemoval();
    void StartClient();
    void RemoveClient();  // an orderly removal, and the unload
    void SurpriseRemoveClient();
    void RemoveClientAtOnce(unsigned workItems);  // by surprise, after it was started and so many work items have run
    void RemoveClientAfterMessages(unsigned workItems);  // the same, after its peers have sent what it takes
    void Converse();  // peers register, post, command, make dump calls, and deregister
    void Sleep();
    void TakeIdentities();  // another instance of it registers under its GUIDs, and attaches, before it does
    void GiveIdentitiesBack();

    // ---- What must be so ----

    [[nodiscard]] int CountRegistered();  // its clients that are registered now
    void ExpectNoGrowth();                // when its peers do the same again and again
    void
    ExpectRegistered();  // as many of its clients are registered as when all is up, and it is attached if it attaches

    // ---- Faults ----

    // From now on the client may fail to start, and need not be registered.
    void Allow(bool isFaulty) { isFaulty_ = isFaulty; }
    [[nodiscard]] bool IsClientUp() const { return client_ != nullptr && client_->HasDevice(); }

    void AddFinding(std::string text, std::vector<std::string> details = {});
    [[nodiscard]] const std::vector<Finding>& findings() const { return findings_; }
    [[nodiscard]] const std::string& during() const { return during_; }

    host::Machine machine;
    NotifierCalls calls;  // the client's

private:
    void Doing(std::string what);
    template <class Work>
    void Call(const char* thread, const Work& work)
    {
        CheckParked(machine.OnThread(thread, work));
    }
    void RunWorkItems(unsigned count);
    void Settle();
    void Check();
    void CheckParked(const host::Outcome& outcome);
    void AddAndStart();
    void Unload(host::Driver& driver, const std::string& who);
    void UnloadClient();
    void ExpectGone();
    [[nodiscard]] bool IsAttached();
    void Post(const Identity& poster, ULONG state);
    void LetTimePass();
    [[nodiscard]] std::vector<Peer*> JoinPeers();
    void DismissPeers(const std::vector<Peer*>& peers);
    void DrainCommands();

    const CourseSetup& setup_;
    Seen& seen_;
    Peers peers_;
    host::Driver* notifier_ = nullptr;
    host::Driver* client_ = nullptr;
    ZEP_NOTIFIER_HELPER_INTERFACE helper_{};
    ZEP_NOTIFIER_WPCD_INTERFACE wpcd_{};
    std::string during_;
    std::vector<Finding> findings_;
    bool isFaulty_ = false;
    bool haveStrangersCommands_ = false;  // undelivered
};

}  // namespace test_client
