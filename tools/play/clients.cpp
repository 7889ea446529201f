#include "tools/play/clients.h"

#include "host/tracing/decode.h"

#include <bit>

namespace play {
namespace {

std::array<std::uint64_t, 2> KeyOf(const GUID& guid)
{
    return std::bit_cast<std::array<std::uint64_t, 2>>(guid);
}

}  // namespace

Client::Client(Peers& peers, const ClientModel& model)
    : peers_(peers), model_(model), entries_(model.entryCount), spent_(model.answers.size())
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
    const GUID& guid = model_.guid;
    const peers::Record record{
        .state = {.Size = sizeof(ZepState), .InterfaceGUID = guid, .State = 1, .Reserved = 0},
        .command = {
            .Size = sizeof(ZepCommand), .CommandArgument = 0, .SourceGuid = guid, .TargetGuid = guid, .CommandId = 1}};
    for (const InsideCall& inside : model_.inside) {
        if (inside.callback != callback) {
            continue;
        }
        peers_.timeline.Add({EntryKind::kCall, model_.key, "notifier",
                             std::string("calls from inside its callback: ") + Name(inside.call), "", true});
        (void)peers::CallAsClient(*peers_.helper, inside.call, caller(), record);
    }
}

// What the Notifier gives in is its word for no answer: 0 on delivery, else the client's present state.
void Client::Answer(std::uint32_t answer, ULONG& state)
{
    if (answer == state) {
        peers_.timeline.Add({EntryKind::kAnswer, kNotifier, model_.key,
                             answer == 0
                                 ? "does not answer: it says 0, which changes nothing"
                                 : "does not answer: it is already " + StateName(peers_.scenario, &model_, answer),
                             "", true});
        return;
    }
    state = answer;
    ++peers_.counts.answered;
    peers_.timeline.Cause(model_.key, "state " + model_.key + " " + std::to_string(answer));
    peers_.timeline.Add({EntryKind::kAnswer, kNotifier, model_.key,
                         "answers: its own state is now " + StateName(peers_.scenario, &model_, answer), "", true});
}

NTSTATUS Client::OnState(PVOID context, const ZepState* state, PULONG response)
{
    auto& self = *static_cast<Client*>(context);
    if (self.IsUnloaded("state callback")) {
        return STATUS_SUCCESS;
    }
    Peers& peers = self.peers_;
    const ClientModel* watched = peers.ModelOf(state->InterfaceGUID);
    const std::string from = peers.NameOf(state->InterfaceGUID);
    const CallbackScope scope(peers.timeline, self.model_.key, "state callback",
                              "state " + from + " " + std::to_string(state->State));
    ++peers.counts.delivered;
    peers.timeline.Add({EntryKind::kCallback, from, self.model_.key,
                        "is notified: " + from + " is in state " + StateName(peers.scenario, watched, state->State) +
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
        self.Answer(rule.answer, *response);
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
                            StateName(peers.scenario, peers.ModelOf(info->SourceGuid), info->SourceState) + ")",
                        "", true});
    for (const CommandRule& rule : self.model_.commands) {
        if (rule.id == id && peers.MayAnswer()) {
            self.Answer(rule.answer, *state);
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
        self.Answer(*self.model_.appsState, *state);
    }
    self.CallFromInside("appsState");
    return STATUS_SUCCESS;
}

Peers::Peers(const Scenario& scenarioOfRun, Timeline& timelineOfRun)
    : scenario(scenarioOfRun), timeline(timelineOfRun), crashDump(*this)
{
    for (const ClientModel& model : scenario.clients) {
        byKey_.emplace(model.key, &model);
        if (model.hasGuid) {
            byGuid_.emplace(KeyOf(model.guid), &model);
        }
        if (!model.driver) {
            scripted_.emplace(model.key, &clients_.emplace_back(*this, model));
        }
    }
}

Client& Peers::Find(const std::string& key)
{
    return *scripted_.at(key);  // the reader has checked every name
}

const ClientModel& Peers::ModelOf(const std::string& key) const
{
    return *byKey_.at(key);
}

const ClientModel* Peers::ModelOf(const GUID& guid) const
{
    const auto client = byGuid_.find(KeyOf(guid));
    return client == byGuid_.end() ? nullptr : client->second;
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
    const ClientModel* client = ModelOf(guid);
    return client == nullptr ? host::tracing::GuidText(guid) : client->key;
}

}  // namespace play
