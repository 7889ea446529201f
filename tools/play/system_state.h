// What a step needs of the drivers, the Notifier's device and the control device's handle, and what it makes of them.
// The reader refuses a file with a step that cannot be done; the run asks again, for a step may have ended in another
// way than the file expects.
#pragma once

#include "tools/play/scenario.h"

#include <map>
#include <string>

namespace play {

struct SystemState {
    enum class Device { kNone, kStarted, kSurpriseRemoved, kRemovalHangs };
    enum class ClientDriver { kUnloaded, kStarted, kWithoutDevice };

    // As the scenario's run begins.
    explicit SystemState(const Scenario& scenario);

    bool driverLoaded = true;
    Device device = Device::kNone;
    bool interfacesQueried = false;  // some device has given out the driver's function tables
    bool handleOpen = false;
    std::map<std::string, ClientDriver> clients;  // the real ones
};

// Why the step cannot be done; null when it can.
[[nodiscard]] const char* Obstacle(const Step& step, const SystemState& state);

// The state after a step that ends as it expects.
void Follow(const Step& step, SystemState& state);

}  // namespace play
