#include <initguid.h>  // before all: this file holds the interfaces' identifiers

#include "tools/play/run.h"

#include "tools/peers/client_context.h"
#include "tools/play/images.h"
#include "tools/play/statuses.h"

#include <algorithm>
#include <cstring>
#include <span>
#include <sstream>
#include <utility>

namespace play {
namespace {

constexpr std::uint32_t kRealWaitMaximumMs = 60'000;  // nobody watches a longer one

host::MachineOptions MachineOptionsFor(const Scenario& scenario, const PlayOptions& played)
{
    host::MachineOptions options;
    options.allowMissing = played.allowMissing;
    options.realTime = played.realTime && std::ranges::all_of(scenario.steps, [](const Step& step) {
                           return step.kind != Kind::kTimeout || step.argument <= kRealWaitMaximumMs;
                       });
    return options;
}

void SetParameters(host::Machine& machine, const ClientModel& client)
{
    for (const Parameter& parameter : client.driver->parameters) {
        if (const auto* number = std::get_if<std::uint32_t>(&parameter.value)) {
            machine.SetRegistryValue(client.key, parameter.name, *number);
        } else {
            machine.SetRegistryString(client.key, parameter.name, std::get<std::string>(parameter.value));
        }
    }
}

}  // namespace

Run::Run(const Scenario& scenarioOfRun, const PlayOptions& options, Timeline& timelineOfRun)
    : scenario(scenarioOfRun), timeline(timelineOfRun), machine(MachineOptionsFor(scenarioOfRun, options)),
      peers(scenarioOfRun, timelineOfRun), state(scenarioOfRun), options_(options)
{
    peers.helper = &helper;
    peers.wpcd = &wpcd;
    state.driverLoaded = false;
    state.device = SystemState::Device::kNone;
    state.interfacesQueried = false;
    machine.environment().onDebugPrint = [this](const std::string& text, const void* caller) { Print(text, caller); };
    machine.environment().onFault = [this](const host::checks::Fault& fault, const void* caller) {
        timeline.Add({EntryKind::kFault, NameAt(caller), "",
                      fault.function + " fails, as the file says: " +
                          (fault.form == host::checks::FaultForm::kNull ? "NULL" : StatusText(fault.status)),
                      "", true});
    };
}

std::string Run::NameAt(const void* caller) const
{
    const std::string service = machine.ServiceAt(caller);
    return service == kService ? kNotifier : service;
}

// A driver's line often begins with its name, which stands in the timeline already.
void Run::Print(const std::string& text, const void* caller)
{
    const std::string who = NameAt(caller);
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(who + ": ")) {
            line.erase(0, who.size() + 2);
        }
        if (!line.empty()) {
            timeline.Add({EntryKind::kPrint, who, "", line, "", true});
        }
    }
}

template <class Table>
NTSTATUS Run::Query(const GUID& type, Table& table)
{
    return driver->QueryInterface(type, std::as_writable_bytes(std::span(&table, 1)), ZEP_NOTIFIER_INTERFACE_VERSION);
}

void Run::Boot()
{
    images_ = ClientImages(scenario, options_);
    for (const ClientModel& client : scenario.clients) {
        if (client.driver) {
            SetParameters(machine, client);
        }
    }
    if (!std::filesystem::exists(image())) {
        throw host::HostError(image().string() + ": there is no such image; ./zepn build makes those of the Notifier");
    }
    if (scenario.notifier == Beginning::kAbsent) {
        return;
    }
    driver = &machine.Load(image(), kService);
    timeline.Add({EntryKind::kCall, kSystem, kNotifier, "loads " + image().filename().string(),
                  StatusText(driver->EntryStatus()), NT_SUCCESS(driver->EntryStatus())});
    if (!NT_SUCCESS(driver->EntryStatus())) {
        throw host::HostError("the driver's entry point failed with " + StatusText(driver->EntryStatus()));
    }
    if (scenario.notifier == Beginning::kLoaded) {
        return;
    }
    const NTSTATUS status = AddDevice();
    timeline.Add(
        {EntryKind::kCall, kSystem, kNotifier, "adds and starts its device", StatusText(status), NT_SUCCESS(status)});
    if (!NT_SUCCESS(status)) {
        throw host::HostError("the driver's device could not be started: " + StatusText(status));
    }
}

NTSTATUS Run::AddDevice()
{
    if (const NTSTATUS added = driver->AddDevice(); !NT_SUCCESS(added)) {
        return added;
    }
    state.device = SystemState::Device::kStarted;
    if (const NTSTATUS started = driver->StartDevice(); !NT_SUCCESS(started)) {
        (void)RemoveDevice();  // as the system does
        return started;
    }
    const NTSTATUS queried = Query(GUID_ZEP_NOTIFIER_HELPER_INTERFACE, helper);
    return NT_SUCCESS(queried) ? Query(GUID_ZEP_NOTIFIER_WPCD_INTERFACE, wpcd) : queried;
}

std::optional<NTSTATUS> Run::LoadNotifier(const Step& step)
{
    driver = &machine.Load(image(), kService);
    if (!NT_SUCCESS(driver->EntryStatus())) {
        return driver->EntryStatus();
    }
    const auto status = Call(step, kSystem, "device add", {}, [&] { return AddDevice(); });
    if (status && !NT_SUCCESS(*status)) {
        (void)Unload(*driver);
    }
    return status;
}

std::optional<std::uint32_t> Run::RegisteredState(const GUID& guid)
{
    for (const host::framework::ObjectSnapshot& object :
         machine.inspect().Objects(host::framework::ObjectType::kGeneral)) {
        const auto context =
            machine.inspect().Context<layout::ClientContext>(object.handle, layout::kClientContextName);
        if (context && std::memcmp(&context->guid, &guid, sizeof(guid)) == 0 && !object.deleted) {
            return context->currentState;
        }
    }
    return std::nullopt;
}

const char* Run::ObstacleTo(const Step& step)
{
    state.driverLoaded = driver != nullptr && driver->IsLoaded();
    state.interfacesQueried = helper.InterfaceHeader.Size != 0 && wpcd.InterfaceHeader.Size != 0;
    state.handleOpen = file != 0;
    return Obstacle(step, state);
}

void Run::LeaveOut(const Step& step, const char* obstacle)
{
    AddFinding(scenario.file + ":" + std::to_string(step.line) + ": the step is left out: " + obstacle);
}

std::optional<NTSTATUS> Run::RemoveDevice()
{
    const unsigned hangsBefore = hangs_;
    const auto status = Remove(*driver);
    if (status) {
        state.device = SystemState::Device::kNone;
    } else if (hangs_ != hangsBefore) {  // else a handle is open, and all is as it was
        state.device = SystemState::Device::kRemovalHangs;
    }
    return status;
}

std::optional<NTSTATUS> Run::Remove(host::Driver& removed)
{
    try {
        const host::Outcome outcome = removed.RemoveDevice();
        ShowParked(outcome);
        return outcome.parked ? std::nullopt : std::optional(STATUS_SUCCESS);
    } catch (const host::HostError& error) {
        AddFinding(error.what());  // a handle is open: the system would wait for it
        return std::nullopt;
    }
}

std::optional<NTSTATUS> Run::Unload(host::Driver& unloaded)
{
    try {
        const host::Outcome outcome = unloaded.Unload();
        ShowParked(outcome);
        return outcome.parked ? std::nullopt : std::optional(STATUS_SUCCESS);
    } catch (const host::HostError& error) {
        AddFinding(error.what());  // it has no unload routine, or still a device
        return std::nullopt;
    }
}

std::optional<NTSTATUS> Run::Call(const Step& step, const std::string& who, const std::string& operation,
                                  const std::vector<std::string>& causes, const std::function<NTSTATUS()>& call)
{
    timeline.Begin({Span::Kind::kCall, who, operation, ""});
    for (const std::string& cause : causes) {
        timeline.Cause(who, cause);
    }
    NTSTATUS status = STATUS_SUCCESS;
    const host::Outcome outcome = machine.OnThread(who, [&] {
        std::optional<host::ScopedIrql> raised;
        if (step.raised) {
            raised.emplace(DISPATCH_LEVEL);
        }
        status = call();
    });
    if (outcome.parked) {
        ShowParked(outcome);
        return std::nullopt;
    }
    timeline.End(who, StatusText(status));
    return status;
}

void Run::Show(const Step& step, const std::string& who, const std::string& what, std::optional<NTSTATUS> status,
               const std::string& whom)
{
    // Of a step that must end in a finding the status is judged only when it names one.
    const bool good =
        status && step.expect ? *status == *step.expect : step.finding.has_value() || (status && NT_SUCCESS(*status));
    timeline.Add({EntryKind::kCall, who, whom, what, status ? StatusText(*status) : "never returns", good});
    good_ = good_ && good;
}

void Run::ShowParked(const host::Outcome& outcome)
{
    if (outcome.parked) {
        ++hangs_;
        AddFinding("hang: the thread " + outcome.reason);
    }
}

void Run::Arm(const Step& step)
{
    expectedFinding_ = step.finding;
    findingCame_ = false;
    if (step.fail) {
        const std::string& driverName = step.fail->driver;
        const std::filesystem::path module = driverName.empty()        ? std::filesystem::path()
                                             : driverName == kNotifier ? image()
                                                                       : ImageOf(driverName);
        machine.faults().Add(
            {.function = step.fail->call,
             .module = module.filename().string(),
             .detail = step.fail->detail,
             .form = step.fail->status ? host::checks::FaultForm::kStatus : host::checks::FaultForm::kNull,
             .status = step.fail->status.value_or(STATUS_SUCCESS)});
    }
}

void Run::ShowFindings()
{
    for (const auto& violation : machine.violations().Take()) {
        violations_ += AddFinding(violation.Text(), violation.PathText()) ? 0 : 1;
    }
    for (const std::string& finding : std::exchange(peers.findings, {})) {
        violations_ += AddFinding(finding) ? 0 : 1;
    }
}

void Run::Disarm(const Step& step)
{
    if (step.fail && machine.faults().InjectedCount() == 0) {
        AddFinding("the step never calls " + step.fail->call + ", which was to fail");
    }
    machine.faults().Clear();
    if (expectedFinding_ && !findingCame_) {
        const std::string expected = *expectedFinding_;
        expectedFinding_.reset();
        AddFinding("the expected finding did not come: " + expected);
    }
    expectedFinding_.reset();
    std::size_t shown = 0;
    for (const std::string& text : timeline.StepTexts()) {
        shown += shown < step.shows.size() && text.find(step.shows[shown]) != std::string::npos ? 1 : 0;
    }
    if (shown < step.shows.size()) {
        AddFinding("the step does not show, in its place: " + step.shows[shown]);
    }
}

bool Run::AddFinding(const std::string& text, const std::string& path)
{
    const bool expected = expectedFinding_ && text.find(*expectedFinding_) != std::string::npos;
    timeline.Add({EntryKind::kFinding, "", "", text, "", expected, path});
    findingCame_ = findingCame_ || expected;
    expected_ += expected ? 1 : 0;
    good_ = good_ && expected;
    return expected;
}

// As if the system shut down the real clients in good order.
void Run::EndClients()
{
    for (const auto& [key, client] : clientDrivers) {
        if (hangs_ == 0 && client->HasDevice()) {
            ShowParked(machine.OnThread(kSystem, [&] { (void)client->QueryRemoveDevice(); }));
        }
        if (hangs_ == 0 && client->HasDevice()) {
            (void)Remove(*client);
        }
        if (hangs_ == 0 && client->IsLoaded() && !client->HasDevice()) {
            (void)Unload(*client);
        }
    }
    for (const host::Outcome& outcome : hangs_ == 0 ? machine.RunWorkItems().parked : std::vector<host::Outcome>()) {
        ShowParked(outcome);
    }
}

void Run::End()
{
    if (const std::size_t queued = machine.QueuedWorkItems(); queued != 0 && hangs_ == 0) {
        const std::string first = machine.NextWorkItem();
        timeline.Add({EntryKind::kCall, kSystem, kNotifier,
                      "undelivered at the end of the file: " + (first.empty() ? "system work" : first) +
                          (queued == 1 ? "" : " and " + std::to_string(queued - 1) + " more"),
                      "", true});
    }
    // After a hang the system could do none of this either.
    if (!clientDrivers.empty()) {
        EndClients();
    }
    if (hangs_ == 0 && file != 0) {
        ShowParked(machine.OnThread(kApplication, [&] { driver->Close(file); }));
    }
    if (hangs_ == 0 && state.device == SystemState::Device::kStarted) {
        ShowParked(machine.OnThread(kSystem, [&] { driver->SurpriseRemoveDevice(); }));
    }
    if (hangs_ == 0 && driver != nullptr && driver->HasDevice()) {
        (void)RemoveDevice();
    }
    if (hangs_ == 0 && driver != nullptr && driver->IsLoaded() && !driver->HasDevice()) {
        (void)Unload(*driver);
    }
    ShowFindings();
    const Counts& counts = peers.counts;
    const auto count = [](const char* what, unsigned number) {
        return number == 0 ? std::string() : std::string(what) + " " + std::to_string(number) + ", ";
    };
    timeline.Close(count("real drivers started", counts.realDrivers) + count("clients", counts.registered) +
                       count("states posted", counts.posted) + count("deliveries", counts.delivered) +
                       count("answers", counts.answered) + count("commands", counts.commands) +
                       count("announcements", counts.announced) + count("dump calls", counts.dumpCalls) +
                       (hangs_ != 0        ? "a thread hangs, so its driver stays"
                        : violations_ != 0 ? "violations " + std::to_string(violations_)
                        : expected_ != 0   ? "no violation but the expected"
                                           : "no violation, nothing left"),
                   good_);
}

}  // namespace play
