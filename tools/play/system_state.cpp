#include "tools/play/system_state.h"

namespace play {
namespace {

using Device = SystemState::Device;

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

}  // namespace

const char* Obstacle(const Step& step, const SystemState& state)
{
    switch (step.action) {
    case Action::kNote:
    case Action::kTimeout:
    case Action::kDeliver:
    case Action::kSleep:
    case Action::kWake:
        return nullptr;
    case Action::kUnload:
        if (!step.client.empty()) {
            return nullptr;
        }
        break;
    default:
        break;
    }
    if (!state.driverLoaded) {
        return "the driver is unloaded";
    }
    switch (step.action) {
    case Action::kAddDevice:
        return state.device == Device::kNone ? nullptr : "the driver has a device; \"remove\" comes first";
    case Action::kUnload:
        return state.device == Device::kNone ? nullptr
                                             : "the system does not unload a driver that has a device; \"remove\" "
                                               "comes first";
    case Action::kRemove:
        return RemovalObstacle(state);
    case Action::kSurpriseRemoval:
    case Action::kRefuseStop:
    case Action::kRefuseRemove:
        return DeviceObstacle(state.device);
    case Action::kOpen:
        if (state.handleOpen) {
            return "the control device is open already, and a scenario has one handle";
        }
        return state.device == Device::kNone ? DeviceObstacle(state.device) : nullptr;
    case Action::kControl:
    case Action::kClose:
        return state.handleOpen ? nullptr : "the control device is not open; \"open\" comes first";
    default:
        return state.interfacesQueried ? nullptr
                                       : "nobody has the driver's function tables yet; \"addDevice\" comes first";
    }
}

void Follow(const Step& step, SystemState& state)
{
    switch (step.action) {
    case Action::kAddDevice:
        if (!ExpectsFailure(step)) {
            state.device = Device::kStarted;
            state.interfacesQueried = true;
        }
        return;
    case Action::kOpen:
        state.handleOpen = !ExpectsFailure(step);
        return;
    case Action::kClose:
        state.handleOpen = false;
        return;
    case Action::kSurpriseRemoval:
        state.device = Device::kSurpriseRemoved;
        return;
    case Action::kRemove:
        state.device = Device::kNone;
        return;
    case Action::kUnload:
        state.driverLoaded = state.driverLoaded && !step.client.empty();
        return;
    default:
        return;
    }
}

}  // namespace play
