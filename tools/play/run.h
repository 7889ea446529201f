// One run of a scenario: the machine with the driver on it, the peers, and what the run has come to so far. Steps call
// the driver through it, so that every call is told in the same way and whatever goes wrong is judged in one place.
#pragma once

#include "host/machine.h"
#include "tools/play/clients.h"
#include "tools/play/scenario.h"
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
    // A machine without the driver. `realTime`: the configured wait before sleep is really waited.
    Run(const Scenario& scenario, Timeline& timeline, bool realTime);
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

    // ---- Calls of a step ----

    // Makes a call on a thread of the caller's, as a stretch of its own. Empty when it never returns.
    std::optional<NTSTATUS> Call(const Step& step, const std::string& who, const char* operation,
                                 const std::vector<std::string>& causes, const std::function<NTSTATUS()>& call);

    // Shows a call behind its callbacks, so that what it did is told in the order in which it happened, and judges its
    // status by what the step expects.
    void Show(const Step& step, const std::string& who, const std::string& what, std::optional<NTSTATUS> status);

    // Trouble, when a thread stands still.
    void ShowParked(const host::Outcome& outcome);

    // ---- What a step does wrong on purpose ----

    // Before a step: sets its fault and what trouble it must end in.
    void Arm(const Step& step);
    // After it: shows what the host and the peers found.
    void ShowFinding();
    // At last: a fault that did not strike, trouble that did not come, and what was not shown, are trouble too.
    void Disarm(const Step& step);

private:
    template <class Table>
    void Query(const GUID& type, Table& table);

    // True when the step is there to show just this.
    bool Trouble(const std::string& text);

    unsigned violations_ = 0;
    bool stuck_ = false;  // a thread of the driver's never comes back
    std::optional<std::string> expectedFinding_;
    bool findingCame_ = false;
    bool good_ = true;
};

}  // namespace play
