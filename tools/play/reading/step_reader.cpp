#include "tools/play/reading/step_reader.h"

namespace play {
namespace {

using Kind = JsonValue::Kind;

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

// Most steps need a table of the driver's, which only a device gives out.
void CheckDevice(ValueReader& reader, const Scenario& scenario)
{
    for (const Step& step : scenario.steps) {
        switch (step.action) {
        case Action::kAddDevice:
            return;
        case Action::kNote:
        case Action::kTimeout:
        case Action::kUnload:
            break;
        default:
            reader.Mistake(step.place, "steps", "with \"device\": false a step \"addDevice\" comes before this one");
            return;
        }
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

// What a step does wrong on purpose, and what shall come of it.
void ReadMischief(ValueReader& reader, const JsonValue& value, const std::string& field, Step& step)
{
    reader.ReadOneOf(value, "null", field, NullArguments(step.action), step.null);
    std::string level;
    reader.ReadOneOf(value, "level", field, {"dispatch"}, level);
    step.raised = !level.empty();
    if (FindMember(value, "trouble") != nullptr) {
        reader.ReadText(value, "trouble", field + ".trouble", step.trouble.emplace());
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
        optional.insert(optional.end(), {"fail", "level", "shows", "trouble"});
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
    reader.ReadNumber(value, "capacity", field + ".capacity", step.capacity);
    if (const JsonValue* expect = FindMember(value, "expect")) {
        (void)reader.ReadStatus(*expect, field + ".expect", step.expect);
    }
    ReadMischief(reader, value, field, step);
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
    if (!scenario.bootsDevice) {
        CheckDevice(reader, scenario);
    }
}

}  // namespace play
