#include "tools/play/reading/step_reader.h"

#include "host/machine.h"
#include "tools/play/system_state.h"

#include <algorithm>

namespace play {
namespace {

constexpr std::uint32_t kCapacityMaximum = 100'000;  // descriptors take memory

// Which clients a step is for.
enum class For { kNobody, kScripted, kReal, kBoth };

// A kind of step, with the fields that belong to it.
struct StepRow {
    Kind kind;
    For clients;
    std::vector<std::string> required;
    std::vector<std::string> optional;
};

const std::vector<StepRow>& Rows()
{
    static const std::vector<StepRow> kRows = {
        {Kind::kNote, For::kNobody, {"text"}, {}},
        {Kind::kRegister, For::kScripted, {"client"}, {"expect", "null"}},
        {Kind::kSubscribe, For::kScripted, {"client", "to", "state"}, {"expect", "null"}},
        {Kind::kUnsubscribe, For::kScripted, {"client", "to", "state"}, {"expect", "null"}},
        {Kind::kPost, For::kScripted, {"client", "state"}, {"expect", "null"}},
        {Kind::kDeregister, For::kScripted, {"client"}, {"expect", "null"}},
        {Kind::kDeliver, For::kNobody, {}, {"runs"}},
        {Kind::kCommand, For::kScripted, {"client", "to", "id"}, {"argument", "expect", "null"}},
        {Kind::kAttach, For::kNobody, {}, {"expect", "null"}},
        {Kind::kDetach, For::kNobody, {}, {"expect"}},
        {Kind::kCount, For::kNobody, {}, {"expect", "null"}},
        {Kind::kDescribe, For::kNobody, {}, {"capacity", "expect", "null"}},
        {Kind::kStartDump, For::kScripted, {"client"}, {"expect", "null"}},
        {Kind::kAddDumpData, For::kScripted, {"client"}, {"expect", "null"}},
        {Kind::kQueryDump, For::kScripted, {"client"}, {"expect", "null"}},
        {Kind::kAddTriageData, For::kScripted, {"client"}, {"expect", "null"}},
        {Kind::kStopDump, For::kScripted, {"client"}, {"expect", "null"}},
        {Kind::kOpen, For::kNobody, {}, {"expect"}},
        {Kind::kControl, For::kNobody, {}, {"id", "expect"}},
        {Kind::kClose, For::kNobody, {}, {}},
        {Kind::kTimeout, For::kNobody, {"argument"}, {}},
        {Kind::kWait, For::kNobody, {"argument"}, {}},
        {Kind::kAddDevice, For::kNobody, {}, {"expect"}},
        {Kind::kSleep, For::kNobody, {}, {}},
        {Kind::kWake, For::kNobody, {}, {}},
        {Kind::kAskToStop, For::kNobody, {}, {"expect"}},
        {Kind::kAskToRemove, For::kNobody, {}, {"expect"}},
        {Kind::kSurpriseRemoval, For::kNobody, {}, {}},
        {Kind::kRemove, For::kNobody, {}, {}},
        {Kind::kUnload, For::kBoth, {}, {"client"}},
        {Kind::kLoad, For::kReal, {}, {"client", "expect"}},
        {Kind::kStop, For::kReal, {"client"}, {"expect"}},
        {Kind::kPull, For::kReal, {"client"}, {}},
        {Kind::kExpect, For::kBoth, {"client", "state"}, {}},
    };
    return kRows;
}

// No step needs what is not there by then.
void CheckSystemState(ValueReader& reader, const Scenario& scenario)
{
    SystemState state(scenario);
    for (std::size_t index = 0; index < scenario.steps.size(); ++index) {
        const Step& step = scenario.steps[index];
        if (const char* obstacle = Obstacle(step, state)) {
            reader.Mistake(step.line, "steps[" + std::to_string(index) + "]", obstacle);
            return;  // the others may follow from it
        }
        Follow(step, state);
    }
}

// A scripted client does what its steps say, a real driver what it was written to do.
void CheckRole(ValueReader& reader, const StepRow& row, const JsonValue& value, const std::string& field,
               const Step& step)
{
    const ClientModel* client = reader.FindClient(step.client);
    if (client == nullptr || row.clients == For::kBoth || client->driver.has_value() == (row.clients == For::kReal)) {
        return;
    }
    const std::string name = "\"" + step.client + "\" ";
    reader.Mistake(FindMember(value, "client")->line, field + ".client",
                   client->driver ? name + "is a real driver and calls by itself; for it there are \"load\", \"stop\", "
                                           "\"pull\", \"unload\" and \"expect\""
                                  : name + "is scripted; \"" + Name(row.kind) + "\" is for a client with an \"image\"");
}

void ReadShows(ValueReader& reader, const JsonValue& value, const std::string& field, Step& step)
{
    const JsonValue* shows = FindMember(value, "shows");
    if (shows == nullptr || !reader.IsA(*shows, JsonValue::Kind::kArray, field + ".shows")) {
        return;
    }
    for (std::size_t index = 0; index < shows->items.size(); ++index) {
        const JsonValue& text = shows->items[index];
        if (reader.IsA(text, JsonValue::Kind::kText, field + ".shows[" + std::to_string(index) + "]")) {
            step.shows.push_back(text.text);
        }
    }
}

// What a step does wrong on purpose, and what must come of it.
void ReadMisuse(ValueReader& reader, const JsonValue& value, const std::string& field, Step& step)
{
    if (const std::vector<std::string> nulls = peers::NullArguments(step.kind); !nulls.empty()) {
        reader.ReadOneOf(value, "null", field, nulls, step.null);
    }
    std::string level;
    reader.ReadOneOf(value, "level", field, {"dispatch"}, level);
    step.raised = !level.empty();
    if (FindMember(value, "finding") != nullptr) {
        reader.ReadText(value, "finding", field + ".finding", step.finding.emplace());
    }
    ReadShows(reader, value, field, step);
    const JsonValue* fail = FindMember(value, "fail");
    if (fail == nullptr || !reader.IsA(*fail, JsonValue::Kind::kObject, field + ".fail")) {
        return;
    }
    reader.CheckFields(*fail, field + ".fail", {"call"}, {"detail", "driver", "status"});
    reader.ReadText(*fail, "call", field + ".fail.call", step.fail.emplace().call);
    // A misspelt call would fail nothing.
    static const std::vector<std::string> kFunctions = host::Machine::PlatformFunctions();
    const JsonValue* call = FindMember(*fail, "call");
    if (call != nullptr && call->kind == JsonValue::Kind::kText &&
        std::ranges::find(kFunctions, call->text) == kFunctions.end()) {
        reader.Mistake(call->line, field + ".fail.call",
                       "the host has no platform function \"" + call->text + "\"" + Nearest(call->text, kFunctions));
    }
    reader.ReadText(*fail, "detail", field + ".fail.detail", step.fail->detail);
    reader.ReadOneOf(*fail, "driver", field + ".fail", reader.DriverNames(), step.fail->driver);
    if (const JsonValue* status = FindMember(*fail, "status")) {
        (void)reader.ReadStatus(*status, field + ".fail.status", step.fail->status);
    }
}

void ReadStepOf(ValueReader& reader, const StepRow& row, const JsonValue& value, const std::string& field,
                Scenario& scenario)
{
    std::vector<std::string> required = row.required;
    required.emplace_back("do");
    std::vector<std::string> optional = row.optional;
    if (row.kind != Kind::kNote) {
        optional.insert(optional.end(), {"fail", "level", "shows", "finding"});
    }
    reader.CheckFields(value, field, required, optional);
    Step step;
    step.kind = row.kind;
    step.line = value.line;
    reader.ReadText(value, "text", field + ".text", step.text);
    reader.ReadClientName(value, "client", field, row.kind == Kind::kExpect, step.client);
    reader.ReadClientName(value, "to", field, true, step.to);
    CheckRole(reader, row, value, field, step);
    if (const JsonValue* state = FindMember(value, "state")) {
        const bool isFilter = row.kind == Kind::kSubscribe || row.kind == Kind::kUnsubscribe;
        reader.ReadState(*state, field + ".state", isFilter ? step.to : step.client,
                         isFilter                    ? "any"
                         : row.kind == Kind::kExpect ? "unregistered"
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
        reader.Mistake(value.line, field, "field \"do\" is missing");
        return;
    }
    if (!reader.IsA(*action, JsonValue::Kind::kText, field + ".do")) {
        return;
    }
    std::vector<std::string> names;
    for (const StepRow& row : Rows()) {
        names.emplace_back(Name(row.kind));
        if (names.back() == action->text) {
            ReadStepOf(reader, row, value, field, scenario);
            return;
        }
    }
    reader.Mistake(action->line, field + ".do", "unknown step \"" + action->text + "\"" + Nearest(action->text, names));
}

}  // namespace

void ReadSteps(ValueReader& reader, const JsonValue& root, Scenario& scenario)
{
    const JsonValue* steps = FindMember(root, "steps");
    if (steps == nullptr || !reader.IsA(*steps, JsonValue::Kind::kArray, "steps")) {
        return;
    }
    for (std::size_t index = 0; index < steps->items.size(); ++index) {
        const std::string field = "steps[" + std::to_string(index) + "]";
        if (reader.IsA(steps->items[index], JsonValue::Kind::kObject, field)) {
            ReadStep(reader, steps->items[index], field, scenario);
        }
    }
    // Steps that could not be read are missing.
    if (reader.mistakes().empty()) {
        CheckSystemState(reader, scenario);
    }
}

}  // namespace play
