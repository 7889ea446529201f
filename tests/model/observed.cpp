#include "tests/model/observed.h"

#include "host/schedule/parking.h"
#include "tests/kit/callback_lines.h"

namespace model {
namespace {

constexpr unsigned kMostCalls = 50000;  // an operation makes a few thousand at most
constexpr std::size_t kMostLines = 5000;

}  // namespace

ObservedRun::ObservedRun(const Sequence& sequence, const std::filesystem::path& image)
    : scripts_(sequence.clients.begin(), sequence.clients.end()),
      harness_(image, {.recordsPaths = false, .keepsCode = tests::kKeepsCode},
               {.toState = [this](unsigned client, unsigned from, ULONG state,
                                  ULONG response) { return scripts_[client].OnState(from, state).value_or(response); },
                .toCommand = [this](unsigned client, ULONG id,
                                    ULONG state) { return scripts_[client].OnCommand(id).value_or(state); },
                .toAppsState = [this](unsigned client,
                                      ULONG state) { return scripts_[client].OnAppsState().value_or(state); },
                .toAdd = [status = sequence.addAnswer](unsigned) { return status; },
                .toRemove = [status = sequence.removeAnswer](unsigned) { return status; },
                .toDump = [status = sequence.dumpAnswer] { return status; }})
{
    for (unsigned client = 0; client < kClients; ++client) {
        const ClientScript& script = sequence.clients[client];
        tests::Peer& peer = harness_.AddPeer(client);
        peer.guid = GuidOf(client);
        peer.name = script.name;
        peer.description = script.description;
        peer.entries.resize(script.entryCount);
        for (std::size_t index = 0; index < peer.entries.size(); ++index) {
            peer.entries[index].Value[0] = index * 3 + client;
        }
        peer.TakesCommands(script.takesCommands).WantsAppsState(script.wantsAppsState);
    }
    for (const Kind kind : {Kind::kLoad, Kind::kAddDevice, Kind::kStart, Kind::kOpen}) {
        DoSetup(kind);
    }
    // A driver that goes round and round makes platform calls; it is set aside like a thread that hangs.
    harness_.machine.environment().SetObserver([this](const host::ObservedCall& call) {
        if (onPlatformCall) {
            onPlatformCall(reinterpret_cast<std::uintptr_t>(call.caller) -
                           reinterpret_cast<std::uintptr_t>(harness_.driver->ImageBase()));
        }
        if (callsLeft_ != 0 && (--callsLeft_ == 0 || harness_.called.size() > kMostLines)) {
            host::schedule::ParkThisThread("goes on without end");
        }
    });
}

void ObservedRun::DoSetup(Kind kind)
{
    if (!NT_SUCCESS(harness_.Do({.kind = kind}).value_or(STATUS_UNSUCCESSFUL))) {
        throw host::HostError(std::string("the driver does not come up: ") + Name(kind));
    }
}

Outcome ObservedRun::Do(const Operation& operation)
{
    host::Machine& machine = harness_.machine;
    Outcome outcome;
    harness_.called.clear();
    callsLeft_ = kMostCalls;
    const auto runOne = [&] { outcome.hangs = outcome.hangs || !machine.RunOneWorkItem().parked.empty(); };
    if (operation.kind == Kind::kRunOne) {
        runOne();
    } else if (operation.kind == Kind::kDeliver) {
        while (machine.QueuedWorkItems() != 0 && !outcome.hangs) {
            runOne();
        }
    } else {
        const std::size_t before = machine.Delays().size();
        outcome.status = STATUS_PENDING;
        outcome.hangs =
            machine.OnThread("client", [&] { outcome.status = harness_.Do(operation).value_or(STATUS_SUCCESS); })
                .parked;
        const std::vector<std::int64_t> delays = machine.Delays();
        for (std::size_t index = before; index < delays.size(); ++index) {
            harness_.called.push_back(tests::lines::Wait(delays[index] / -10000));
        }
    }
    callsLeft_ = 0;
    outcome.called = harness_.called;
    outcome.workItems = machine.QueuedWorkItems();
    return outcome;
}

std::vector<std::string> ObservedRun::TakeViolations()
{
    std::vector<std::string> texts;
    for (const auto& violation : harness_.machine.violations().Take()) {
        texts.push_back(violation.Text());
    }
    return texts;
}

bool ObservedRun::TakeDown()
{
    host::Driver& driver = *harness_.driver;
    return !harness_.machine
                .OnThread("system",
                          [&] {
                              (void)harness_.Do({.kind = Kind::kClose});
                              driver.SurpriseRemoveDevice();
                              if (!driver.RemoveDevice().parked) {
                                  driver.Unload();
                              }
                          })
                .parked &&
           !driver.IsLoaded();
}

}  // namespace model
