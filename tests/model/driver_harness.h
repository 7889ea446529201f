// The real driver through its binary interface, made to do a sequence's operations and watched from all sides.
#pragma once

#include "tests/model/model.h"

#include "host/machine.h"

#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>

namespace model {

// Told where in the image each platform call stands, as an offset; empty by default. It measures where a sequence went in
// the same way from load to load.
inline std::function<void(std::uintptr_t)> onPlatformCall;

class DriverHarness {
public:
    DriverHarness(const Sequence& sequence, const std::filesystem::path& image);
    ~DriverHarness();
    DriverHarness(const DriverHarness&) = delete;
    DriverHarness& operator=(const DriverHarness&) = delete;

    [[nodiscard]] Outcome Do(const Operation& operation);
    [[nodiscard]] InternalState Count();

    // What the host found so far, one line each, and forgets thereby.
    [[nodiscard]] std::vector<std::string> TakeViolations();

    // Removes the device and unloads the driver; false when it cannot go. Not for a driver in which a thread stands
    // still.
    [[nodiscard]] bool TakeDown();

private:
    struct Peer;
    struct Callbacks;

    // What an operation does that is no run of work items.
    NTSTATUS Call(const Operation& operation);
    NTSTATUS CallForClient(const Operation& operation, Peer& peer);
    NTSTATUS CallDump(const Operation& operation, Peer& peer);
    NTSTATUS CallDescribe(const Operation& operation);
    void Run(const host::PumpResult& result);
    void CheckDescriptor(const ZEP_SUBSYSTEM_DESCRIPTOR& descriptor, std::string& line) const;
    [[nodiscard]] std::string DescriptorLine(const ZEP_SUBSYSTEM_DESCRIPTOR& descriptor) const;
    void Tell(std::string line) { outcome_.told.push_back(std::move(line)); }

    const Sequence& sequence_;
    std::deque<Peer> peers_;
    host::Machine machine_;
    host::Driver* driver_ = nullptr;
    ZEP_NOTIFIER_HELPER_INTERFACE helper_{};
    ZEP_NOTIFIER_WPCD_INTERFACE wpcd_{};
    host::FileId file_ = 0;
    Outcome outcome_;
    unsigned callsLeft_ = 0;  // platform calls that the operation may still make
};

}  // namespace model
