#include "tools/play/clients.h"

#include "tools/play/statuses.h"

#include <cstdio>
#include <cstring>

namespace play {
namespace {

Peers* g_peers = nullptr;  // the crash-dump callbacks carry no context of their own

constexpr const char* kCrashDump = "crash dump";

std::string Hex(std::uint64_t value)
{
    char text[24];
    std::snprintf(text, sizeof(text), "0x%llX", static_cast<unsigned long long>(value));
    return text;
}

NTSTATUS Answer(const char* callback, const std::string& what, const std::string& who = "notifier")
{
    const auto& answers = g_peers->scenario.crashDump.answers;
    const auto found = answers.find(callback);
    const NTSTATUS status = found == answers.end() ? STATUS_SUCCESS : found->second;
    g_peers->timeline.Add({EntryKind::kCallback, who, kCrashDump, what,
                           status == STATUS_SUCCESS ? "" : "answers " + StatusText(status), true});
    return status;
}

NTSTATUS NTAPI OnClientAdd(const ZEP_SUBSYSTEM_DESCRIPTOR* descriptor)
{
    ++g_peers->counts.announced;
    return Answer("add", "announces " + g_peers->NameOf(descriptor->InterfaceGUID) + ", \"" +
                             descriptor->SubsystemName + "\", " + std::to_string(descriptor->DataEntryCount) +
                             " data entries");
}

NTSTATUS NTAPI OnClientRemove(const ZEP_NOTIFIER_CLIENT_CONTEXT* client)
{
    GUID guid;
    std::memcpy(&guid, client, sizeof(guid));
    return Answer("remove", "withdraws " + g_peers->NameOf(guid));
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
    return Answer("start", DumpText(handle) + " starts (" + Hex(first) + ", " + Hex(second) + ")");
}

NTSTATUS NTAPI OnDumpAddData(PVOID handle, PVOID, ULONGLONG address, ULONG size, ULONG flags)
{
    ++g_peers->counts.dumpCalls;
    return Answer("addData", DumpText(handle) + ": " + std::to_string(size) + " bytes at " + Hex(address) + ", flags " +
                                 std::to_string(flags));
}

NTSTATUS NTAPI OnDumpStop(PVOID handle, ULONGLONG result)
{
    ++g_peers->counts.dumpCalls;
    return Answer("stop", DumpText(handle) + " stops (" + Hex(result) + ")");
}

NTSTATUS NTAPI OnDumpQuery(PVOID handle, ULONG parameter, ULONGLONG, ULONGLONG)
{
    ++g_peers->counts.dumpCalls;
    return Answer("query", DumpText(handle) + ": parameter " + std::to_string(parameter) + " is asked for");
}

NTSTATUS NTAPI OnDumpTriage(PVOID handle, ULONGLONG address, ULONG size)
{
    ++g_peers->counts.dumpCalls;
    return Answer("triage", DumpText(handle) + ": triage data, " + std::to_string(size) + " bytes at " + Hex(address));
}

}  // namespace

Client::Client(Peers& peers, const ClientModel& model)
    : peers_(peers), model_(model), entries_(model.entryCount), spent_(model.answers.size()),
      dumpRecord_(model.guid.Data1)
{
    callbacks_.CommandCallback = model.takesCommands ? &OnCommand : nullptr;
    callbacks_.AppsStateNotificationCallback = model.hearsAppsState ? &OnAppsState : nullptr;
}

NTSTATUS Client::OnState(PVOID context, const ZepState* state, PULONG response)
{
    auto& self = *static_cast<Client*>(context);
    Peers& peers = self.peers_;
    const std::string from = peers.NameOf(state->InterfaceGUID);
    ++peers.counts.delivered;
    peers.timeline.Add({EntryKind::kCallback, from, self.model_.key,
                        "is told that " + from + " is in state " + peers.scenario.StateName(state->State) +
                            (peers.registering ? ", at once" : ""),
                        "", true});
    for (std::size_t index = 0; index < self.model_.answers.size(); ++index) {
        const AnswerRule& rule = self.model_.answers[index];
        if (rule.from != from || (rule.state && *rule.state != state->State) || self.spent_[index]) {
            continue;
        }
        self.spent_[index] = rule.once;
        ++peers.counts.answered;
        *response = rule.answer;
        peers.timeline.Add({EntryKind::kAnswer, "notifier", self.model_.key,
                            "answers: its own state is now " + peers.scenario.StateName(rule.answer), "", true});
        break;
    }
    return STATUS_SUCCESS;
}

NTSTATUS Client::OnCommand(PVOID context, ULONG id, const ZepCommandInfo* info, PULONG state)
{
    auto& self = *static_cast<Client*>(context);
    Peers& peers = self.peers_;
    const std::string from = peers.NameOf(info->SourceGuid);
    ++peers.counts.commands;
    peers.timeline.Add({EntryKind::kCallback, from, self.model_.key,
                        "gets command " + std::to_string(id) + " with argument " +
                            std::to_string(info->CommandArgument) + " (sender in state " +
                            peers.scenario.StateName(info->SourceState) + ")",
                        "", true});
    for (const CommandRule& rule : self.model_.commands) {
        if (rule.id == id) {
            *state = rule.answer;
            ++peers.counts.answered;
            peers.timeline.Add({EntryKind::kAnswer, "notifier", self.model_.key,
                                "answers: its own state is now " + peers.scenario.StateName(rule.answer), "", true});
        }
    }
    return STATUS_SUCCESS;
}

NTSTATUS Client::OnAppsState(PVOID context, ULONG, PULONG state)
{
    auto& self = *static_cast<Client*>(context);
    Peers& peers = self.peers_;
    peers.timeline.Add(
        {EntryKind::kCallback, "notifier", self.model_.key, "is told that the system is about to sleep", "", true});
    if (self.model_.appsState) {
        *state = *self.model_.appsState;
        ++peers.counts.answered;
        peers.timeline.Add({EntryKind::kAnswer, "notifier", self.model_.key,
                            "answers: its own state is now " + peers.scenario.StateName(*state), "", true});
    }
    return STATUS_SUCCESS;
}

Peers::Peers(const Scenario& scenarioOfRun, Timeline& timelineOfRun) : scenario(scenarioOfRun), timeline(timelineOfRun)
{
    for (const ClientModel& model : scenario.clients) {
        clients_.emplace_back(*this, model);
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
    for (Client& client : clients_) {
        if (client.model().key == key) {
            return client;
        }
    }
    throw ScenarioError("no client " + key);  // the reader has checked every name
}

std::string Peers::NameOf(const GUID& guid) const
{
    for (const ClientModel& model : scenario.clients) {
        if (std::memcmp(&model.guid, &guid, sizeof(guid)) == 0) {
            return model.key;
        }
    }
    return "?";
}

}  // namespace play
