// The steps of the system around the Notifier, and of an application that has the control device open.
#include "tools/play/steps.h"

#include <chrono>
#include <utility>

namespace play {
namespace {

void Deliver(Run& run, std::uint32_t runs)
{
    const std::size_t queued = run.machine.QueuedWorkItems();
    run.timeline.Add({EntryKind::kCall, kSystem, kNotifier,
                      queued == 0 ? "nothing is queued" : "lets the queued work run", "", true});
    for (std::uint32_t done = 0; run.machine.QueuedWorkItems() != 0 && (runs == 0 || done < runs); ++done) {
        const std::string queuedRoutine = run.machine.NextWorkItem();
        // Without a routine it is the system's own work, such as notifications of arriving interfaces.
        const std::string routine = queuedRoutine.empty() ? "system work" : queuedRoutine;
        run.timeline.Begin({Span::Kind::kWorkItem, routine, routine, ""});
        const host::PumpResult result = run.machine.RunOneWorkItem();
        if (result.parked.empty()) {
            run.timeline.End(routine);
        } else {
            run.ShowParked(result.parked.front());
        }
    }
}

std::optional<NTSTATUS> CallWithoutStatus(Run& run, const Step& step, const char* who, const char* operation,
                                          const std::function<void()>& call)
{
    return run.Call(step, who, operation, {}, [&] {
        call();
        return STATUS_SUCCESS;
    });
}

void Sleep(Run& run, const Step& step)
{
    const std::size_t delaysBefore = run.machine.Delays().size();
    const auto status = CallWithoutStatus(run, step, kSystem, "power-state callback",
                                          [&] { run.machine.NotifyPowerState(PO_CB_SYSTEM_STATE_LOCK, 0); });
    std::int64_t waitedMs = 0;
    const std::vector<std::int64_t> delays = run.machine.Delays();
    for (std::size_t index = delaysBefore; index < delays.size(); ++index) {
        waitedMs += -delays[index] / 10000;
    }
    run.Show(step, kSystem, "is about to sleep; held for " + std::to_string(waitedMs) + " ms", status);
}

}  // namespace

void DoSystemStep(Run& run, const Step& step)
{
    switch (step.kind) {
    case Kind::kDeliver:
        Deliver(run, step.runs);
        return;
    case Kind::kOpen:
        run.Show(step, kApplication, "opens the control device",
                 run.Call(step, kApplication, "open", {}, [&] { return run.driver->Open(run.file).status; }));
        return;
    case Kind::kControl: {
        const std::uint32_t code = step.id == 0 ? IOCTL_ZEPN_NOTIFY_APPS_STATE : step.id;
        run.Show(step, kApplication, "sends an I/O control", run.Call(step, kApplication, "I/O control", {}, [&] {
            return run.driver->DeviceControl(run.file, code).status;
        }));
        return;
    }
    case Kind::kClose: {
        const host::FileId file = std::exchange(run.file, 0);
        run.Show(step, kApplication, "closes the control device",
                 CallWithoutStatus(run, step, kApplication, "close", [&] { run.driver->Close(file); }));
        return;
    }
    case Kind::kTimeout:
        run.machine.SetRegistryValue(kService, "SubsystemNotificationTimeout", step.argument);
        run.Show(step, kSystem, "sets the time to wait before sleep: " + std::to_string(step.argument) + " ms",
                 STATUS_SUCCESS);
        return;
    case Kind::kWait:
        run.Show(step, kSystem, std::to_string(step.argument) + " ms pass",
                 CallWithoutStatus(run, step, kSystem, "timers",
                                   [&] { run.machine.AdvanceClock(std::chrono::milliseconds(step.argument)); }));
        return;
    case Kind::kAddDevice:
        run.Show(step, kSystem, "adds and starts the device",
                 run.Call(step, kSystem, "device add", {}, [&] { return run.AddDevice(); }));
        return;
    case Kind::kSleep:
        Sleep(run, step);
        return;
    case Kind::kWake:
        run.Show(step, kSystem, "is awake again", CallWithoutStatus(run, step, kSystem, "power-state callback", [&] {
                     run.machine.NotifyPowerState(PO_CB_SYSTEM_STATE_LOCK, 1);
                 }));
        return;
    case Kind::kAskToStop:
        run.Show(step, kSystem, "asks the device to stop",
                 run.Call(step, kSystem, "query stop", {}, [&] { return run.driver->QueryStopDevice(); }));
        return;
    case Kind::kAskToRemove:
        run.Show(step, kSystem, "asks to remove the device",
                 run.Call(step, kSystem, "query remove", {}, [&] { return run.driver->QueryRemoveDevice(); }));
        return;
    case Kind::kSurpriseRemoval:
        run.state.device = SystemState::Device::kSurpriseRemoved;
        run.Show(
            step, kSystem, "the device is pulled out",
            CallWithoutStatus(run, step, kSystem, "surprise removal", [&] { run.driver->SurpriseRemoveDevice(); }));
        return;
    case Kind::kRemove:
        run.Show(step, kSystem, "the device is removed", run.RemoveDevice());
        return;
    default:
        return;
    }
}

}  // namespace play
