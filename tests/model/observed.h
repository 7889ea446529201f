// A sequence on the driver, through its binary interface.
#pragma once

#include "tests/kit/driver_harness.h"
#include "tests/model/model.h"

#include <cstdint>
#include <filesystem>
#include <functional>

namespace model {

// Called with the offset in the image of each platform call; empty by default. Shows which way a sequence went, the
// same from load to load.
inline std::function<void(std::uintptr_t)> onPlatformCall;

class ObservedRun {
public:
    ObservedRun(const Sequence& sequence, const std::filesystem::path& image);

    [[nodiscard]] Outcome Do(const Operation& operation);
    [[nodiscard]] InternalState State();

    // What the host found since the last call, one line each.
    [[nodiscard]] std::vector<std::string> TakeViolations();

    // Removes the device and unloads the driver; false when it cannot go. Not for a driver in which a thread hangs.
    [[nodiscard]] bool TakeDown();

private:
    void DoSetup(Kind kind);

    std::vector<Script> scripts_;
    unsigned callsLeft_ = 0;  // platform calls that the operation may still make
    tests::DriverHarness harness_;
};

}  // namespace model
