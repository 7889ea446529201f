// The steps of a client driver: the helper interface's operations, dumps among them.
#include "tools/play/steps.h"

namespace play {
namespace {

ZepState StateOf(Run& run, const std::string& client, std::uint32_t state)
{
    return {.Size = sizeof(ZepState), .InterfaceGUID = run.peers.ModelOf(client).guid, .State = state, .Reserved = 0};
}

}  // namespace

void DoClientStep(Run& run, const Step& step)
{
    Client& client = run.peers.Find(step.client);
    const ClientModel& model = client.model();
    const ClientModel& owner = step.to.empty() ? model : run.peers.ModelOf(step.to);
    const std::string stateName = step.state ? StateName(run.scenario, &owner, *step.state) : "any";
    const GUID* guid = step.null == "guid" ? nullptr : &model.guid;
    const auto call = [&](const char* operation, const std::vector<std::string>& causes,
                          const std::function<NTSTATUS()>& made) {
        return run.Call(step, model.key, operation, causes, made);
    };
    if (step.action == Action::kRegister) {
        const auto status = call("Notifier_HelperInit", {}, [&] {
            return run.helper.Notifier_HelperInit(guid, model.name.c_str(), model.description.c_str(),
                                                  step.null == "callbacks" ? nullptr : &client.callbacks(),
                                                  client.entries().empty() ? nullptr : client.entries().data(),
                                                  model.entryCount, &client);
        });
        run.peers.counts.registered += status && NT_SUCCESS(*status) ? 1 : 0;
        run.Show(step, model.key, "registers as \"" + model.name + "\"", status);
    } else if (step.action == Action::kSubscribe) {
        const ZepState filter = StateOf(run, step.to, step.state.value_or(ZEP_STATE_ANY));
        run.timeline.Add({EntryKind::kCall, model.key, kNotifier,
                          "subscribes to " + step.to + (step.state ? " in state " : " in ") + stateName +
                              (step.state ? "" : " state"),
                          "", true});
        run.peers.registering = true;
        const auto status = call("Notifier_HelperRegisterForStateNotification", {}, [&] {
            return run.helper.Notifier_HelperRegisterForStateNotification(
                guid, step.null == "record" ? nullptr : &filter, step.null == "callback" ? nullptr : &Client::OnState);
        });
        run.peers.registering = false;
        run.Show(step, model.key, "   is subscribed", status);
    } else if (step.action == Action::kUnsubscribe) {
        const ZepState filter = StateOf(run, step.to, step.state.value_or(ZEP_STATE_ANY));
        run.Show(step, model.key, "ends its subscription to " + step.to + " (" + stateName + ")",
                 call("Notifier_HelperDeregisterForStateNotification", {}, [&] {
                     return run.helper.Notifier_HelperDeregisterForStateNotification(
                         guid, step.null == "record" ? nullptr : &filter);
                 }));
    } else if (step.action == Action::kPost) {
        const ZepState state = StateOf(run, step.client, step.state.value_or(0));
        const auto status =
            call("Notifier_HelperSendState",
                 {"state " + model.key + " " + std::to_string(state.State), "client " + model.key},
                 [&] { return run.helper.Notifier_HelperSendState(step.null.empty() ? &state : nullptr); });
        run.peers.counts.posted += status && NT_SUCCESS(*status) ? 1 : 0;
        run.Show(step, model.key, "posts its state: " + stateName, status);
    } else if (step.action == Action::kDeregister) {
        run.Show(step, model.key, "deregisters", call("Notifier_HelperClientDeinit", {"end " + model.key}, [&] {
                     return run.helper.Notifier_HelperClientDeinit(guid);
                 }));
    } else {
        const ZepCommand command{.Size = sizeof(ZepCommand),
                                 .CommandArgument = step.argument,
                                 .SourceGuid = model.guid,
                                 .TargetGuid = run.peers.ModelOf(step.to).guid,
                                 .CommandId = step.id};
        run.Show(step, model.key, "sends command " + std::to_string(step.id) + " to " + step.to,
                 call("Notifier_HelperSendCommand",
                      {"command " + model.key + " " + step.to + " " + std::to_string(step.id)},
                      [&] { return run.helper.Notifier_HelperSendCommand(step.null.empty() ? &command : nullptr); }));
    }
}

void DoDumpStep(Run& run, const Step& step)
{
    Client& client = run.peers.Find(step.client);
    const std::string& who = client.model().key;
    PVOID record = step.null.empty() ? client.dumpRecord() : nullptr;
    std::uint32_t data = 0xDA7A;
    const auto call = [&](const std::string& what, const char* operation, const std::function<NTSTATUS()>& made) {
        run.Show(step, who, what, run.Call(step, who, operation, {"dump"}, made));
    };
    if (step.action == Action::kStartDump) {
        call("starts a dump", "Notifier_HelperStartDump",
             [&] { return run.helper.Notifier_HelperStartDump(record, 0x1000, 0x2000); });
    } else if (step.action == Action::kAddDumpData) {
        call("adds data to its dump", "Notifier_HelperAddDumpData",
             [&] { return run.helper.Notifier_HelperAddDumpData(record, &data, 0x80000000, 4096, 1); });
    } else if (step.action == Action::kQueryDump) {
        call("asks for a parameter of its dump", "Notifier_HelperDumpQueryParam",
             [&] { return run.helper.Notifier_HelperDumpQueryParam(record, 7, 0, 0); });
    } else if (step.action == Action::kAddTriageData) {
        call("adds triage data", "Notifier_HelperDumpAddTriageData",
             [&] { return run.helper.Notifier_HelperDumpAddTriageData(record, 0x90000000, 256); });
    } else {
        call("stops its dump", "Notifier_HelperStopDump",
             [&] { return run.helper.Notifier_HelperStopDump(record, 0); });
    }
}

}  // namespace play
