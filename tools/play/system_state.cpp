#include "tools/play/system_state.h"

namespace play {
namespace {

using Device = SystemState::Device;
using ClientDriver = SystemState::ClientDriver;

const char* DeviceObstacle(Device device)
{
    switch (device) {
    case Device::kNone:
        return "the driver has no device; \"addDevice\" comes first";
    case Device::kSurpriseRemoved:
        return "the device was pulled out already";
    case Device::kRemovalHangs:
        return "the device's removal hangs";
    case Device::kStarted:
        break;
    }
    return nullptr;
}

const char* RemovalObstacle(const SystemState& state)
{
    if (state.handleOpen) {
        return "the control device is open, so the system does not remove the device yet; \"close\" comes first";
    }
    return state.device == Device::kSurpriseRemoved ? nullptr : DeviceObstacle(state.device);
}

bool ExpectsFailure(const Step& step)
{
    return step.expect && !NT_SUCCESS(*step.expect);
}

// Of a real client's driver.
const char* ClientObstacle(Kind kind, ClientDriver driver)
{
    if (kind == Kind::kLoad) {
        return driver == ClientDriver::kUnloaded ? nullptr
                                                 : "the client's driver is loaded already; \"unload\" comes first";
    }
    if (driver == ClientDriver::kUnloaded) {
        return "the client's driver is not loaded; \"load\" comes first";
    }
    if (kind == Kind::kUnload) {
        return driver == ClientDriver::kWithoutDevice
                   ? nullptr
                   : "the system does not unload a driver that has a device; \"stop\" or \"pull\" comes first";
    }
    return driver == ClientDriver::kStarted ? nullptr : "the client's device was removed already";
}

const char* NotifierObstacle(const Step& step, const SystemState& state)
{
    if (step.kind == Kind::kLoad) {
        return state.driverLoaded ? "the driver is loaded already; \"unload\" comes first" : nullptr;
    }
    if (!state.driverLoaded) {
        return "the driver is not loaded; \"load\" comes first";
    }
    switch (step.kind) {
    case Kind::kAddDevice:
        return state.device == Device::kNone ? nullptr : "the driver has a device; \"remove\" comes first";
    case Kind::kUnload:
        return state.device == Device::kNone ? nullptr
                                             : "the system does not unload a driver that has a device; \"remove\" "
                                               "comes first";
    case Kind::kRemove:
        return RemovalObstacle(state);
    case Kind::kSurpriseRemoval:
    case Kind::kAskToStop:
    case Kind::kAskToRemove:
        return DeviceObstacle(state.device);
    case Kind::kOpen:
        if (state.handleOpen) {
            return "the control device is open already, and a scenario has one handle";
        }
        return state.device == Device::kNone ? DeviceObstacle(state.device) : nullptr;
    case Kind::kControl:
    case Kind::kClose:
        return state.handleOpen ? nullptr : "the control device is not open; \"open\" comes first";
    case Kind::kExpect:
        return nullptr;
    default:
        return state.interfacesQueried ? nullptr
                                       : "nobody has the driver's function tables yet; \"addDevice\" comes first";
    }
}

}  // namespace

SystemState::SystemState(const Scenario& scenario) : driverLoaded(scenario.notifier != Beginning::kAbsent)
{
    if (scenario.notifier == Beginning::kStarted) {
        device = Device::kStarted;
        interfacesQueried = true;
    }
    for (const ClientModel& client : scenario.clients) {
        if (client.driver) {
            clients.emplace(client.key, ClientDriver::kUnloaded);
        }
    }
}

const char* Obstacle(const Step& step, const SystemState& state)
{
    switch (step.kind) {
    case Kind::kNote:
    case Kind::kTimeout:
    case Kind::kWait:
    case Kind::kDeliver:
    case Kind::kSleep:
    case Kind::kWake:
        return nullptr;
    case Kind::kLoad:
    case Kind::kStop:
    case Kind::kPull:
    case Kind::kUnload:
        if (const auto client = state.clients.find(step.client); client != state.clients.end()) {
            return ClientObstacle(step.kind, client->second);
        }
        if (!step.client.empty()) {
            return nullptr;  // a scripted client's driver
        }
        break;
    default:
        break;
    }
    return NotifierObstacle(step, state);
}

void Follow(const Step& step, SystemState& state)
{
    const auto client = state.clients.find(step.client);
    switch (step.kind) {
    case Kind::kLoad:
        if (ExpectsFailure(step)) {
            return;
        }
        if (client != state.clients.end()) {
            client->second = ClientDriver::kStarted;
            return;
        }
        state.driverLoaded = true;
        [[fallthrough]];
    case Kind::kAddDevice:
        if (!ExpectsFailure(step)) {
            state.device = Device::kStarted;
            state.interfacesQueried = true;
        }
        return;
    case Kind::kStop:
        if (ExpectsFailure(step)) {
            return;
        }
        [[fallthrough]];
    case Kind::kPull:
        client->second = ClientDriver::kWithoutDevice;
        return;
    case Kind::kOpen:
        state.handleOpen = !ExpectsFailure(step);
        return;
    case Kind::kClose:
        state.handleOpen = false;
        return;
    case Kind::kSurpriseRemoval:
        state.device = Device::kSurpriseRemoved;
        return;
    case Kind::kRemove:
        state.device = Device::kNone;
        return;
    case Kind::kUnload:
        if (client != state.clients.end()) {
            client->second = ClientDriver::kUnloaded;
        } else if (step.client.empty()) {
            state.driverLoaded = false;
        }
        return;
    default:
        return;
    }
}

}  // namespace play
