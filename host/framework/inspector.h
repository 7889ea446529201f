// A look at the framework's objects from outside: what a test or a viewer sees of a driver's inner state.
#pragma once

#include <ntddk.h>

#ifndef KMDF_VERSION_MAJOR
#define KMDF_VERSION_MAJOR 1
#define KMDF_VERSION_MINOR 15
#endif
#include <wdf.h>

#include <cstddef>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace host::framework {

enum class ObjectType {
    kDriver,
    kDevice,
    kQueue,
    kRequest,
    kFileObject,
    kCollection,
    kWaitLock,
    kSpinLock,
    kWorkItem,
    kTimer,
    kMemory,
    kString,
    kResourceList,
    kKey,
    kIoTarget,
    kGeneral
};
inline constexpr std::size_t kObjectTypeCount = static_cast<std::size_t>(ObjectType::kGeneral) + 1;

[[nodiscard]] const char* Name(ObjectType type);

struct ContextSnapshot {
    std::string_view typeName;         // the driver's; valid as long as its image is loaded
    std::span<const std::byte> bytes;  // the live context; valid as long as the object
};

struct ObjectSnapshot {
    WDFOBJECT handle = nullptr;
    ObjectType type = ObjectType::kGeneral;
    long references = 0;
    bool deleted = false;  // delete has run; kept alive by references
    WDFOBJECT parent = nullptr;
    std::vector<WDFOBJECT> children;  // creation order
    std::vector<WDFOBJECT> items;     // collections: contents, first to last
    std::vector<ContextSnapshot> contexts;
    bool held = false;                            // wait and spin locks: acquired now
    bool queued = false;                          // work items: waiting to run; timers: waiting to come due
    const WDF_IO_QUEUE_CONFIG* config = nullptr;  // queues; valid as long as the object
};

class Inspector {
public:
    // All objects whose memory is still there, in creation order.
    [[nodiscard]] std::vector<ObjectSnapshot> Objects() const;
    [[nodiscard]] std::vector<ObjectSnapshot> Objects(ObjectType type) const;

    // Empty when the handle is dead or was never one.
    [[nodiscard]] std::optional<ObjectSnapshot> Find(WDFOBJECT handle) const;

    // Objects alive that carry a context of this type name.
    [[nodiscard]] std::vector<ObjectSnapshot> WithContext(std::string_view typeName) const;

    // A copy of an object's context of this type name; empty when there is none or its size differs.
    template <class T>
    [[nodiscard]] std::optional<T> Context(WDFOBJECT handle, std::string_view typeName) const
    {
        const std::optional<ObjectSnapshot> object = Find(handle);
        if (!object) {
            return std::nullopt;
        }
        for (const ContextSnapshot& context : object->contexts) {
            if (context.typeName == typeName && context.bytes.size() == sizeof(T)) {
                T copy;
                std::memcpy(&copy, context.bytes.data(), sizeof(T));
                return copy;
            }
        }
        return std::nullopt;
    }
};

}  // namespace host::framework
