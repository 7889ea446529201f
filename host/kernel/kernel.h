// The kernel of the machine: pool, clock, callback objects, registry, delays, system routines.
//
// The functions that images import (ntddk.h) are defined beside it, one file per family; they find the kernel through
// Kernel::Current(), of which there is one per machine.
#pragma once

#include "host/environment.h"
#include "host/kernel/clock.h"
#include "host/kernel/memory.h"
#include "host/kernel/registry.h"

#include <ntddk.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace host::kernel {

struct PoolUseRow {
    std::uint32_t tag;
    std::size_t blockCount;
    std::size_t sizeBytes;
};

struct PoolBlock {
    std::size_t sizeBytes;
    std::uint32_t tag;
    bool paged;
    // Where in the image it was allocated; null once that image is unmapped without having freed it.
    const void* caller = nullptr;
    checks::Addresses path = {};
};

struct CallbackRegistration {
    std::uintptr_t handle;
    PCALLBACK_FUNCTION function;
    void* context;
    checks::Addresses registeredBy;
    bool removed = false;
    std::vector<std::uint64_t> runningOn;  // threads inside the routine now
};

struct CallbackObject {
    std::uintptr_t handle;
    std::string name;  // lower case
    bool allowsSeveral;
    long references;                    // the system's own included
    std::vector<const void*> openedBy;  // callers that hold a reference
    std::vector<std::shared_ptr<CallbackRegistration>> registrations;
};

// A spin lock in a driver's own memory that somebody holds.
struct HeldSpinLock {
    std::string name;  // for reports
    std::uint64_t holderId;
    std::string holderName;
    const void* takenAt;     // where in an image
    KIRQL level;             // that its holder runs at
    bool abandoned = false;  // its holder's callback is over: nobody will give it back
};

class Kernel {
public:
    explicit Kernel(Environment& environment);
    ~Kernel();
    Kernel(const Kernel&) = delete;
    Kernel& operator=(const Kernel&) = delete;

    static Kernel& Current();

    [[nodiscard]] Registry& registry() { return registry_; }
    [[nodiscard]] GuardedMemory& contextMemory() { return contextMemory_; }

    // Calls every routine registered on \Callback\PowerState, or on another object, in order of registration, on this
    // thread.
    void NotifyPowerState(std::uintptr_t argument1, std::uintptr_t argument2);
    void Notify(const std::vector<std::shared_ptr<CallbackRegistration>>& registrations, std::uintptr_t argument1,
                std::uintptr_t argument2);

    [[nodiscard]] std::vector<std::int64_t> Delays() const;
    [[nodiscard]] std::vector<PoolUseRow> PoolInUse() const;

    // Contents undefined; null when the machine's pool is exhausted.
    [[nodiscard]] void* AllocatePool(const PoolBlock& block, std::size_t alignment);
    // Takes a block out of the list of those in use; its memory is the caller's to free. Empty for another address.
    [[nodiscard]] std::optional<PoolBlock> TakePool(void* address);
    // Each block that is in use; none is freed meanwhile.
    void ForEachPoolBlock(const std::function<void(const void* block, const PoolBlock& use)>& visit);
    [[nodiscard]] std::vector<std::string> DebugOutput() const;

    // What an image still holds when it is unmapped: pool blocks it allocated, callback registrations whose routine
    // lies in it (these are dropped), callback-object references it holds. Each is reported.
    void ReportLeaksOf(const void* imageBase, std::size_t imageSizeBytes);

    Environment& environment;
    Clock clock;

    // ---- For the kernel's functions ----
    std::mutex mutex;
    // How threads wait for one another is the framework's to know: it sets both.
    std::function<void(const PlatformCall& call, const std::shared_ptr<CallbackRegistration>& registration)>
        waitForRoutine;  // until no thread is inside; without the mutex
    std::function<void()> onRoutineLeft;
    std::function<void(const void* routine, const std::function<void()>& call)>
        callRoutine;  // and check how it returns
    GuardedMemory poolMemory;
    std::vector<std::unique_ptr<CallbackObject>> callbackObjects;
    std::uintptr_t nextHandle = 0xFFFFD00000001000;  // never a usable address
    std::vector<std::int64_t> delays;
    std::map<const KSPIN_LOCK*, HeldSpinLock> heldSpinLocks;  // guarded by the mutex of all waits, the framework's
    std::vector<std::string> debugOutput;

    [[nodiscard]] std::vector<const void*> SpinLocksHeld(std::uint64_t threadId) const;
    // Those that a thread holds although its callback, which began with these, is over: nobody will give them back.
    [[nodiscard]] std::vector<HeldSpinLock> AbandonSpinLocks(std::uint64_t threadId,
                                                             const std::vector<const void*>& before);

    // Null for an unknown handle or name. The caller holds the mutex.
    CallbackObject* FindCallbackObject(const void* handle);
    CallbackObject* FindCallbackObject(const std::string& lowerCaseName);
    // Deletes callback objects that nobody references or is registered on. The caller holds the mutex.
    void DropUnusedCallbackObjects();

private:
    std::unordered_map<void*, PoolBlock> pool_;
    std::size_t poolBytes_ = 0;
    Registry registry_;
    GuardedMemory contextMemory_;
};

// A pool tag as reports show it: "Fan1", in quotes.
[[nodiscard]] std::string QuotedTag(std::uint32_t tag);
// Lower-case ASCII form of a counted UTF-16 string; other characters become '?'.
[[nodiscard]] std::string Narrow(const UNICODE_STRING& text);
// What the framework demands of every counted string: whole characters, within a buffer.
[[nodiscard]] bool IsWellFormed(const UNICODE_STRING& text);
// A name as a call's detail: empty when there is none, or a malformed one.
[[nodiscard]] std::string NameText(PCUNICODE_STRING name);
[[nodiscard]] std::string LowerCase(std::string text);

// The routines that MmGetSystemRoutineAddress finds, by name; null for others.
[[nodiscard]] void* FindSystemRoutine(const std::string& name, const MachineOptions& options);

// Registers the exports of ntoskrnl.exe with the image loader; done once per process.
void RegisterKernelExports();
void RegisterTimeExports();
void RegisterCLibraryExports();

}  // namespace host::kernel
