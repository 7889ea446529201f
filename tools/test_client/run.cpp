#include "tools/test_client/run.h"

#include "host/checks/source_lines.h"
#include "tools/play/statuses.h"

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <map>
#include <sstream>

namespace test_client {
namespace {

using play::StatusText;

constexpr const char* kNotifierService = "zepn";
constexpr unsigned kRounds = 12;

void SetParameter(host::Machine& machine, const std::string& service, const std::string& name, const std::string& value)
{
    char* end = nullptr;
    const unsigned long number = std::strtoul(value.c_str(), &end, 0);
    if (!value.empty() && *end == 0) {
        machine.SetRegistryValue(service, name, static_cast<std::uint32_t>(number));
    } else {
        machine.SetRegistryString(service, name, value);
    }
}

std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream input(text);
    for (std::string line; std::getline(input, line);) {
        lines.push_back(line);
    }
    return lines;
}

template <class Table>
NTSTATUS Query(host::Driver& driver, const GUID& type, Table& table)
{
    return driver.QueryInterface(type, std::as_writable_bytes(std::span(&table, 1)), ZEP_NOTIFIER_INTERFACE_VERSION);
}

}  // namespace

Run::Run(const CourseSetup& setup, Seen& seen)
    : machine({.allowMissing = setup.allowMissing}), calls(machine, seen, [this] { return notifier_; }), setup_(setup),
      seen_(seen)
{
    for (const auto& [name, value] : setup.parameters) {
        SetParameter(machine, setup.ServiceName(), name, value);
    }
}

// ---- Findings ----

void Run::Doing(std::string what)
{
    during_ = std::move(what);
}

void Run::AddFinding(std::string text, std::vector<std::string> details)
{
    findings_.push_back({during_, std::move(text), std::move(details)});
}

void Run::Check()
{
    // The same mistake made many times is one finding.
    std::vector<std::pair<host::checks::Violation, unsigned>> mistakes;
    for (const host::checks::Violation& violation : machine.violations().Take()) {
        const auto same = std::ranges::find_if(mistakes, [&violation](const auto& mistake) {
            return mistake.first.caller == violation.caller && mistake.first.Text() == violation.Text();
        });
        if (same != mistakes.end()) {
            ++same->second;
        } else {
            mistakes.emplace_back(violation, 1);
        }
    }
    for (const auto& [violation, count] : mistakes) {
        std::vector<std::string> lines = Lines(violation.FullText());
        const std::string text = lines.front() + (count == 1 ? "" : " (" + std::to_string(count) + " times)");
        lines.erase(lines.begin());
        AddFinding(text, std::move(lines));
    }
    if (!findings_.empty()) {
        throw Stopped();
    }
}

// A thread that hangs mostly broke a rule, which says more.
void Run::CheckParked(const host::Outcome& outcome)
{
    if (outcome.parked) {
        Check();
        AddFinding("hang: the thread " + outcome.reason);
        throw Stopped();
    }
}

void Run::RunWorkItems(unsigned count)
{
    for (unsigned run = 0; run < count; ++run) {
        for (const host::Outcome& outcome : machine.RunOneWorkItem().parked) {
            CheckParked(outcome);
        }
    }
    Check();
}

void Run::Settle()
{
    for (const host::Outcome& outcome : machine.RunWorkItems().parked) {
        CheckParked(outcome);
    }
    Check();
}

// ---- The Notifier ----

void Run::StartNotifier()
{
    Doing("the Notifier starts");
    Call("plug and play", [&] { notifier_ = &machine.Boot(setup_.notifier, kNotifierService); });
    (void)Query(*notifier_, GUID_ZEP_NOTIFIER_HELPER_INTERFACE, helper_);
    (void)Query(*notifier_, GUID_ZEP_NOTIFIER_WPCD_INTERFACE, wpcd_);
    Settle();
}

void Run::RemoveNotifier()
{
    Doing("the Notifier's device is removed by surprise");
    Call("plug and play", [&] { notifier_->SurpriseRemoveDevice(); });
    Settle();
    LetTimePass();
    if (CountRegistered() != 0) {
        AddFinding(setup_.ClientName() +
                   " is still registered after it was notified that the Notifier's device is gone");
        throw Stopped();
    }
    Unload(*notifier_, "the Notifier");
    notifier_ = nullptr;
    haveStrangersCommands_ = false;
    peers_.Forget();
}

void Run::RefuseNotifierRemoval()
{
    Doing("the Notifier's removal is requested, and refused");
    Call("plug and play", [&] { (void)notifier_->QueryRemoveDevice(); });
    Settle();
}

void Run::Unload(host::Driver& driver, const std::string& who)
{
    try {
        CheckParked(driver.RemoveDevice());
    } catch (const host::HostError&) {
        // Handles are open, or there is none to remove.
        if (driver.HasDevice()) {
            AddFinding("the device of " + who + " cannot be removed: it is still held open");
            throw Stopped();
        }
    }
    CheckParked(driver.Unload());
    Settle();
}

// ---- The client ----

void Run::StartClient()
{
    Doing(setup_.ClientName() + " is loaded");
    Call("plug and play", [&] { client_ = &machine.Load(setup_.client, setup_.ServiceName()); });
    Check();
    if (!NT_SUCCESS(client_->EntryStatus())) {
        if (!isFaulty_) {
            AddFinding("its DriverEntry fails with " + StatusText(client_->EntryStatus()));
            throw Stopped();
        }
        client_ = nullptr;
        return;
    }
    AddAndStart();
}

void Run::AddAndStart()
{
    Doing("the device of " + setup_.ClientName() + " is added and started");
    NTSTATUS status = STATUS_SUCCESS;
    Call("plug and play", [&] {
        status = client_->AddDevice();
        if (NT_SUCCESS(status) && client_->HasDevice()) {
            status = client_->StartDevice();
        }
    });
    Settle();
    if (NT_SUCCESS(status) && client_->HasDevice()) {
        return;
    }
    if (!isFaulty_) {
        AddFinding(NT_SUCCESS(status) ? "its EvtDriverDeviceAdd succeeds and creates no device"
                                      : "its device does not start: " + StatusText(status));
        throw Stopped();
    }
    Doing("the device of " + setup_.ClientName() + " did not start, and its driver is unloaded");
    UnloadClient();
}

void Run::UnloadClient()
{
    if (client_->HasDevice()) {
        Unload(*client_, setup_.ClientName());
    } else {
        CheckParked(client_->Unload());
        Settle();
    }
    client_ = nullptr;
    ExpectGone();
}

void Run::RemoveClient()
{
    if (!IsClientUp()) {
        return;
    }
    Doing("the device of " + setup_.ClientName() + " is removed, and its driver unloaded");
    Call("plug and play", [&] {
        if (!NT_SUCCESS(client_->QueryRemoveDevice())) {
            client_->SurpriseRemoveDevice();  // what a device that refuses may meet all the same
        }
    });
    Settle();
    LetTimePass();
    UnloadClient();
}

void Run::SurpriseRemoveClient()
{
    Doing("the device of " + setup_.ClientName() + " is removed by surprise, and its driver unloaded");
    Call("plug and play", [&] { client_->SurpriseRemoveDevice(); });
    Settle();
    LetTimePass();
    UnloadClient();
}

void Run::RemoveClientAtOnce(unsigned workItems)
{
    Doing(setup_.ClientName() + " is started, and removed after " + std::to_string(workItems) + " work items");
    Call("plug and play", [&] { client_ = &machine.Boot(setup_.client, setup_.ServiceName()); });
    RunWorkItems(workItems);
    Call("plug and play", [&] { client_->SurpriseRemoveDevice(); });
    UnloadClient();
}

// ---- What must be so ----

int Run::CountRegistered()
{
    if (notifier_ == nullptr) {
        return 0;
    }
    ULONG count = 0;
    Call("another driver", [&] { (void)wpcd_.Notifier_WpcdGetNumSubsystemDescriptors(&count); });
    const int registered = static_cast<int>(count) - static_cast<int>(peers_.RegisteredCount());
    if (registered < 0) {
        AddFinding("it has deregistered another driver, which had registered under its GUID before it");
        throw Stopped();
    }
    return registered;
}

bool Run::IsAttached()
{
    if (notifier_ == nullptr || peers_.isAttached()) {
        return false;
    }
    NTSTATUS status = STATUS_SUCCESS;
    Call("another driver", [&] {
        status = peers_.Attach(wpcd_);
        if (status == STATUS_SUCCESS) {
            (void)peers_.Detach(wpcd_);
        }
    });
    return status == STATUS_OBJECT_NAME_EXISTS;
}

void Run::ExpectRegistered()
{
    const int registered = CountRegistered();
    if (seen_.registeredCount >= 0 && registered != seen_.registeredCount) {
        AddFinding("registered are " + std::to_string(registered) + " of its " + std::to_string(seen_.registeredCount) +
                   " clients");
    } else if (seen_.attaches && !IsAttached()) {
        AddFinding("it is not attached as crash-dump driver");
    }
    Check();
}

// What is made once for each state or command, up to a limit, has its time to reach it.
void Run::ExpectNoGrowth()
{
    using Place = std::pair<const void*, std::string>;
    std::map<Place, std::vector<host::framework::Holding>> held;
    for (unsigned round = 0; round < kRounds; ++round) {
        Converse();
        for (host::framework::Holding& holding : client_->Holdings()) {
            held[{holding.madeBy.back(), holding.what}].push_back(std::move(holding));
        }
    }
    Doing("its peers do the same " + std::to_string(kRounds) + " times");
    for (const auto& [place, rounds] : held) {
        const bool grows = std::ranges::adjacent_find(rounds, std::greater_equal<>(),
                                                      &host::framework::Holding::count) == rounds.end();
        if (grows && rounds.size() == kRounds) {
            AddFinding("it holds more after every round: " + std::to_string(rounds.front().count) + " x " +
                           rounds.front().what + " after the first, " + std::to_string(rounds.back().count) +
                           " after the last",
                       {"made by " + host::checks::PathText(machine.environment().PlacesOf(rounds.front().madeBy))});
        }
    }
    Check();
}

void Run::ExpectGone()
{
    if (CountRegistered() != 0) {
        AddFinding("it is still registered with the Notifier, which goes on calling into the unloaded driver");
    } else if (seen_.attaches && IsAttached()) {
        AddFinding("it is still attached to the Notifier, which goes on calling into the unloaded driver");
    }
    Check();
}

}  // namespace test_client
