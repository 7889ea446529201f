#include <initguid.h>  // before all: this file holds the interfaces' identifiers

#include "tools/play/run.h"

#include "tools/play/statuses.h"

#include <algorithm>
#include <span>
#include <utility>

namespace play {
namespace {

constexpr std::uint32_t kRealWaitMaximumMs = 60'000;  // nobody watches a longer one

host::MachineOptions MachineOptionsFor(const Scenario& scenario, bool realTime, bool allowMissing)
{
    host::MachineOptions options;
    options.allowMissing = allowMissing;
    options.realTime = realTime && std::ranges::all_of(scenario.steps, [](const Step& step) {
                           return step.action != Action::kTimeout || step.argument <= kRealWaitMaximumMs;
                       });
    return options;
}

}  // namespace

Run::Run(const Scenario& scenarioOfRun, Timeline& timelineOfRun, bool realTime, bool allowMissing)
    : scenario(scenarioOfRun), timeline(timelineOfRun),
      machine(MachineOptionsFor(scenarioOfRun, realTime, allowMissing)), peers(scenarioOfRun, timelineOfRun)
{
}

template <class Table>
NTSTATUS Run::Query(const GUID& type, Table& table)
{
    return driver->QueryInterface(type, std::as_writable_bytes(std::span(&table, 1)), ZEP_NOTIFIER_INTERFACE_VERSION);
}

void Run::Boot(const std::filesystem::path& image)
{
    driver = &machine.Load(image, kService);
    timeline.Add({EntryKind::kCall, kSystem, kNotifier, "loads " + image.filename().string(),
                  StatusText(driver->EntryStatus()), NT_SUCCESS(driver->EntryStatus())});
    if (!NT_SUCCESS(driver->EntryStatus())) {
        throw host::HostError("the driver's entry point failed with " + StatusText(driver->EntryStatus()));
    }
    peers.helper = &helper;
    peers.wpcd = &wpcd;
    if (!scenario.bootsDevice) {
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
    device = SystemState::Device::kStarted;
    if (const NTSTATUS started = driver->StartDevice(); !NT_SUCCESS(started)) {
        (void)RemoveDevice();  // as the system does
        return started;
    }
    const NTSTATUS queried = Query(GUID_ZEP_NOTIFIER_HELPER_INTERFACE, helper);
    return NT_SUCCESS(queried) ? Query(GUID_ZEP_NOTIFIER_WPCD_INTERFACE, wpcd) : queried;
}

const char* Run::ObstacleTo(const Step& step) const
{
    return Obstacle(step, {.driverLoaded = driver->IsLoaded(),
                           .device = device,
                           .interfacesQueried = helper.InterfaceHeader.Size != 0 && wpcd.InterfaceHeader.Size != 0,
                           .handleOpen = file != 0});
}

void Run::LeaveOut(const Step& step, const char* obstacle)
{
    AddFinding(scenario.file + ":" + std::to_string(step.place.line) + ":" + std::to_string(step.place.column) +
               ": the step is left out: " + obstacle);
}

std::optional<NTSTATUS> Run::RemoveDevice()
{
    const host::Outcome outcome = driver->RemoveDevice();
    ShowParked(outcome);
    device = outcome.parked ? SystemState::Device::kRemovalHangs : SystemState::Device::kNone;
    return outcome.parked ? std::nullopt : std::optional(STATUS_SUCCESS);
}

std::optional<NTSTATUS> Run::Unload()
{
    const host::Outcome outcome = driver->Unload();
    ShowParked(outcome);
    return outcome.parked ? std::nullopt : std::optional(STATUS_SUCCESS);
}

std::optional<NTSTATUS> Run::Call(const Step& step, const std::string& who, const char* operation,
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

void Run::Show(const Step& step, const std::string& who, const std::string& what, std::optional<NTSTATUS> status)
{
    // Of a step that must end in a finding the status is judged only when it names one.
    const bool good =
        status && step.expect ? *status == *step.expect : step.finding.has_value() || (status && NT_SUCCESS(*status));
    timeline.Add({EntryKind::kCall, who, kNotifier, what, status ? StatusText(*status) : "never returns", good});
    good_ = good_ && good;
}

void Run::ShowParked(const host::Outcome& outcome)
{
    if (outcome.parked) {
        hangs_ = true;
        AddFinding("hang: the thread " + outcome.reason);
    }
}

void Run::Arm(const Step& step)
{
    expectedFinding_ = step.finding;
    findingCame_ = false;
    if (step.fail) {
        machine.faults().Add(
            {.function = step.fail->call,
             .detail = step.fail->detail,
             .form = step.fail->status ? host::checks::FaultForm::kStatus : host::checks::FaultForm::kNull,
             .status = step.fail->status.value_or(STATUS_SUCCESS)});
    }
}

void Run::ShowFindings()
{
    for (const auto& violation : machine.violations().Take()) {
        violations_ += AddFinding(violation.Text()) ? 0 : 1;
    }
    for (const std::string& finding : std::exchange(peers.findings, {})) {
        violations_ += AddFinding(finding) ? 0 : 1;
    }
}

void Run::Disarm(const Step& step)
{
    if (step.fail && machine.faults().StruckCount() == 0) {
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

bool Run::AddFinding(const std::string& text)
{
    const bool expected = expectedFinding_ && text.find(*expectedFinding_) != std::string::npos;
    timeline.Add({EntryKind::kFinding, "", "", text, "", expected});
    findingCame_ = findingCame_ || expected;
    good_ = good_ && expected;
    return expected;
}

void Run::End()
{
    // After a hang the system could do none of this either.
    if (!hangs_ && file != 0) {
        ShowParked(machine.OnThread(kApplication, [&] { driver->Close(file); }));
    }
    if (!hangs_ && device == SystemState::Device::kStarted) {
        ShowParked(machine.OnThread(kSystem, [&] { driver->SurpriseRemoveDevice(); }));
    }
    if (!hangs_ && driver->HasDevice()) {
        (void)RemoveDevice();
    }
    if (!hangs_ && driver->IsLoaded()) {
        (void)Unload();
    }
    ShowFindings();
    const Counts& counts = peers.counts;
    const auto count = [](const char* what, unsigned number) {
        return std::string(what) + " " + std::to_string(number) + ", ";
    };
    timeline.Close(count("clients", counts.registered) + count("states posted", counts.posted) +
                       count("deliveries", counts.delivered) + count("answers", counts.answered) +
                       count("commands", counts.commands) + count("announcements", counts.announced) +
                       count("dump calls", counts.dumpCalls) +
                       (hangs_             ? "a thread hangs, so the driver stays"
                        : violations_ == 0 ? "no violation, nothing left behind"
                                           : "violations " + std::to_string(violations_)),
                   good_);
}

}  // namespace play
