// One run of a scenario: the machine with the driver on it, the peers, and what the run has come to so far. Steps call
// the driver through it, so that every call is shown in the same way and whatever goes wrong is judged in one place.
#pragma once

#include "host/machine.h"
#include "tools/play/clients.h"
#include "tools/play/scenario.h"
#include "tools/play/system_state.h"
#include "tools/play/timeline.h"

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace play {

inline constexpr const char* kService = "zepn";

class Run {
public:
    // A machine without the driver. `realTime`: the configured wait before sleep is really waited. `allowMissing`: images
    // may need what the host does not play.
    Run(const Scenario& scenario, Timeline& timeline, bool realTime, bool allowMissing = false);
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    // Loads the driver and, unless the scenario does that by a step, adds its device. Throws host::HostError when that
    // fails.
    void Boot(const std::filesystem::path& image);

    // Adds and starts the driver's device and asks it for its interfaces.
    NTSTATUS AddDevice();

    // Ends, as the system would, what the scenario left open, and sums up.
    void End();

    // All went as the scenario expects, and the host found nothing wrong.
    [[nodiscard]] bool IsGood() const { return good_; }

    const Scenario& scenario;
    Timeline& timeline;
    host::Machine machine;
    Peers peers;
    // From Boot on:
    host::Driver* driver = nullptr;
    ZEP_NOTIFIER_HELPER_INTERFACE helper{};
    ZEP_NOTIFIER_WPCD_INTERFACE wpcd{};
    host::FileId file = 0;  // of the control device; 0: not open
    SystemState::Device device = SystemState::Device::kNone;

    // ---- Calls of a step ----

    // Why the step cannot be done now; null when it can.
    [[nodiscard]] const char* ObstacleTo(const Step& step) const;
    // Shows that a step is left out; that is a finding.
    void LeaveOut(const Step& step, const char* obstacle);

    // Makes a call on a thread of the caller's, as a span of its own. Empty when it never returns.
    std::optional<NTSTATUS> Call(const Step& step, const std::string& who, const char* operation,
                                 const std::vector<std::string>& causes, const std::function<NTSTATUS()>& call);

    // Shows a call after its callbacks, so that everything is shown in the order in which it happened, and judges its
    // status by what the step expects.
    void Show(const Step& step, const std::string& who, const std::string& what, std::optional<NTSTATUS> status);

    // A finding, when a thread hangs.
    void ShowParked(const host::Outcome& outcome);

    // Removes the device, unloads the driver: empty when that never returns.
    std::optional<NTSTATUS> RemoveDevice();
    std::optional<NTSTATUS> Unload();

    // Shows what went wrong; true when the step is there to show just this.
    bool AddFinding(const std::string& text);

    // ---- What a step does wrong on purpose ----

    // Before a step: sets its fault and what finding it must end in.
    void Arm(const Step& step);
    // After it: shows what the host and the peers found.
    void ShowFindings();
    // At last: a fault that did not strike, a finding that did not come, and what was not shown, are findings too.
    void Disarm(const Step& step);

private:
    template <class Table>
    NTSTATUS Query(const GUID& type, Table& table);

    unsigned violations_ = 0;
    bool hangs_ = false;  // a thread of the driver's never returns
    std::optional<std::string> expectedFinding_;
    bool findingCame_ = false;
    bool good_ = true;
};

}  // namespace play
