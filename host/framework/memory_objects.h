// Memory objects: a buffer from the pool, one that the driver lends, or one of a request.
#pragma once

#include "host/framework/object.h"
#include "host/kernel/kernel.h"

#include <cstddef>
#include <cstdint>

namespace host::framework {

// A block of the pool that goes back with its owner. What was written around it is reported then.
class PoolBuffer {
public:
    PoolBuffer(kernel::Kernel& kernel, const kernel::PoolBlock& block);
    ~PoolBuffer();
    PoolBuffer(const PoolBuffer&) = delete;
    PoolBuffer& operator=(const PoolBuffer&) = delete;

    [[nodiscard]] void* get() const { return memory_; }  // null when the pool is exhausted

private:
    kernel::Kernel& kernel_;
    void* memory_;
};

struct MemoryObject final : Object {
    explicit MemoryObject(DriverInstance* owner) : Object(ObjectType::kMemory, owner) {}
    void* buffer = nullptr;
    std::size_t sizeBytes = 0;
    bool isReadOnly = false;
    bool isPreallocated = false;             // lent by the driver, which may assign another
    std::unique_ptr<PoolBuffer> allocation;  // null: the buffer is not the object's
};

template <>
inline constexpr ObjectType kTypeOf<MemoryObject> = ObjectType::kMemory;

// Creates a memory object with a buffer of its own; the level is checked by the caller.
NTSTATUS CreateMemory(const PlatformCall& call, const WDF_DRIVER_GLOBALS* globals,
                      const WDF_OBJECT_ATTRIBUTES* attributes, const kernel::PoolBlock& block, WDFMEMORY* memory,
                      void** buffer);

}  // namespace host::framework
