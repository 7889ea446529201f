#include "tools/play/reading/step_reader.h"

#include "tools/play/system_state.h"

namespace play {
namespace {

using Kind = JsonValue::Kind;

constexpr std::uint32_t kCapacityMaximum = 100'000;  // descriptors take memory

// Which clients a step is for.
enum class For { kNobody, kScripted, kReal, kBoth };

// A kind of step, by its name in "do", with the fields that belong to it.
struct ActionRow {
    const char* name;
    Action action;
    For clients;
    std::vector<std::string> required;
    std::vector<std::string> optional;
};

const std::vector<ActionRow>& Actions()
{
    static const std::vector<ActionRow> kRows = {
        {"note", Action::kNote, For::kNobody, {"text"}, {}},
        {"register", Action::kRegister, For::kScripted, {"client"}, {"expect", "null"}},
        {"subscribe", Action::kSubscribe, For::kScripted, {"client", "to", "state"}, {"expect", "null"}},
        {"unsubscribe", Action::kUnsubscribe, For::kScripted, {"client", "to", "state"}, {"expect", "null"}},
        {"post", Action::kPost, For::kScripted, {"client", "state"}, {"expect", "null"}},
        {"deregister", Action::kDeregister, For::kScripted, {"client"}, {"expect", "null"}},
        {"deliver", Action::kDeliver, For::kNobody, {}, {"runs"}},
        {"command", Action::kCommand, For::kScripted, {"client", "to", "id"}, {"argument", "expect", "null"}},
        {"attach", Action::kAttach, For::kNobody, {}, {"expect", "null"}},
        {"detach", Action::kDetach, For::kNobody, {}, {"expect"}},
        {"count", Action::kCount, For::kNobody, {}, {"expect", "null"}},
        {"describe", Action::kDescribe, For::kNobody, {}, {"capacity", "expect", "null"}},
        {"startDump", Action::kStartDump, For::kScripted, {"client"}, {"expect", "null"}},
        {"addDumpData", Action::kAddDumpData, For::kScripted, {"client"}, {"expect", "null"}},
        {"queryDump", Action::kQueryDump, For::kScripted, {"client"}, {"expect", "null"}},
        {"addTriageData", Action::kAddTriageData, For::kScripted, {"client"}, {"expect", "null"}},
        {"stopDump", Action::kStopDump, For::kScripted, {"client"}, {"expect", "null"}},
        {"open", Action::kOpen, For::kNobody, {}, {"expect"}},
        {"control", Action::kControl, For::kNobody, {}, {"id", "expect"}},
        {"close", Action::kClose, For::kNobody, {}, {}},
        {"timeout", Action::kTimeout, For::kNobody, {"argument"}, {}},
        {"wait", Action::kWait, For::kNobody, {"argument"}, {}},
        {"addDevice", Action::kAddDevice, For::kNobody, {}, {"expect"}},
        {"sleep", Action::kSleep, For::kNobody, {}, {}},
        {"wake", Action::kWake, For::kNobody, {}, {}},
        {"askToStop", Action::kRefuseStop, For::kNobody, {}, {"expect"}},
        {"askToRemove", Action::kRefuseRemove, For::kNobody, {}, {"expect"}},
        {"surpriseRemoval", Action::kSurpriseRemoval, For::kNobody, {}, {}},
        {"remove", Action::kRemove, For::kNobody, {}, {}},
        {"unload", Action::kUnload, For::kBoth, {}, {"client"}},
        {"load", Action::kLoad, For::kReal, {}, {"client", "expect"}},
        {"stop", Action::kStop, For::kReal, {"client"}, {"expect"}},
        {"pull", Action::kPull, For::kReal, {"client"}, {}},
        {"expect", Action::kExpect, For::kBoth, {"client", "state"}, {}},
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
    case Action::kDeregister:
        return {"guid"};
    default:
        return {"record"};
    }
}

// No step needs what is not there by then.
void CheckSystemState(ValueReader& reader, const Scenario& scenario)
{
    SystemState state(scenario);
    for (std::size_t index = 0; index < scenario.steps.size(); ++index) {
        const Step& step = scenario.steps[index];
        if (const char* obstacle = Obstacle(step, state)) {
            reader.Mistake(step.place, "steps[" + std::to_string(index) + "]", obstacle);
            return;  // the others may follow from it
        }
        Follow(step, state);
    }
}

// A scripted client does what its steps say, a real driver what it was written to do.
void CheckRole(ValueReader& reader, const ActionRow& row, const JsonValue& value, const std::string& field,
               const Step& step)
{
    const ClientModel* client = reader.FindClient(step.client);
    if (client == nullptr || row.clients == For::kBoth || client->driver.has_value() == (row.clients == For::kReal)) {
        return;
    }
    const std::string name = "\"" + step.client + "\" ";
    reader.Mistake(FindMember(value, "client")->place, field + ".client",
                   client->driver ? name + "is a real driver and calls by itself; for it there are \"load\", \"stop\", "
                                           "\"pull\", \"unload\" and \"expect\""
                                  : name + "is scripted; \"" + row.name + "\" is for a client with an \"image\"");
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
    reader.CheckFields(*fail, field + ".fail", {"call"}, {"detail", "driver", "status"});
    reader.ReadText(*fail, "call", field + ".fail.call", step.fail.emplace().call);
    if (const JsonValue* call = FindMember(*fail, "call")) {
        step.fail->place = call->place;
    }
    reader.ReadText(*fail, "detail", field + ".fail.detail", step.fail->detail);
    reader.ReadOneOf(*fail, "driver", field + ".fail", reader.DriverNames(), step.fail->driver);
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
    reader.ReadClientName(value, "client", field, row.action == Action::kExpect, step.client);
    reader.ReadClientName(value, "to", field, true, step.to);
    CheckRole(reader, row, value, field, step);
    if (const JsonValue* state = FindMember(value, "state")) {
        const bool isFilter = row.action == Action::kSubscribe || row.action == Action::kUnsubscribe;
        reader.ReadState(*state, field + ".state", isFilter ? step.to : step.client,
                         isFilter                        ? "any"
                         : row.action == Action::kExpect ? "unregistered"
                                                         : "",
                         step.state);
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
