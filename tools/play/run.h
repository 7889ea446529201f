// One run of a scenario: the machine with the drivers on it, the scripted peers, and what the run has come to so far.
// Steps call the drivers through it, so that every call is shown in the same way and whatever goes wrong is judged in
// one place.
#pragma once

#include "host/machine.h"
#include "tools/play/clients.h"
#include "tools/play/player.h"
#include "tools/play/scenario.h"
#include "tools/play/system_state.h"
#include "tools/play/timeline.h"

#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace play {

inline constexpr const char* kService = "zepn";

class Run {
public:
    // A machine without drivers.
    Run(const Scenario& scenario, const PlayOptions& options, Timeline& timeline);
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    // Brings the Notifier to where the scenario begins. Throws ScenarioError when a client's image is missing,
    // and host::HostError when the Notifier's image cannot be loaded and started.
    void Boot();

    // Ends, as the system would, what the scenario left open, and sums up.
    void End();

    // All went as the scenario expects, and the host found nothing wrong.
    [[nodiscard]] bool IsGood() const { return good_; }

    const Scenario& scenario;
    Timeline& timeline;
    host::Machine machine;
    Peers peers;
    std::map<std::string, host::Driver*> clientDrivers;  // of the real clients: those that were loaded, the last time
    // The Notifier, from its first load on:
    host::Driver* driver = nullptr;
    ZEP_NOTIFIER_HELPER_INTERFACE helper{};
    ZEP_NOTIFIER_WPCD_INTERFACE wpcd{};
    host::FileId file = 0;  // of the control device; 0: not open
    SystemState state;      // as it really is

    // The images of this run, the Notifier's and those of the real clients.
    [[nodiscard]] const std::filesystem::path& image() const { return options_.image; }
    [[nodiscard]] const std::filesystem::path& ImageOf(const std::string& client) const { return images_.at(client); }

    // The state of a registered client, as the Notifier has it; empty when no client has the identity.
    [[nodiscard]] std::optional<std::uint32_t> RegisteredState(const GUID& guid);

    // ---- Calls of a step ----

    // Why the step cannot be done now; null when it can.
    [[nodiscard]] const char* ObstacleTo(const Step& step);
    // Shows that a step is left out; that is a finding.
    void LeaveOut(const Step& step, const char* obstacle);

    // Makes a call on a thread of the caller's, as a span of its own. Empty when it never returns.
    std::optional<NTSTATUS> Call(const Step& step, const std::string& who, const std::string& operation,
                                 const std::vector<std::string>& causes, const std::function<NTSTATUS()>& call);

    // Shows a call after its callbacks, so that everything is shown in the order in which it happened, and judges its
    // status by what the step expects.
    void Show(const Step& step, const std::string& who, const std::string& what, std::optional<NTSTATUS> status,
              const std::string& whom = kNotifier);

    // A finding, when a thread hangs.
    void ShowParked(const host::Outcome& outcome);

    // Adds and starts the Notifier's device and asks it for its interfaces.
    NTSTATUS AddDevice();
    // Loads the Notifier and adds its device; where one fails, the system unloads the driver. Empty when one never
    // returns.
    std::optional<NTSTATUS> LoadNotifier(const Step& step);
    // Removes the Notifier's device.
    std::optional<NTSTATUS> RemoveDevice();

    // Removes the device of a driver, unloads a driver: empty when that never returns.
    std::optional<NTSTATUS> Remove(host::Driver& removed);
    std::optional<NTSTATUS> Unload(host::Driver& unloaded);

    // Shows what went wrong; true when the step is there to show just this.
    bool AddFinding(const std::string& text, const std::string& path = "");

    // ---- What a step does wrong on purpose ----

    // Before a step: sets its fault and what finding it must end in.
    void Arm(const Step& step);
    // After it: shows what the host and the peers found.
    void ShowFindings();
    // At last: a fault that was not injected, a finding that did not come, and what was not shown, are findings too.
    void Disarm(const Step& step);

private:
    template <class Table>
    NTSTATUS Query(const GUID& type, Table& table);
    void Print(const std::string& text, const void* caller);
    // What the timeline calls the driver whose code lies there.
    [[nodiscard]] std::string NameAt(const void* caller) const;
    void EndClients();

    const PlayOptions& options_;
    std::map<std::string, std::filesystem::path> images_;
    unsigned violations_ = 0;  // unexpected ones
    unsigned expected_ = 0;    // findings that the file asks for
    unsigned hangs_ = 0;       // threads of drivers that never return
    std::optional<std::string> expectedFinding_;
    bool findingCame_ = false;
    bool good_ = true;
};

}  // namespace play
