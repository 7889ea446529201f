// The simulated peers: client drivers that answer as the scenario says, and a crash-dump driver.
#pragma once

#include "driver/include/zepn_notifier.h"
#include "tools/play/scenario.h"
#include "tools/play/timeline.h"

#include <array>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace play {

struct Counts {
    unsigned registered = 0;
    unsigned posted = 0;
    unsigned delivered = 0;
    unsigned answered = 0;
    unsigned commands = 0;
    unsigned announced = 0;
    unsigned dumpCalls = 0;
};

class Peers;

// One client driver. Its address is the callback context that the Notifier hands back.
class Client {
public:
    Client(Peers& peers, const ClientModel& model);

    [[nodiscard]] const ClientModel& model() const { return model_; }
    [[nodiscard]] const ActionCallbackTable& callbacks() const { return callbacks_; }
    [[nodiscard]] const std::vector<ZepDataEntry>& entries() const { return entries_; }
    [[nodiscard]] std::uint32_t* dumpRecord() { return &dumpRecord_; }

    // Its driver is unloaded: whoever calls one of its callbacks from now on is found.
    void Unload() { unloaded_ = true; }

    static NTSTATUS NTAPI OnState(PVOID context, const ZepState* state, PULONG response);
    static NTSTATUS NTAPI OnCommand(PVOID context, ULONG id, const ZepCommandInfo* info, PULONG state);
    static NTSTATUS NTAPI OnAppsState(PVOID context, ULONG reason, PULONG state);

private:
    bool IsUnloaded(const char* callback);
    void CallFromInside(const char* callback);

    Peers& peers_;
    const ClientModel& model_;
    ActionCallbackTable callbacks_{};
    std::vector<ZepDataEntry> entries_;
    std::vector<bool> spent_;  // rules that answer once and have answered
    std::uint32_t dumpRecord_;
    bool unloaded_ = false;
};

class Peers {
public:
    Peers(const Scenario& scenario, Timeline& timeline);
    ~Peers();
    Peers(const Peers&) = delete;
    Peers& operator=(const Peers&) = delete;

    [[nodiscard]] Client& Find(const std::string& key);
    [[nodiscard]] std::string NameOf(const GUID& guid) const;
    [[nodiscard]] const WpcdClientRegistration& crashDumpRegistration() const { return crashDump_; }

    // The tables that the driver gave out; the peers use them only to do what they must not.
    const ZEP_NOTIFIER_HELPER_INTERFACE* helper = nullptr;
    const ZEP_NOTIFIER_WPCD_INTERFACE* wpcd = nullptr;

    // What the peers found wrong since the run looked last.
    std::vector<std::string> findings;

    // Called before each answer; false when there were too many since BeginStep, as when clients answer each other.
    bool MayAnswer();
    void BeginStep() { answersInStep_ = 0; }

    // A registration is delivering now: the callback's response then enters as the subscriber's own state.
    bool registering = false;

    const Scenario& scenario;
    Timeline& timeline;
    Counts counts;

private:
    unsigned answersInStep_ = 0;
    std::deque<Client> clients_;
    std::map<std::string, Client*> byKey_;
    std::map<std::array<std::uint64_t, 2>, Client*> byGuid_;  // of several with one GUID the first
    WpcdClientRegistration crashDump_{};
};

}  // namespace play
