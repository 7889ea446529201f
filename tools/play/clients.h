// The scripted peers: client drivers that answer as the scenario says, and the crash-dump driver.
#pragma once

#include "driver/include/zepn_notifier.h"
#include "tools/peers/client_calls.h"
#include "tools/play/crash_dump.h"
#include "tools/play/scenario.h"
#include "tools/play/timeline.h"

#include <array>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace play {

struct Counts {
    unsigned realDrivers = 0;  // started; what these do is not counted
    unsigned registered = 0;
    unsigned posted = 0;
    unsigned delivered = 0;
    unsigned answered = 0;
    unsigned commands = 0;
    unsigned announced = 0;
    unsigned dumpCalls = 0;
};

class Peers;

// A callback as a span of its own.
class CallbackScope {
public:
    CallbackScope(Timeline& timeline, std::string who, const std::string& callback, const std::string& causedBy)
        : timeline_(timeline), who_(std::move(who))
    {
        timeline_.Begin({Span::Kind::kCallback, who_, callback, causedBy});
    }
    ~CallbackScope() { timeline_.End(who_); }
    CallbackScope(const CallbackScope&) = delete;
    CallbackScope& operator=(const CallbackScope&) = delete;

private:
    Timeline& timeline_;
    const std::string who_;
};

// One scripted client driver. Its address is the callback context that the Notifier hands back.
class Client {
public:
    Client(Peers& peers, const ClientModel& model);

    [[nodiscard]] const ClientModel& model() const { return model_; }
    // What its calls hand over.
    [[nodiscard]] peers::Caller caller()
    {
        return {model_.guid, model_.name, model_.description, callbacks_, entries_, this, &OnState, model_.guid.Data1};
    }

    // Its driver is unloaded: whoever calls one of its callbacks from now on is found.
    void Unload() { unloaded_ = true; }

    static NTSTATUS NTAPI OnState(PVOID context, const ZepState* state, PULONG response);
    static NTSTATUS NTAPI OnCommand(PVOID context, ULONG id, const ZepCommandInfo* info, PULONG state);
    static NTSTATUS NTAPI OnAppsState(PVOID context, ULONG reason, PULONG state);

private:
    bool IsUnloaded(const char* callback);
    void CallFromInside(const char* callback);
    void Answer(std::uint32_t answer, ULONG& state);

    Peers& peers_;
    const ClientModel& model_;
    ActionCallbackTable callbacks_{};
    std::vector<ZepDataEntry> entries_;
    std::vector<bool> spent_;  // rules that answer once and have answered
    bool unloaded_ = false;
};

class Peers {
public:
    Peers(const Scenario& scenario, Timeline& timeline);
    Peers(const Peers&) = delete;
    Peers& operator=(const Peers&) = delete;

    // A scripted client.
    [[nodiscard]] Client& Find(const std::string& key);
    // Any client; null for an identity that the scenario does not name.
    [[nodiscard]] const ClientModel& ModelOf(const std::string& key) const;
    [[nodiscard]] const ClientModel* ModelOf(const GUID& guid) const;
    [[nodiscard]] std::string NameOf(const GUID& guid) const;

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
    CrashDump crashDump;

private:
    unsigned answersInStep_ = 0;
    std::deque<Client> clients_;
    std::map<std::string, Client*> scripted_;
    std::map<std::string, const ClientModel*> byKey_;
    std::map<std::array<std::uint64_t, 2>, const ClientModel*> byGuid_;  // of several with one GUID the first
};

}  // namespace play
