// The framework that plays: its objects, its drivers, its namespace, its work queue.
//
// The functions of the table are free functions in one file per family; they find this through Framework::Current().
#pragma once

#include "host/checks/unused_stack.h"
#include "host/environment.h"
#include "host/framework/handle_table.h"
#include "host/framework/lock_order.h"
#include "host/image/image.h"
#include "host/kernel/kernel.h"
#include "host/schedule/threads.h"
#include "host/schedule/waiting.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace host::framework {

struct DeviceObject;
struct PlugPlayRegistration;

struct InterfaceChangeRecord {
    GUID interfaceClass;
    bool enabled;
};

// A driver that is loaded, from its image to its framework objects.
struct DriverInstance {
    std::string service;
    std::unique_ptr<image::LoadedImage> image;  // null after the unload and after a failed entry
    const void* imageBase = nullptr;            // kept for reports
    std::size_t imageSizeBytes = 0;
    NTSTATUS entryStatus = STATUS_SUCCESS;
    DRIVER_OBJECT driverObject{};
    DRIVER_EXTENSION extension{};
    WDF_DRIVER_GLOBALS* globals = nullptr;                // null while not bound
    WDFDRIVER hiddenDriver = nullptr;                     // what the globals held before a fault hid it
    DriverObject* driver = nullptr;                       // null before creation and after destruction
    std::list<DeviceObject*> devices;                     // oldest first
    std::vector<InterfaceChangeRecord> interfaceChanges;  // asked for by the driver, oldest first
    bool loaded = false;
};

// What the framework leaves to a system thread because it needs PASSIVE_LEVEL.
struct DeferredWork {
    const Object* owner;   // the device or driver whose removal waits for it; null: nobody's does
    const Object* object;  // that is disposed or destroyed; null for other work
    std::function<void()> work;
};
struct RunningDeferred {
    const Object* owner;
    schedule::ThreadId thread;  // kNobody until it has begun
};

class Framework {
public:
    Framework(Environment& environment, kernel::Kernel& kernel, schedule::Threads& threads);
    ~Framework();
    Framework(const Framework&) = delete;
    Framework& operator=(const Framework&) = delete;

    static Framework& Current();

    Environment& environment;
    kernel::Kernel& kernel;
    schedule::Threads& threads;
    std::mutex mutex;
    schedule::Waiting waiting;  // guarded by the mutex

    // ---- Objects (handle_table.cpp, objects.cpp) ----

    // Gives the object its handle and its place below the parent. The mutex is held.
    void Register(std::unique_ptr<Object> object, Object* parent);

    // The object behind a handle, whatever its type; null, with a violation, for a null, dead or foreign one.
    Object* ResolveAny(const PlatformCall& call, const void* handle, const char* argument);

    // The object behind a handle of one type; the mutex is held.
    template <class T>
    T* Resolve(const PlatformCall& call, const void* handle, const char* argument)
    {
        Object* object = ResolveAny(call, handle, argument);
        if (object != nullptr && object->type != kTypeOf<T>) {
            ReportWrongType(call, *object, argument, kTypeOf<T>);
            return nullptr;
        }
        return static_cast<T*>(object);
    }

    void Reference(Object& object) { ++object.references; }

    // A thread with something to wait for that can have no end is reported and parked; else true when it is over, and
    // false when its time is.
    bool WaitFor(std::unique_lock<std::mutex>& lock, const schedule::Wait& wait, const char* function,
                 const void* caller);

    // Reports a wait without an end and parks the calling thread.
    [[noreturn]] void ParkFor(std::unique_lock<std::mutex>& lock, const schedule::Wait& wait, schedule::Wake wake,
                              const char* function, const void* caller);

    // Runs work on a thread of the host, with every wait lock given back at its end, while this thread waits.
    schedule::Outcome RunOnThread(const std::string& name, const char* what, const void* routine,
                                  const std::function<void()>& work);

    // Gives up one reference; at 0 destroy callbacks run and the memory goes. The lock is released meanwhile.
    void Dereference(std::unique_lock<std::mutex>& lock, Object& object);

    // Disposes a live object and gives up its creation reference; later, on a system thread, when the level does not
    // allow it now. Ignored when the object is deleted already.
    void Delete(std::unique_lock<std::mutex>& lock, Object& object);
    void DisposeAndFinish(std::unique_lock<std::mutex>& lock, Object& object);
    void Dispose(std::unique_lock<std::mutex>& lock, Object& object);
    void Finish(std::unique_lock<std::mutex>& lock, Object& object);

    // Deletes that found the object deleted already: legal as long as somebody references it.
    [[nodiscard]] std::uint64_t SecondDeletes() const { return secondDeletes_; }

    HandleTable handles;
    [[nodiscard]] static std::string Describe(const Object& object);

    // ---- Attributes (attributes.cpp) ----

    enum class ParentRule { kOptional, kForbidden, kRequired };
    // The status that attributes earn at creation, checked in the framework's order. The mutex is held.
    static NTSTATUS CheckAttributes(const WDF_OBJECT_ATTRIBUTES* attributes, ObjectType type, ParentRule parentRule);
    // The parent named by the attributes, or the default; null when it cannot have children (status says why).
    Object* ParentFor(const PlatformCall& call, const WDF_OBJECT_ATTRIBUTES* attributes, Object* defaultParent,
                      NTSTATUS& status);
    void ApplyAttributes(Object& object, const WDF_OBJECT_ATTRIBUTES* attributes);
    const Context& AddContext(Object& object, const WDF_OBJECT_ATTRIBUTES& attributes);

    // ---- Drivers (binding.cpp, driver.cpp) ----

    std::list<std::unique_ptr<DriverInstance>> instances;
    DriverInstance* InstanceOf(const WDF_DRIVER_GLOBALS* globals);
    DriverInstance* InstanceOf(const DRIVER_OBJECT* driverObject);
    void HideDriverHandles(bool hide);
    void ReportObjectsLeft(DriverInstance& instance);

    // ---- Names and devices ----

    std::set<std::string> names;  // devices and symbolic links, lower case

    // ---- Who hears of device interfaces (plug_play.cpp) ----

    std::list<std::shared_ptr<PlugPlayRegistration>> plugPlayRegistrations;
    std::uintptr_t nextPlugPlayEntry = 0xFFFFC00000001000;  // never a usable address

    // ---- Work items (work_items.cpp) ----

    std::deque<WorkItemObject*> workQueue;
    std::deque<DeferredWork> deferredWork;  // the framework's own: what needs PASSIVE_LEVEL
    std::list<RunningDeferred> deferredRunning;
    std::condition_variable workChanged;
    unsigned workRunning = 0;
    void StartWorkers();
    void StopWorkers();
    // Runs the oldest queued callback on a thread of the host; false when none is queued.
    bool RunOneWorkItem(schedule::Outcome& outcome);
    void WaitForWorkItems();
    // Leaves an object's disposal or destruction to a system thread; the mutex is held.
    void Defer(const Object* owner, const Object& object, std::function<void()> work);
    // Waits until nothing is deferred for this device or driver; what no thread has begun yet is run for it.
    void WaitForDisposals(std::unique_lock<std::mutex>& lock, const Object& owner);
    void DisposeWorkItem(std::unique_lock<std::mutex>& lock, WorkItemObject& item);
    // Waits until the item is neither queued nor running; in pumped mode a queued callback is run for it.
    void WaitForRuns(std::unique_lock<std::mutex>& lock, WorkItemObject& item, const char* function,
                     const void* caller);

    // ---- Wait locks (wait_locks.cpp) ----

    LockOrder lockOrder;

    // Runs driver code that must come back with every lock given back; says which was kept when not.
    template <class Callback>
    auto Guarded(const char* callbackName, const void* routine, const Callback& callback)
    {
        const Regions before = RegionsNow();
        checks::FillUnusedStack();
        if constexpr (std::is_void_v<decltype(callback())>) {
            callback();
            CheckRegions(callbackName, routine, before);
        } else {
            const auto result = callback();
            CheckRegions(callbackName, routine, before);
            return result;
        }
    }

private:
    // What a thread has entered and not left.
    struct Regions {
        int count;
        std::vector<WDFOBJECT> locks;
        KIRQL level;
    };
    static Regions RegionsNow();
    void CheckRegions(const char* callbackName, const void* routine, const Regions& before);
    // Spin locks that the calling thread still holds although its callback is over; its level is put back.
    std::string TakeKeptSpinLocks(KIRQL levelBefore);

    void ReportWrongType(const PlatformCall& call, const Object& object, const char* argument, ObjectType wanted);
    void RunCleanup(std::unique_lock<std::mutex>& lock, Object& object, PFN_WDF_OBJECT_CONTEXT_CLEANUP cleanup);
    static void DisposeQueue(std::unique_lock<std::mutex>& lock, Object& queue);
    void Destroy(std::unique_lock<std::mutex>& lock, Object& object);
    void FreeObject(Object& object);  // without callbacks
    void Unlink(Object& object);
    void WorkerLoop(unsigned number);
    void RunCallback(WorkItemObject& item);
    void RunTaken(std::unique_lock<std::mutex>& lock, WorkItemObject& item, const std::string& threadName,
                  schedule::Outcome& outcome);
    // Runs the oldest deferred work, of one owner or of all; false when there is none.
    bool RunDeferred(std::unique_lock<std::mutex>& lock, const std::string& threadName, schedule::Outcome& outcome,
                     const Object* onlyOf = nullptr);
    // Whether the callbacks of an object, or of one in its tree, must run at PASSIVE_LEVEL.
    [[nodiscard]] static bool NeedsPassiveLevel(const Object& object);
    [[nodiscard]] static bool TreeNeedsPassiveLevel(const Object& object);
    [[nodiscard]] static const Object* OwnerOfDisposals(const Object& object);

    std::uint64_t secondDeletes_ = 0;
    std::vector<std::thread> workers_;
    bool stopping_ = false;
};

// Takes an item out of a collection, with the reference that it held; the framework's mutex is held.
[[nodiscard]] Object& TakeItem(CollectionObject& collection, std::size_t index);

// Checks a pointer that a call requires; false, with a violation, when it is null.
[[nodiscard]] bool Requires(const PlatformCall& call, const void* pointer, const char* argument);

// The table that drivers call through, 458 entries.
inline constexpr unsigned kFunctionCount = 458;
[[nodiscard]] const WDFFUNC* FunctionTable();

// Lets the kernel's ExUnregisterCallback wait among all other waits of driver threads (callback_waits.cpp).
void ConnectCallbackWaits(Framework& framework);

// Exports of the framework's loader; registered once per process.
void RegisterLoaderExports();

}  // namespace host::framework
