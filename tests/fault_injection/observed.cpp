#include "tests/fault_injection/observed.h"

#include "tests/kit/one_report.h"
#include "tests/kit/reports_seen.h"

#include <unordered_map>

namespace fault_injection {

using host::framework::ObjectType;

namespace {

constexpr unsigned kStranger = 9;  // never registers

using tests::TheFormats;
using tests::TheManifest;

host::checks::FaultForm HostForm(FaultKind form)
{
    switch (form) {
    case FaultKind::kNull:
        return host::checks::FaultForm::kNull;
    case FaultKind::kNullOutput:
        return host::checks::FaultForm::kNullOutput;
    case FaultKind::kInforms:
        return host::checks::FaultForm::kInforms;
    default:
        return host::checks::FaultForm::kStatus;
    }
}

struct CalledFunction {
    std::optional<FunctionKind> kind;
    bool showsDetail;
};

// By where the host keeps its name, which is looked up at each platform call.
const CalledFunction& FunctionOf(const char* name)
{
    static std::unordered_map<const char*, CalledFunction> known;
    const auto [found, isNew] = known.try_emplace(name);
    if (isNew) {
        const std::string_view text = name;
        found->second = {KindOf(text), text == "WdfObjectGetTypedContextWorker" || text == "WdfObjectCreate"};
    }
    return found->second;
}

// Whether function and words are those of one site alone; some functions say the same in two places.
bool NamesOneSite(const host::tracing::CapturedMessage& message, const host::tracing::DecodedMessage& decoded)
{
    static const auto counts = [] {
        std::map<std::pair<std::string, std::string>, unsigned> made;
        for (const auto& [key, format] : TheFormats().formats()) {
            ++made[{format.function, format.text}];
        }
        return made;
    }();
    const std::string set = host::tracing::GuidText(message.messageGuid);
    const auto& format = TheFormats().formats().at({set.substr(1, set.size() - 2), decoded.number});
    return counts.at({format.function, format.text}) == 1;
}

}  // namespace

ObservedRun::ObservedRun(const tests::Container& container, Options options)
    : options_(std::move(options)),
      harness_(container.image, {.traceRoutes = options_.routes, .recordsPaths = false, .keepsCode = tests::kKeepsCode},
               {.toState =
                    [](unsigned client, unsigned, ULONG state, ULONG response) {
                        const ULONG answer = StateAnswer(client, state);
                        return answer != 0 ? answer : response;
                    },
                .toCommand = [](unsigned, ULONG id, ULONG state) { return CommandAnswer(id, state); },
                .toAppsState = &AppsStateAnswer,
                .toAdd = &AddAnswer,
                .toRemove = &RemoveAnswer,
                .toDump = [this] { return dumpAnswer_; }})
{
    for (const unsigned client : {1u, 2u, 3u, 4u, 5u, kStranger}) {
        harness_.AddPeer(client);
    }
    machine().SetRegistryValue(tests::kService, "SubsystemNotificationTimeout", kTimeoutMs);
    machine().tracing().OpenEventSession({kProviderGuid, 0});
    machine().tracing().OpenMessageSession({kControlGuid, 5, 3});
}

void ObservedRun::RunUnwatched(const Operation& operation)
{
    if (operation.kind == Kind::kDeliver) {
        (void)machine().RunWorkItems();
    } else {
        (void)Do(operation);
    }
}

void ObservedRun::Watch(std::uint64_t calls, unsigned callsOfFunction)
{
    callNumber_ = calls;
    (void)machine().violations().Take();
    machine().tracing().SetListener(this);
    machine().environment().SetObserver([this](const host::ObservedCall& call) { OnCall(call); });
    if (options_.fault && options_.fault->function != "WdfGetDriver") {
        const Fault& fault = *options_.fault;
        machine().faults().Add({.function = fault.function,
                                .skip = fault.index - callsOfFunction,
                                .count = fault.persistent ? host::checks::Fault::kAll : 1,
                                .form = HostForm(fault.form),
                                .status = fault.Status()});
    }
    if (options_.hideAt != 0 && options_.hideAt <= callNumber_) {
        machine().faults().onHideDriver(true);
    }
}

ObservedRun::~ObservedRun()
{
    machine().tracing().SetListener(nullptr);
    machine().environment().SetObserver(nullptr);
}

unsigned ObservedRun::InjectedCount() const
{
    return const_cast<host::Machine&>(harness_.machine).faults().InjectedCount();
}

void ObservedRun::OnCall(const host::ObservedCall& call)
{
    ++callNumber_;
    if (options_.hideAt != 0) {
        if (callNumber_ == options_.hideAt) {
            machine().faults().onHideDriver(true);
        } else if (callNumber_ == options_.hideAt + 1 && !options_.fault->persistent) {
            machine().faults().onHideDriver(false);
        }
    }
    const auto& [kind, showsDetail] = FunctionOf(call.function);
    if (!kind) {
        step_.violations.push_back(std::string(call.function) + " is in no table");
    }
    if (kind == FunctionKind::kFallible) {
        std::string& line = step_.calls.emplace_back(call.function);
        if (showsDetail && *call.detail != '\0') {
            line.append(" ").append(call.detail);
        }
    }
    if (std::string_view(call.function) == "KeDelayExecutionThread") {
        harness_.called.push_back(tests::lines::Wait(kTimeoutMs));
    }
    if (options_.onCall) {
        options_.onCall(callNumber_, call, kind.value_or(FunctionKind::kCannotFail));
    }
}

void ObservedRun::OnEvent(const host::tracing::CapturedEvent& event)
{
    if (!readsReports_) {
        return;
    }
    const auto decoded = TheManifest().Decode(event);
    if (!decoded) {
        badRecords_.push_back("event " + std::to_string(event.descriptor.Id) + " does not decode");
        return;
    }
    if (pending_) {
        badRecords_.push_back("no trace message after \"" + pending_->message + "\"");
        pending_.reset();
    }
    if (options_.keepsRecords) {
        std::string record = "E" + std::to_string(decoded->id);
        for (const auto& field : decoded->fields) {
            record += tests::IsHandle(field) ? "" : " " + field.text;
        }
        records_.push_back(record);
    }
    constexpr std::uint8_t kError = 2;
    constexpr std::uint8_t kWarning = 3;
    if (decoded->level > kWarning) {
        return;
    }
    if (decoded->level == kError) {
        pending_ = decoded;
    }
    step_.reports.push_back(tests::LineOf(*decoded, [this](std::uint64_t handle) { return NameOf(handle); }));
}

void ObservedRun::OnMessage(const host::tracing::CapturedMessage& message)
{
    sites_.emplace(message.messageGuid.Data1, message.number);
    if (!readsReports_) {
        return;
    }
    const auto decoded = TheFormats().Decode(message);
    if (!decoded) {
        badRecords_.push_back("message " + std::to_string(message.number) + " does not decode");
        return;
    }
    if (options_.keepsRecords) {
        std::string record = "M" + std::to_string(message.number) + " " + decoded->function;
        for (const std::uint64_t number : tests::NumbersOf(message)) {
            record += number > UINT32_MAX ? "" : " " + std::to_string(number);  // handles are larger
        }
        records_.push_back(record);
    }
    if (pending_) {
        const std::string difference = tests::DifferenceOf(*pending_, message, *decoded);
        if (!difference.empty()) {
            badRecords_.push_back(difference);
        }
        if (!NamesOneSite(message, *decoded)) {
            std::string& line = step_.reports.back();
            line.insert(line.find(' '), "/" + std::to_string(message.number));
        }
        pending_.reset();
        return;
    }
    if (decoded->level == "TRACE_LEVEL_ERROR" && (step_.reports.empty() || !step_.reports.back().starts_with("22 "))) {
        step_.reports.push_back("- " + decoded->function + ": " + decoded->text);
    }
}

Step ObservedRun::Run(const Operation& operation, bool readsReports)
{
    readsReports_ = readsReports;
    step_ = {};
    harness_.called.clear();
    const std::size_t delays = machine().Delays().size();
    const std::optional<NTSTATUS> status = Do(operation);
    const auto allDelays = machine().Delays();
    if (allDelays.size() > delays && allDelays.back() != -10000LL * kTimeoutMs) {
        harness_.called.push_back("waited " + std::to_string(allDelays.back()));
    }
    step_.callbacks = std::move(harness_.called);
    step_.status = status ? Hex(static_cast<std::uint32_t>(*status)) : "";
    for (const auto& violation : machine().violations().Take()) {
        step_.violations.emplace_back(Name(violation.rule));
        step_.ends |= violation.rule == host::checks::Rule::kLockKept;
    }
    return std::move(step_);
}

std::optional<NTSTATUS> ObservedRun::Do(const Operation& operation)
{
    switch (operation.kind) {
    case Kind::kLoad: {
        const auto status = harness_.Do(operation);
        if (harness_.driver->IsLoaded()) {
            driverReferences_ = machine().inspect().Find(harness_.driver->Handle())->references;
        }
        return status;
    }
    case Kind::kRemove:
        step_.ends = harness_.driver->RemoveDevice().parked;
        return std::nullopt;
    case Kind::kDeliver:
        Deliver();
        return std::nullopt;
    case Kind::kRegister: {
        tests::Peer& peer = harness_.PeerOf(operation.client);
        peer.TakesCommands((operation.value & kCommands) != 0).WantsAppsState((operation.value & kApps) != 0);
        peer.entries.resize((operation.value & kEntries) != 0 ? kEntryCount : 0);
        return harness_.Do(operation);
    }
    default:
        dumpAnswer_ = static_cast<NTSTATUS>(operation.value);
        return harness_.Do(operation);
    }
}

void ObservedRun::Deliver()
{
    while (machine().QueuedWorkItems() != 0 && !step_.ends) {
        step_.ends |= !machine().RunOneWorkItem().parked.empty();
        for (const auto& object : machine().inspect().Objects(ObjectType::kWaitLock)) {
            step_.ends |= object.held;
        }
    }
}

void ObservedRun::NoteReportsSeen()
{
    tests::NoteReportsSeen(machine().tracing(), TheManifest());
}

}  // namespace fault_injection
