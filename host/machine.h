// The façade of the host: a machine that plays kernel, framework and tracing runtime for driver images.
//
//     host::Machine machine;
//     host::Driver& driver = machine.Load("out/x64/zepn.sys", "zepn");
//     driver.AddDevice();
//     driver.StartDevice();
//     ... driver.QueryInterface(...), driver.Open(), machine.RunWorkItems() ...
//     driver.SurpriseRemoveDevice();
//     driver.Unload();
//     machine.violations().Count() == 0
//
// One machine at a time may exist in a process. All calls into driver code happen on the calling thread unless said.
#pragma once

#include "host/driver.h"
#include "host/environment.h"
#include "host/framework/inspector.h"
#include "host/kernel/registry.h"
#include "host/results.h"
#include "host/schedule/threads.h"
#include "host/tracing/tracing.h"

#include <ntddk.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace host {

namespace kernel {
class Kernel;
}
namespace framework {
class Framework;
}

using kernel::RegistryNumber;

class Machine {
public:
    explicit Machine(MachineOptions options = {});
    ~Machine();
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    // Maps an image (PE .sys for this processor, or a native .so), binds its imports and runs its entry point.
    // Throws HostError with file, place and reason when the image is refused; a failing entry point is no refusal.
    Driver& Load(const std::filesystem::path& image, const std::string& serviceName);

    // All from nothing to a started device; throws HostError when a step fails.
    Driver& Boot(const std::filesystem::path& image, const std::string& serviceName);

    // The names of all platform functions that the host has; "WdfGetDriver", an inline function that reads the globals,
    // among them.
    [[nodiscard]] static std::vector<std::string> PlatformFunctions();

    // Of these, the functions that return a status or a pointer.
    [[nodiscard]] static std::vector<std::string> FunctionsWithResult();

    // Registry: values below HKLM\...\Services\<service>\Parameters. SetValue creates the key.
    void SetRegistryValue(const std::string& serviceName, const std::string& name, std::uint32_t value);
    void SetRegistryString(const std::string& serviceName, const std::string& name, const std::string& value);
    // The numbers below the key, in the order in which they were first written.
    [[nodiscard]] std::vector<RegistryNumber> RegistryNumbers(const std::string& serviceName) const;

    // Work items (pumped mode). Each callback runs on a worker thread of the host while the caller waits; one that
    // parks is set aside and reported. RunWorkItems goes on until none is queued; RunOneWorkItem runs the oldest.
    PumpResult RunWorkItems();
    PumpResult RunOneWorkItem();
    [[nodiscard]] std::size_t QueuedWorkItems() const;
    // The routine of the oldest queued work item, as the image's symbols name it; empty when none is queued.
    [[nodiscard]] std::string NextWorkItem() const;
    [[nodiscard]] bool IsNextWorkItemOf(const Driver& driver) const;

    // Worker threads (threaded mode): returns when nothing is queued or running.
    void WaitForWorkItems();

    // Runs work on a client thread of its own and waits until it returns or parks.
    Outcome OnThread(const std::string& name, const std::function<void()>& work);

    // \Callback\PowerState: notifies every registered routine in order, on the calling thread.
    void NotifyPowerState(std::uintptr_t argument1, std::uintptr_t argument2);

    // What drivers printed for the debugger, and whose code lies at an address (empty: nobody's).
    [[nodiscard]] std::vector<std::string> DebugOutput() const;
    [[nodiscard]] std::string ServiceAt(const void* address) const;

    // The machine's clock, in 100 ns units since boot. It moves on by the delays that drivers ask for, and by
    // AdvanceClock; what is due meanwhile runs on this thread.
    [[nodiscard]] std::int64_t Now() const;
    void AdvanceClock(std::chrono::nanoseconds duration);

    // Delays that driver code asked for since boot, in 100 ns units as given (negative: relative).
    [[nodiscard]] std::vector<std::int64_t> Delays() const;

    [[nodiscard]] checks::Violations& violations();
    [[nodiscard]] checks::FaultPlan& faults();
    [[nodiscard]] tracing::Tracing& tracing();
    [[nodiscard]] Environment& environment();

    // Framework objects as they are now: handles, types, parents, references, contexts, collection contents.
    [[nodiscard]] framework::Inspector inspect();

    // Declares a place in the order of locks: from now on a thread may take this lock only while the other ranked locks
    // that it holds are all of lower ranks. Locks without a rank must keep to the orders that the machine sees. Throws
    // HostError when the handle is no wait lock.
    void RankLock(WDFWAITLOCK handle, unsigned rank);

    // A name for an object in reports ("clients lock"); deletes that found an object deleted already.
    void NameObject(WDFOBJECT handle, const std::string& name);
    [[nodiscard]] std::uint64_t SecondDeletes() const;

    // How often a walk through an existing collection stepped from one item to the next: the framework's collections
    // are lists, and a look-up by index begins at the head.
    [[nodiscard]] std::uint64_t CollectionSteps() const;

    // Pool allocations alive: count, bytes and by tag.
    struct PoolUse {
        std::uint32_t tag;
        std::size_t blockCount;
        std::size_t sizeBytes;
    };
    [[nodiscard]] std::vector<PoolUse> PoolInUse() const;

private:
    std::unique_ptr<Environment> environment_;
    std::unique_ptr<kernel::Kernel> kernel_;
    std::unique_ptr<tracing::Tracing> tracing_;
    std::unique_ptr<schedule::Threads> threads_;
    std::unique_ptr<framework::Framework> framework_;
    std::vector<std::unique_ptr<Driver>> drivers_;
};

}  // namespace host
