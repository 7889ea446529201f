#include "tools/play/reading/step_reader.h"

#include "tools/play/system_state.h"

namespace play {
namespace {

using Kind = JsonValue::Kind;

constexpr std::uint32_t kCapacityMaximum = 100'000;  // descriptors take memory

// A kind of step, by its name in "do", with the fields that belong to it.
struct ActionRow {
    const char* name;
    Action action;
    std::vector<std::string> required;
    std::vector<std::string> optional;
};

const std::vector<ActionRow>& Actions()
{
    static const std::vector<ActionRow> kRows = {
        {"note", Action::kNote, {"text"}, {}},
        {"register", Action::kRegister, {"client"}, {"expect", "null"}},
        {"subscribe", Action::kSubscribe, {"client", "to", "state"}, {"expect", "null"}},
        {"unsubscribe", Action::kUnsubscribe, {"client", "to", "state"}, {"expect", "null"}},
        {"post", Action::kPost, {"client", "state"}, {"expect", "null"}},
        {"leave", Action::kLeave, {"client"}, {"expect", "null"}},
        {"deliver", Action::kDeliver, {}, {"runs"}},
        {"command", Action::kCommand, {"client", "to", "id"}, {"argument", "expect", "null"}},
        {"attach", Action::kAttach, {}, {"expect", "null"}},
        {"detach", Action::kDetach, {}, {"expect"}},
        {"count", Action::kCount, {}, {"expect", "null"}},
        {"describe", Action::kDescribe, {}, {"capacity", "expect", "null"}},
        {"startDump", Action::kStartDump, {"client"}, {"expect", "null"}},
        {"addDumpData", Action::kAddDumpData, {"client"}, {"expect", "null"}},
        {"queryDump", Action::kQueryDump, {"client"}, {"expect", "null"}},
        {"addTriageData", Action::kAddTriageData, {"client"}, {"expect", "null"}},
        {"stopDump", Action::kStopDump, {"client"}, {"expect", "null"}},
        {"open", Action::kOpen, {}, {"expect"}},
        {"control", Action::kControl, {}, {"id", "expect"}},
        {"close", Action::kClose, {}, {}},
        {"timeout", Action::kTimeout, {"argument"}, {}},
        {"addDevice", Action::kAddDevice, {}, {"expect"}},
        {"sleep", Action::kSleep, {}, {}},
        {"wake", Action::kWake, {}, {}},
        {"askToStop", Action::kRefuseStop, {}, {"expect"}},
        {"askToRemove", Action::kRefuseRemove, {}, {"expect"}},
        {"surpriseRemoval", Action::kSurpriseRemoval, {}, {}},
        {"remove", Action::kRemove, {}, {}},
        {"unload", Action::kUnload, {}, {"client"}},
    };
    return kRows;
}

// What may be passed as NULL.
std::vector<std::string> NullArguments(Action action)
{
    switch (action) {
    case Action::kRegister:
        return {"guid", "callbacks"};
    case Action::kSubscribe:
        return {"guid", "record", "callback"};
    case Action::kUnsubscribe:
        return {"guid", "record"};
    case Action::kDescribe:
        return {"descriptors", "count"};
    case Action::kCount:
        return {"count"};
    case Action::kLeave:
        return {"guid"};
    default:
        return {"record"};
    }
}

// No step needs what is not there by then.
void CheckSystemState(ValueReader& reader, const Scenario& scenario)
{
    SystemState state;
    if (scenario.bootsDevice) {
        state.device = SystemState::Device::kStarted;
        state.interfacesQueried = true;
    }
    for (std::size_t index = 0; index < scenario.steps.size(); ++index) {
        const Step& step = scenario.steps[index];
        if (const char* obstacle = Obstacle(step, state)) {
            reader.Mistake(step.place, "steps[" + std::to_string(index) + "]", obstacle);
            return;  // the others may follow from it
        }
        Follow(step, state);
    }
}

void ReadShows(ValueReader& reader, const JsonValue& value, const std::string& field, Step& step)
{
    const JsonValue* shows = FindMember(value, "shows");
    if (shows == nullptr || !reader.IsA(*shows, Kind::kArray, field + ".shows")) {
        return;
    }
    for (std::size_t index = 0; index < shows->items.size(); ++index) {
        const JsonValue& text = shows->items[index];
        if (reader.IsA(text, Kind::kText, field + ".shows[" + std::to_string(index) + "]")) {
            step.shows.push_back(text.text);
        }
    }
}

// What a step does wrong on purpose, and what must come of it.
void ReadMisuse(ValueReader& reader, const JsonValue& value, const std::string& field, Step& step)
{
    reader.ReadOneOf(value, "null", field, NullArguments(step.action), step.null);
    std::string level;
    reader.ReadOneOf(value, "level", field, {"dispatch"}, level);
    step.raised = !level.empty();
    if (FindMember(value, "finding") != nullptr) {
        reader.ReadText(value, "finding", field + ".finding", step.finding.emplace());
    }
    ReadShows(reader, value, field, step);
    const JsonValue* fail = FindMember(value, "fail");
    if (fail == nullptr || !reader.IsA(*fail, Kind::kObject, field + ".fail")) {
        return;
    }
    reader.CheckFields(*fail, field + ".fail", {"call"}, {"detail", "status"});
    reader.ReadText(*fail, "call", field + ".fail.call", step.fail.emplace().call);
    reader.ReadText(*fail, "detail", field + ".fail.detail", step.fail->detail);
    if (const JsonValue* status = FindMember(*fail, "status")) {
        (void)reader.ReadStatus(*status, field + ".fail.status", step.fail->status);
    }
}

void ReadStepOf(ValueReader& reader, const ActionRow& row, const JsonValue& value, const std::string& field,
                Scenario& scenario)
{
    std::vector<std::string> required = row.required;
    required.emplace_back("do");
    std::vector<std::string> optional = row.optional;
    if (row.action != Action::kNote) {
        optional.insert(optional.end(), {"fail", "level", "shows", "finding"});
    }
    reader.CheckFields(value, field, required, optional);
    Step step;
    step.action = row.action;
    step.place = value.place;
    reader.ReadText(value, "text", field + ".text", step.text);
    reader.ReadClientName(value, "client", field, step.client);
    reader.ReadClientName(value, "to", field, step.to);
    if (const JsonValue* state = FindMember(value, "state")) {
        const bool anyAllowed = row.action == Action::kSubscribe || row.action == Action::kUnsubscribe;
        reader.ReadState(*state, field + ".state", anyAllowed, step.state);
    }
    reader.ReadNumber(value, "id", field + ".id", step.id);
    reader.ReadNumber(value, "argument", field + ".argument", step.argument);
    reader.ReadNumber(value, "runs", field + ".runs", step.runs);
    step.hasCapacity = FindMember(value, "capacity") != nullptr;
    reader.ReadNumber(value, "capacity", field + ".capacity", step.capacity, kCapacityMaximum);
    if (const JsonValue* expect = FindMember(value, "expect")) {
        (void)reader.ReadStatus(*expect, field + ".expect", step.expect);
    }
    ReadMisuse(reader, value, field, step);
    scenario.steps.push_back(step);
}

void ReadStep(ValueReader& reader, const JsonValue& value, const std::string& field, Scenario& scenario)
{
    const JsonValue* action = FindMember(value, "do");
    if (action == nullptr) {
        reader.Mistake(value.place, field, "field \"do\" is missing");
        return;
    }
    if (!reader.IsA(*action, Kind::kText, field + ".do")) {
        return;
    }
    std::vector<std::string> names;
    for (const ActionRow& row : Actions()) {
        names.emplace_back(row.name);
        if (row.name == action->text) {
            ReadStepOf(reader, row, value, field, scenario);
            return;
        }
    }
    reader.Mistake(action->place, field + ".do",
                   "unknown step \"" + action->text + "\"" + Nearest(action->text, names));
}

}  // namespace

void ReadSteps(ValueReader& reader, const JsonValue& root, Scenario& scenario)
{
    const JsonValue* steps = FindMember(root, "steps");
    if (steps == nullptr || !reader.IsA(*steps, Kind::kArray, "steps")) {
        return;
    }
    for (std::size_t index = 0; index < steps->items.size(); ++index) {
        const std::string field = "steps[" + std::to_string(index) + "]";
        if (reader.IsA(steps->items[index], Kind::kObject, field)) {
            ReadStep(reader, steps->items[index], field, scenario);
        }
    }
    // Steps that could not be read are missing.
    if (reader.mistakes().empty()) {
        CheckSystemState(reader, scenario);
    }
}

}  // namespace play
