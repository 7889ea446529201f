// Fault injection: which call of which platform function fails, and how.
#pragma once

#include <ntddk.h>

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace host::checks {

// The forms in which a platform call can fail. A function ignores forms that it cannot have.
enum class FaultForm {
    kStatus,      // returns Fault::status with nothing done; outputs are what the function leaves when it fails
    kNull,        // returns NULL where it returns a pointer or handle (item, context, pool block, registration, driver)
    kNullOutput,  // returns STATUS_SUCCESS and stores NULL in its output
    kInforms,     // does its work and returns Fault::status, one of the success class
};

struct Fault {
    std::string function;     // "WdfCollectionAdd"; "WdfGetDriver" hides the driver handle in the globals
    std::string module = {};  // only calls from this image ("fan.sys"); empty: from any
    std::string caller = {};  // only calls from this driver function; empty: from anywhere
    std::string detail = {};  // only calls with this detail (context type name, routine name); empty: any
    unsigned skip = 0;        // let this many matching calls pass first
    unsigned count = 1;       // then fail this many; kAll: all of them
    FaultForm form = FaultForm::kStatus;
    NTSTATUS status = STATUS_INSUFFICIENT_RESOURCES;

    static constexpr unsigned kAll = ~0u;
};

// Where a call comes from.
struct CallSite {
    std::string module;    // "fan.sys"; empty: no image
    std::string function;  // "FanDeviceAdd"; empty: it has no name
};

// Faults are consumed in call order and stay until cleared. Thread-safe.
class FaultPlan {
public:
    void Add(Fault fault);
    void Clear();

    // How many calls the faults have made fail since the last Clear. A test asserts that its fault was injected.
    [[nodiscard]] unsigned InjectedCount() const;

    // Asked by every platform call with its name, where it was called from, which is looked up only for faults that
    // want to know, and its detail.
    [[nodiscard]] std::optional<Fault> Inject(const char* function, const std::function<CallSite()>& site,
                                              const char* detail);

    // Called when the driver handle in the globals is to be hidden (true) or shown again. Set by the framework.
    std::function<void(bool)> onHideDriver;

private:
    struct Armed {
        Fault fault;
        unsigned seen = 0;
    };
    mutable std::mutex mutex_;
    std::vector<Armed> armed_;
    unsigned injected_ = 0;
};

}  // namespace host::checks
