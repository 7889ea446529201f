#include <initguid.h>  // before all: this file holds the interfaces' identifiers

#include "tools/play/run.h"

#include "tools/play/statuses.h"

#include <span>
#include <utility>

namespace play {
namespace {

host::MachineOptions MachineOptionsFor(bool realTime)
{
    host::MachineOptions options;
    options.realTime = realTime;
    return options;
}

}  // namespace

Run::Run(const Scenario& scenarioOfRun, Timeline& timelineOfRun, bool realTime)
    : scenario(scenarioOfRun), timeline(timelineOfRun), machine(MachineOptionsFor(realTime)),
      peers(scenarioOfRun, timelineOfRun)
{
}

template <class Table>
void Run::Query(const GUID& type, Table& table)
{
    const NTSTATUS status =
        driver->QueryInterface(type, std::as_writable_bytes(std::span(&table, 1)), ZEP_NOTIFIER_INTERFACE_VERSION);
    if (!NT_SUCCESS(status)) {
        throw host::HostError("the driver did not give out its interface: " + StatusText(status));
    }
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
    const NTSTATUS added = driver->AddDevice();
    const NTSTATUS status = NT_SUCCESS(added) ? driver->StartDevice() : added;
    if (NT_SUCCESS(status)) {
        Query(GUID_ZEP_NOTIFIER_HELPER_INTERFACE, helper);
        Query(GUID_ZEP_NOTIFIER_WPCD_INTERFACE, wpcd);
    }
    return status;
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
    // Of a step that must end in trouble the status is judged only when it names one.
    const bool good =
        status && step.expect ? *status == *step.expect : step.trouble.has_value() || (status && NT_SUCCESS(*status));
    timeline.Add({EntryKind::kCall, who, kNotifier, what, status ? StatusText(*status) : "never returns", good});
    good_ = good_ && good;
}

void Run::ShowParked(const host::Outcome& outcome)
{
    if (outcome.parked) {
        stuck_ = true;
        Trouble("a thread stands still for ever: it " + outcome.reason);
    }
}

void Run::Arm(const Step& step)
{
    expectedFinding_ = step.trouble;
    findingCame_ = false;
    if (step.fail) {
        machine.faults().Add(
            {.function = step.fail->call,
             .detail = step.fail->detail,
             .form = step.fail->status ? host::checks::FaultForm::kStatus : host::checks::FaultForm::kNull,
             .status = step.fail->status.value_or(STATUS_SUCCESS)});
    }
}

void Run::ShowFinding()
{
    for (const auto& violation : machine.violations().Take()) {
        violations_ += Trouble(violation.Text()) ? 0 : 1;
    }
    for (const std::string& finding : std::exchange(peers.findings, {})) {
        violations_ += Trouble(finding) ? 0 : 1;
    }
}

void Run::Disarm(const Step& step)
{
    if (step.fail && machine.faults().StruckCount() == 0) {
        Trouble("the step never calls " + step.fail->call + ", which was to fail");
    }
    machine.faults().Clear();
    if (expectedFinding_ && !findingCame_) {
        const std::string expected = *expectedFinding_;
        expectedFinding_.reset();
        Trouble("expected trouble that did not come: " + expected);
    }
    expectedFinding_.reset();
    std::size_t shown = 0;
    for (const std::string& text : timeline.StepTexts()) {
        shown += shown < step.shows.size() && text.find(step.shows[shown]) != std::string::npos ? 1 : 0;
    }
    if (shown < step.shows.size()) {
        Trouble("the step does not show, in its place: " + step.shows[shown]);
    }
}

bool Run::Trouble(const std::string& text)
{
    const bool expected = expectedFinding_ && text.find(*expectedFinding_) != std::string::npos;
    timeline.Add({EntryKind::kFinding, "", "", text, "", expected});
    findingCame_ = findingCame_ || expected;
    good_ = good_ && expected;
    return expected;
}

void Run::End()
{
    if (driver->HasDevice() && !stuck_) {
        if (file != 0) {
            driver->Close(file);
        }
        driver->SurpriseRemoveDevice();
        ShowParked(driver->RemoveDevice());
    }
    if (driver->IsLoaded() && !driver->HasDevice()) {
        driver->Unload();
    }
    ShowFinding();
    const Counts& counts = peers.counts;
    const auto count = [](const char* what, unsigned number) {
        return std::string(what) + " " + std::to_string(number) + ", ";
    };
    timeline.Close(count("clients", counts.registered) + count("states posted", counts.posted) +
                       count("deliveries", counts.delivered) + count("answers", counts.answered) +
                       count("commands", counts.commands) + count("announcements", counts.announced) +
                       count("dump calls", counts.dumpCalls) +
                       (stuck_             ? "a thread stands still, so the driver stays"
                        : violations_ == 0 ? "no violation, nothing left behind"
                                           : "violations " + std::to_string(violations_)),
                   good_);
}

}  // namespace play
