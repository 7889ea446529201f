// What a driver holds at a moment, by the calls that made it: for who asks whether it grows.
#pragma once

#include "host/checks/call_path.h"
#include "host/framework/drivers.h"

#include <cstddef>
#include <string>
#include <vector>

namespace host::framework {

class Framework;

struct Holding {
    std::string what;  // "general object (FAN_COMMAND)", "block of pool with tag \"Fan1\""
    std::size_t count = 0;
    checks::Addresses madeBy;  // of the first; the last address lies in the driver
};

// The driver's objects and pool blocks, those of one kind from one place together. What the framework made for it is
// not among them. Takes the mutex.
[[nodiscard]] std::vector<Holding> HoldingsOf(Framework& framework, const DriverInstance& driver);

}  // namespace host::framework
