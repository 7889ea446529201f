// The steps that load and unload drivers, and what is done to the devices of real clients.
#include "tools/play/steps.h"

namespace play {
namespace {

using ClientDriver = SystemState::ClientDriver;

// What the system does to a driver is shown when it begins: the driver prints meanwhile.
void Announce(Run& run, const std::string& whom, const std::string& what)
{
    run.timeline.Add({EntryKind::kCall, kSystem, whom, what, "", true});
}

void LoadClient(Run& run, const Step& step)
{
    const std::filesystem::path& image = run.ImageOf(step.client);
    Announce(run, step.client, "loads " + image.filename().string());
    host::Driver& driver = run.machine.Load(image, step.client);
    run.clientDrivers[step.client] = &driver;
    std::optional<NTSTATUS> status = driver.EntryStatus();
    if (NT_SUCCESS(driver.EntryStatus())) {
        run.state.clients[step.client] = ClientDriver::kWithoutDevice;
        status = run.Call(step, kSystem, "start of " + step.client, {}, [&] {
            const NTSTATUS added = driver.AddDevice();
            return NT_SUCCESS(added) ? driver.StartDevice() : added;
        });
    }
    if (!status || NT_SUCCESS(*status)) {
        run.state.clients[step.client] = ClientDriver::kStarted;
        ++run.peers.counts.realDrivers;
    } else if (driver.IsLoaded()) {  // the system does not keep a driver without a device
        if (driver.HasDevice()) {
            (void)run.Remove(driver);
        }
        (void)run.Unload(driver);
        run.state.clients[step.client] = ClientDriver::kUnloaded;
    }
    run.Show(step, kSystem, "   its device is started", status, step.client);
}

// Asked first, as before a driver is disabled or updated.
void StopClient(Run& run, const Step& step)
{
    host::Driver& driver = *run.clientDrivers.at(step.client);
    Announce(run, step.client, "asks to remove its device");
    std::optional<NTSTATUS> status =
        run.Call(step, kSystem, "query remove", {}, [&] { return driver.QueryRemoveDevice(); });
    if (status && NT_SUCCESS(*status)) {
        status = run.Remove(driver);
        run.state.clients[step.client] = ClientDriver::kWithoutDevice;
    }
    run.Show(step, kSystem, "   its device is removed", status, step.client);
}

void PullClient(Run& run, const Step& step)
{
    host::Driver& driver = *run.clientDrivers.at(step.client);
    Announce(run, step.client, "its device is pulled out");
    std::optional<NTSTATUS> status = run.Call(step, kSystem, "surprise removal", {}, [&] {
        driver.SurpriseRemoveDevice();
        return STATUS_SUCCESS;
    });
    if (status) {
        status = run.Remove(driver);
        run.state.clients[step.client] = ClientDriver::kWithoutDevice;
    }
    run.Show(step, kSystem, "   its device is removed", status, step.client);
}

void Unload(Run& run, const Step& step)
{
    if (step.client.empty()) {
        run.Show(step, kSystem, "unloads the driver", run.Unload(*run.driver));
    } else if (const auto real = run.clientDrivers.find(step.client); real != run.clientDrivers.end()) {
        Announce(run, step.client, "unloads the driver");
        const auto status = run.Unload(*real->second);
        run.Show(step, kSystem, "   it is unloaded", status, step.client);
        run.state.clients[step.client] = ClientDriver::kUnloaded;
    } else {
        run.peers.Find(step.client).Unload();
        run.Show(step, kSystem, "unloads the driver of " + step.client, STATUS_SUCCESS);
    }
}

std::string StateText(const Run& run, const ClientModel& client, std::optional<std::uint32_t> state)
{
    return state ? "in state " + StateName(run.scenario, &client, *state) : "not registered";
}

void Expect(Run& run, const Step& step)
{
    const ClientModel& client = run.peers.ModelOf(step.client);
    const std::optional<std::uint32_t> state = run.RegisteredState(client.guid);
    if (state == step.state) {
        Announce(run, step.client, "finds it " + StateText(run, client, state));
    } else {
        run.AddFinding(step.client + " is " + StateText(run, client, state) + ", and should be " +
                       StateText(run, client, step.state));
    }
}

}  // namespace

void DoDriverStep(Run& run, const Step& step)
{
    switch (step.kind) {
    case Kind::kLoad:
        if (step.client.empty()) {
            Announce(run, kNotifier, "loads " + run.image().filename().string());
            run.Show(step, kSystem, "   its device is started", run.LoadNotifier(step));
        } else {
            LoadClient(run, step);
        }
        return;
    case Kind::kStop:
        StopClient(run, step);
        return;
    case Kind::kPull:
        PullClient(run, step);
        return;
    case Kind::kUnload:
        Unload(run, step);
        return;
    default:
        Expect(run, step);
    }
}

}  // namespace play
