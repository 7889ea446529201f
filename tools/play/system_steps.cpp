// The steps of the system around the driver, and of an application that has the control device open.
#include "tools/play/steps.h"

namespace play {
namespace {

void Deliver(Run& run, std::uint32_t runs)
{
    const std::size_t queued = run.machine.QueuedWorkItems();
    run.timeline.Add({EntryKind::kCall, kSystem, kNotifier,
                      queued == 0 ? "nothing is queued" : "lets the queued work run", "", true});
    for (std::uint32_t done = 0; run.machine.QueuedWorkItems() != 0 && (runs == 0 || done < runs); ++done) {
        const std::string routine = run.machine.NextWorkItem();
        run.timeline.Begin({Span::Kind::kWorkItem, routine, routine, ""});
        const host::PumpResult result = run.machine.RunOneWorkItem();
        if (result.parked.empty()) {
            run.timeline.End(routine);
        } else {
            run.ShowParked(result.parked.front());
        }
    }
}

}  // namespace

void DoSystemStep(Run& run, const Step& step)
{
    switch (step.action) {
    case Action::kDeliver:
        Deliver(run, step.runs);
        return;
    case Action::kOpen:
        run.Show(step, kApplication, "opens the control device",
                 run.Call(step, kApplication, "open", {}, [&] { return run.driver->Open(run.file).status; }));
        return;
    case Action::kControl: {
        const std::uint32_t code = step.id == 0 ? IOCTL_ZEPN_NOTIFY_APPS_STATE : step.id;
        run.Show(step, kApplication, "sends an I/O control", run.Call(step, kApplication, "I/O control", {}, [&] {
            return run.driver->DeviceControl(run.file, code).status;
        }));
        return;
    }
    case Action::kClose:
        run.driver->Close(run.file);
        run.file = 0;
        run.Show(step, kApplication, "closes the control device", STATUS_SUCCESS);
        return;
    case Action::kTimeout:
        run.machine.SetRegistryValue(kService, "SubsystemNotificationTimeout", step.argument);
        run.Show(step, kSystem, "sets the time to wait before sleep: " + std::to_string(step.argument) + " ms",
                 STATUS_SUCCESS);
        return;
    case Action::kAddDevice:
        run.Show(step, kSystem, "adds and starts the device",
                 run.Call(step, kSystem, "device add", {}, [&] { return run.AddDevice(); }));
        return;
    case Action::kSleep: {
        const std::size_t delaysBefore = run.machine.Delays().size();
        const auto status = run.Call(step, kSystem, "power-state callback", {}, [&] {
            run.machine.NotifyPowerState(PO_CB_SYSTEM_STATE_LOCK, 0);
            return STATUS_SUCCESS;
        });
        std::int64_t waitedMs = 0;
        const std::vector<std::int64_t> delays = run.machine.Delays();
        for (std::size_t index = delaysBefore; index < delays.size(); ++index) {
            waitedMs += -delays[index] / 10000;
        }
        run.Show(step, kSystem, "is about to sleep; held for " + std::to_string(waitedMs) + " ms", status);
        return;
    }
    case Action::kWake:
        run.machine.NotifyPowerState(PO_CB_SYSTEM_STATE_LOCK, 1);
        run.Show(step, kSystem, "is awake again", STATUS_SUCCESS);
        return;
    case Action::kRefuseStop:
        run.Show(step, kSystem, "asks the device to stop", run.driver->QueryStopDevice());
        return;
    case Action::kRefuseRemove:
        run.Show(step, kSystem, "asks to remove the device", run.driver->QueryRemoveDevice());
        return;
    case Action::kSurpriseRemoval:
        run.timeline.Begin({Span::Kind::kCall, kSystem, "surprise removal", ""});
        run.driver->SurpriseRemoveDevice();
        run.timeline.End(kSystem);
        run.Show(step, kSystem, "the device is pulled out", STATUS_SUCCESS);
        return;
    case Action::kRemove: {
        const host::Outcome outcome = run.driver->RemoveDevice();
        run.ShowParked(outcome);
        run.Show(step, kSystem, "the device is removed", STATUS_SUCCESS);
        return;
    }
    case Action::kUnload:
        if (!step.client.empty()) {
            run.peers.Find(step.client).Unload();
            run.Show(step, kSystem, "unloads the driver of " + step.client, STATUS_SUCCESS);
            return;
        }
        run.driver->Unload();
        run.Show(step, kSystem, "unloads the driver", STATUS_SUCCESS);
        return;
    default:
        return;
    }
}

}  // namespace play
