// The framework that plays: the parts that hold its state, each with an interface and rules of its own.
//
// The functions of the table are free functions in one file per family; they find this through Framework::Current().
#pragma once

#include "host/environment.h"
#include "host/framework/device_names.h"
#include "host/framework/driver_threads.h"
#include "host/framework/drivers.h"
#include "host/framework/handle_table.h"
#include "host/framework/lock_order.h"
#include "host/framework/object_tree.h"
#include "host/framework/plug_play_registrations.h"
#include "host/framework/work_queue.h"
#include "host/kernel/kernel.h"

#include <mutex>

namespace host::framework {

class Framework {
public:
    Framework(Environment& machineEnvironment, kernel::Kernel& machineKernel, schedule::Threads& machineThreads);
    ~Framework();
    Framework(const Framework&) = delete;
    Framework& operator=(const Framework&) = delete;

    static Framework& Current() { return *current_; }

    Environment& environment;
    kernel::Kernel& kernel;

    // Guards all objects, and with them whatever a thread may wait for, so that one look finds a wait without an end.
    // Never held while driver code runs. While it is held the locks of single parts may be taken, never the other way
    // round: the kernel's, and those of the two parts that have one of their own.
    std::mutex mutex;

    HandleTable handles;
    ObjectTree objects;
    DriverThreads threads;
    WorkQueue work;
    LockOrder lockOrder;
    Drivers drivers;
    DeviceNames names;                    // has a lock of its own
    PlugPlayRegistrations registrations;  // has a lock of its own

private:
    static inline Framework* current_ = nullptr;
};

// Checks a pointer that a call requires; false, with a violation, when it is null.
[[nodiscard]] bool Requires(const PlatformCall& call, const void* pointer, const char* argument);

// The table that drivers call through, 458 entries.
inline constexpr unsigned kFunctionCount = 458;
[[nodiscard]] const WDFFUNC* FunctionTable();
struct TableEntry {
    const char* name;
    bool isPlayed;
    bool hasResult;  // it returns a status or a pointer
};
[[nodiscard]] TableEntry EntryAt(unsigned index);

// Lets the kernel's ExUnregisterCallback wait among all other waits of driver threads (callback_waits.cpp).
void ConnectCallbackWaits(Framework& framework);

// Exports of the framework's loader; registered once per process.
void RegisterLoaderExports();
void RegisterClassBindingExports();

}  // namespace host::framework
