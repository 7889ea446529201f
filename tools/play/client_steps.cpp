// The steps of a client driver: the helper interface's operations, dumps among them.
#include "tools/peers/client_calls.h"
#include "tools/play/steps.h"

namespace play {
namespace {

// The operation in pages and pictures.
const char* FunctionOf(Kind kind)
{
    constexpr const char* kNames[] = {"Notifier_HelperInit",
                                      "Notifier_HelperClientDeinit",
                                      "Notifier_HelperRegisterForStateNotification",
                                      "Notifier_HelperDeregisterForStateNotification",
                                      "Notifier_HelperSendState",
                                      "Notifier_HelperSendCommand",
                                      "Notifier_HelperStartDump",
                                      "Notifier_HelperAddDumpData",
                                      "Notifier_HelperDumpQueryParam",
                                      "Notifier_HelperDumpAddTriageData",
                                      "Notifier_HelperStopDump"};
    return kNames[static_cast<std::size_t>(kind)];
}

const char* DumpText(Kind kind)
{
    switch (kind) {
    case Kind::kStartDump:
        return "starts a dump";
    case Kind::kAddDumpData:
        return "adds data to its dump";
    case Kind::kQueryDump:
        return "asks for a parameter of its dump";
    case Kind::kAddTriageData:
        return "adds triage data";
    default:
        return "stops its dump";
    }
}

}  // namespace

void DoClientStep(Run& run, const Step& step)
{
    Client& client = run.peers.Find(step.client);
    const std::string& who = client.model().key;
    const ClientModel& other = run.peers.ModelOf(step.to.empty() ? step.client : step.to);
    const std::string stateName = step.state ? StateName(run.scenario, &other, *step.state) : "any";
    const bool isPost = step.kind == Kind::kPost;
    const peers::Record record{.state = {.Size = sizeof(ZepState),
                                         .InterfaceGUID = other.guid,
                                         .State = step.state.value_or(isPost ? 0 : ZEP_STATE_ANY),
                                         .Reserved = 0},
                               .command = {.Size = sizeof(ZepCommand),
                                           .CommandArgument = step.argument,
                                           .SourceGuid = client.model().guid,
                                           .TargetGuid = other.guid,
                                           .CommandId = step.id}};
    const auto call = [&](const std::vector<std::string>& causes = {}) {
        return run.Call(step, who, FunctionOf(step.kind), causes,
                        [&] { return peers::CallAsClient(run.helper, step.kind, client.caller(), record, step.null); });
    };
    switch (step.kind) {
    case Kind::kRegister: {
        const auto status = call();
        run.peers.counts.registered += status && NT_SUCCESS(*status) ? 1 : 0;
        run.Show(step, who, "registers as \"" + client.model().name + "\"", status);
        return;
    }
    case Kind::kSubscribe: {
        run.timeline.Add({EntryKind::kCall, who, kNotifier,
                          "subscribes to " + step.to + (step.state ? " in state " : " in ") + stateName +
                              (step.state ? "" : " state"),
                          "", true});
        run.peers.registering = true;
        const auto status = call();
        run.peers.registering = false;
        run.Show(step, who, "   is subscribed", status);
        return;
    }
    case Kind::kUnsubscribe:
        run.Show(step, who, "ends its subscription to " + step.to + " (" + stateName + ")", call());
        return;
    case Kind::kPost: {
        const auto status = call({"state " + who + " " + std::to_string(record.state.State), "client " + who});
        run.peers.counts.posted += status && NT_SUCCESS(*status) ? 1 : 0;
        run.Show(step, who, "posts its state: " + stateName, status);
        return;
    }
    case Kind::kDeregister:
        run.Show(step, who, "deregisters", call({"end " + who}));
        return;
    case Kind::kCommand:
        run.Show(step, who, "sends command " + std::to_string(step.id) + " to " + step.to,
                 call({"command " + who + " " + step.to + " " + std::to_string(step.id)}));
        return;
    default:
        run.Show(step, who, DumpText(step.kind), call({"dump"}));
    }
}

}  // namespace play
