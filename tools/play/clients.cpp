#include "tools/play/clients.h"

#include "tools/play/statuses.h"

#include <bit>
#include <cstdio>
#include <cstring>

namespace play {
namespace {

Peers* g_peers = nullptr;  // the crash-dump callbacks carry no context of their own

std::array<std::uint64_t, 2> KeyOf(const GUID& guid)
{
    return std::bit_cast<std::array<std::uint64_t, 2>>(guid);
}

std::string Hex(std::uint64_t value)
{
    char text[24];
    std::snprintf(text, sizeof(text), "0x%llX", static_cast<unsigned long long>(value));
    return text;
}

// A callback as a span of its own.
class CallbackScope {
public:
    CallbackScope(Timeline& timeline, std::string who, const char* callback, const std::string& causedBy)
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

void CrashDumpCallsFromInside(const std::string& callback)
{
    for (const InsideCall& inside : g_peers->scenario.crashDump.inside) {
        if (inside.callback != callback) {
            continue;
        }
        g_peers->timeline.Add(
            {EntryKind::kCall, kCrashDump, "notifier", "calls from inside its callback: " + inside.call, "", true});
        ULONG count = 1;
        ZEP_SUBSYSTEM_DESCRIPTOR descriptor;
        if (inside.call == "detach") {
            (void)g_peers->wpcd->Notifier_WpcdClientDeInit();
        } else if (inside.call == "count") {
            (void)g_peers->wpcd->Notifier_WpcdGetNumSubsystemDescriptors(&count);
        } else {
            (void)g_peers->wpcd->Notifier_WpcdGetAllSubsystemDescriptors(&descriptor, &count);
        }
    }
}

NTSTATUS Answer(const char* callback, const std::string& what, const std::string& causedBy)
{
    const CallbackScope scope(g_peers->timeline, kCrashDump, callback, causedBy);
    const auto& answers = g_peers->scenario.crashDump.answers;
    const auto found = answers.find(callback);
    const NTSTATUS status = found == answers.end() ? STATUS_SUCCESS : found->second;
    g_peers->timeline.Add({EntryKind::kCallback, "notifier", kCrashDump, what,
                           status == STATUS_SUCCESS ? "" : "answers " + StatusText(status), true});
    CrashDumpCallsFromInside(callback);
    return status;
}

NTSTATUS NTAPI OnClientAdd(const ZEP_SUBSYSTEM_DESCRIPTOR* descriptor)
{
    ++g_peers->counts.announced;
    const std::string client = g_peers->NameOf(descriptor->InterfaceGUID);
    return Answer("add",
                  "announces " + client + ", \"" + descriptor->SubsystemName + "\", " +
                      std::to_string(descriptor->DataEntryCount) + " data entries",
                  "client " + client);
}

NTSTATUS NTAPI OnClientRemove(const ZEP_NOTIFIER_CLIENT_CONTEXT* client)
{
    GUID guid;
    std::memcpy(&guid, client, sizeof(guid));
    return Answer("remove", "withdraws " + g_peers->NameOf(guid), "end " + g_peers->NameOf(guid));
}

std::string DumpText(PVOID handle)
{
    std::uint32_t record;
    std::memcpy(&record, handle, sizeof(record));
    return "dump " + Hex(record);
}

NTSTATUS NTAPI OnDumpStart(PVOID handle, ULONGLONG first, ULONGLONG second)
{
    ++g_peers->counts.dumpCalls;
    return Answer("start", DumpText(handle) + " starts (" + Hex(first) + ", " + Hex(second) + ")", "dump");
}

NTSTATUS NTAPI OnDumpAddData(PVOID handle, PVOID, ULONGLONG address, ULONG size, ULONG flags)
{
    ++g_peers->counts.dumpCalls;
    return Answer("addData",
                  DumpText(handle) + ": " + std::to_string(size) + " bytes at " + Hex(address) + ", flags " +
                      std::to_string(flags),
                  "dump");
}

NTSTATUS NTAPI OnDumpStop(PVOID handle, ULONGLONG result)
{
    ++g_peers->counts.dumpCalls;
    return Answer("stop", DumpText(handle) + " stops (" + Hex(result) + ")", "dump");
}

NTSTATUS NTAPI OnDumpQuery(PVOID handle, ULONG parameter, ULONGLONG, ULONGLONG)
{
    ++g_peers->counts.dumpCalls;
    return Answer("query", DumpText(handle) + ": parameter " + std::to_string(parameter) + " is asked for", "dump");
}

NTSTATUS NTAPI OnDumpTriage(PVOID handle, ULONGLONG address, ULONG size)
{
    ++g_peers->counts.dumpCalls;
    return Answer("triage", DumpText(handle) + ": triage data, " + std::to_string(size) + " bytes at " + Hex(address),
                  "dump");
}

}  // namespace

Client::Client(Peers& peers, const ClientModel& model)
    : peers_(peers), model_(model), entries_(model.entryCount), spent_(model.answers.size()),
      dumpRecord_(model.guid.Data1)
{
    callbacks_.CommandCallback = model.takesCommands ? &OnCommand : nullptr;
    callbacks_.AppsStateNotificationCallback = model.wantsAppsState ? &OnAppsState : nullptr;
}

bool Client::IsUnloaded(const char* callback)
{
    if (unloaded_) {
        peers_.findings.push_back(std::string("the Notifier calls the ") + callback + " of " + model_.key +
                                  ", whose driver is unloaded: a jump into unmapped memory");
    }
    return unloaded_;
}

void Client::CallFromInside(const char* callback)
{
    const ZEP_NOTIFIER_HELPER_INTERFACE& helper = *peers_.helper;
    const GUID& guid = model_.guid;
    const ZepState record{.Size = sizeof(ZepState), .InterfaceGUID = guid, .State = 1, .Reserved = 0};
    for (const InsideCall& inside : model_.inside) {
        if (inside.callback != callback) {
            continue;
        }
        peers_.timeline.Add(
            {EntryKind::kCall, model_.key, "notifier", "calls from inside its callback: " + inside.call, "", true});
        if (inside.call == "register") {
            (void)helper.Notifier_HelperInit(&guid, "", "", &callbacks_, nullptr, 0, this);
        } else if (inside.call == "leave") {
            (void)helper.Notifier_HelperClientDeinit(&guid);
        } else if (inside.call == "post") {
            (void)helper.Notifier_HelperSendState(&record);
        } else if (inside.call == "command") {
            const ZepCommand command{.Size = sizeof(ZepCommand),
                                     .CommandArgument = 0,
                                     .SourceGuid = guid,
                                     .TargetGuid = guid,
                                     .CommandId = 1};
            (void)helper.Notifier_HelperSendCommand(&command);
        } else if (inside.call == "subscribe") {
            (void)helper.Notifier_HelperRegisterForStateNotification(&guid, &record, &OnState);
        } else {
            (void)helper.Notifier_HelperDeregisterForStateNotification(&guid, &record);
        }
    }
}

NTSTATUS Client::OnState(PVOID context, const ZepState* state, PULONG response)
{
    auto& self = *static_cast<Client*>(context);
    if (self.IsUnloaded("state callback")) {
        return STATUS_SUCCESS;
    }
    Peers& peers = self.peers_;
    const std::string from = peers.NameOf(state->InterfaceGUID);
    const CallbackScope scope(peers.timeline, self.model_.key, "state callback",
                              "state " + from + " " + std::to_string(state->State));
    ++peers.counts.delivered;
    peers.timeline.Add({EntryKind::kCallback, from, self.model_.key,
                        "is notified: " + from + " is in state " + peers.scenario.StateName(state->State) +
                            (peers.registering ? ", at once" : ""),
                        "", true});
    for (std::size_t index = 0; index < self.model_.answers.size(); ++index) {
        const AnswerRule& rule = self.model_.answers[index];
        if (rule.from != from || (rule.state && *rule.state != state->State) || self.spent_[index]) {
            continue;
        }
        if (!peers.MayAnswer()) {
            break;
        }
        self.spent_[index] = rule.once;
        ++peers.counts.answered;
        *response = rule.answer;
        peers.timeline.Cause(self.model_.key, "state " + self.model_.key + " " + std::to_string(rule.answer));
        peers.timeline.Add({EntryKind::kAnswer, "notifier", self.model_.key,
                            "answers: its own state is now " + peers.scenario.StateName(rule.answer), "", true});
        break;
    }
    self.CallFromInside("state");
    return STATUS_SUCCESS;
}

NTSTATUS Client::OnCommand(PVOID context, ULONG id, const ZepCommandInfo* info, PULONG state)
{
    auto& self = *static_cast<Client*>(context);
    if (self.IsUnloaded("command callback")) {
        return STATUS_SUCCESS;
    }
    Peers& peers = self.peers_;
    const std::string from = peers.NameOf(info->SourceGuid);
    const CallbackScope scope(peers.timeline, self.model_.key, "command callback",
                              "command " + from + " " + self.model_.key + " " + std::to_string(id));
    ++peers.counts.commands;
    peers.timeline.Add({EntryKind::kCallback, from, self.model_.key,
                        "gets command " + std::to_string(id) + " with argument " +
                            std::to_string(info->CommandArgument) + " (sender in state " +
                            peers.scenario.StateName(info->SourceState) + ")",
                        "", true});
    for (const CommandRule& rule : self.model_.commands) {
        if (rule.id == id && peers.MayAnswer()) {
            *state = rule.answer;
            peers.timeline.Cause(self.model_.key, "state " + self.model_.key + " " + std::to_string(rule.answer));
            ++peers.counts.answered;
            peers.timeline.Add({EntryKind::kAnswer, "notifier", self.model_.key,
                                "answers: its own state is now " + peers.scenario.StateName(rule.answer), "", true});
        }
    }
    self.CallFromInside("command");
    return STATUS_SUCCESS;
}

NTSTATUS Client::OnAppsState(PVOID context, ULONG, PULONG state)
{
    auto& self = *static_cast<Client*>(context);
    if (self.IsUnloaded("application-state callback")) {
        return STATUS_SUCCESS;
    }
    Peers& peers = self.peers_;
    const CallbackScope scope(peers.timeline, self.model_.key, "application-state callback", "");
    peers.timeline.Add(
        {EntryKind::kCallback, "notifier", self.model_.key, "is notified: the system is about to sleep", "", true});
    if (self.model_.appsState) {
        *state = *self.model_.appsState;
        peers.timeline.Cause(self.model_.key, "state " + self.model_.key + " " + std::to_string(*state));
        ++peers.counts.answered;
        peers.timeline.Add({EntryKind::kAnswer, "notifier", self.model_.key,
                            "answers: its own state is now " + peers.scenario.StateName(*state), "", true});
    }
    self.CallFromInside("appsState");
    return STATUS_SUCCESS;
}

Peers::Peers(const Scenario& scenarioOfRun, Timeline& timelineOfRun) : scenario(scenarioOfRun), timeline(timelineOfRun)
{
    for (const ClientModel& model : scenario.clients) {
        Client& client = clients_.emplace_back(*this, model);
        byKey_.emplace(model.key, &client);
        byGuid_.emplace(KeyOf(model.guid), &client);
    }
    crashDump_.ZepClientAdd = &OnClientAdd;
    crashDump_.ZepClientRemove = &OnClientRemove;
    crashDump_.ZepDumpStart = &OnDumpStart;
    crashDump_.ZepDumpAddDumpData = &OnDumpAddData;
    crashDump_.ZepDumpStop = &OnDumpStop;
    crashDump_.ZepDumpQueryParam = &OnDumpQuery;
    crashDump_.ZepDumpAddTriageData = &OnDumpTriage;
    g_peers = this;
}

Peers::~Peers()
{
    g_peers = nullptr;
}

Client& Peers::Find(const std::string& key)
{
    return *byKey_.at(key);  // the reader has checked every name
}

bool Peers::MayAnswer()
{
    constexpr unsigned kAnswersMaximum = 1000;
    if (++answersInStep_ == kAnswersMaximum + 1) {
        findings.push_back("clients answer each other without end: they stop after " + std::to_string(kAnswersMaximum) +
                           " answers");
    }
    return answersInStep_ <= kAnswersMaximum;
}

std::string Peers::NameOf(const GUID& guid) const
{
    const auto client = byGuid_.find(KeyOf(guid));
    return client == byGuid_.end() ? "?" : client->second->model().key;
}

}  // namespace play
