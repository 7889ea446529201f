// Who is notified of the arrival and removal of device interfaces.
#pragma once

#include "host/checks/call_path.h"

#include <ntddk.h>

#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <vector>

namespace host::framework {

struct DriverInstance;

struct PlugPlayRegistration {
    const GUID interfaceClass;
    const PDRIVER_NOTIFICATION_CALLBACK_ROUTINE routine;
    void* const context;
    const DriverInstance* const driver;
    const checks::Addresses registeredBy;
};

// Its own mutex guards it, so any thread may call, the framework's mutex held or not; no other is taken meanwhile.
class PlugPlayRegistrations {
public:
    struct Entry;
    using Reference = std::shared_ptr<Entry>;

    Reference Add(const PlugPlayRegistration& registration);
    // Its routine is not entered any more; null for a handle of none.
    Reference Remove(const void* handle);
    std::vector<Reference> RemoveAllOf(const DriverInstance& driver);
    [[nodiscard]] std::vector<Reference> Of(const GUID& interfaceClass) const;

    // Says that the calling thread goes into the routine; false when it is removed already.
    [[nodiscard]] bool Enter(Entry& entry);
    void Leave(Entry& entry);
    // The threads inside the routine now.
    [[nodiscard]] std::vector<std::uint64_t> RunningOn(const Entry& entry) const;

    struct Entry {
        const PlugPlayRegistration registration;
        void* const handle;

    private:
        friend class PlugPlayRegistrations;
        Entry(const PlugPlayRegistration& what, void* itsHandle) : registration(what), handle(itsHandle) {}
        bool removed = false;
        std::vector<std::uint64_t> runningOn;
    };

private:
    mutable std::mutex mutex_;
    std::list<Reference> entries_;
    std::uintptr_t nextHandle_ = 0xFFFFC00000001000;  // never a usable address
};

}  // namespace host::framework
