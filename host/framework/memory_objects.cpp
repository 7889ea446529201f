// Memory objects. Their buffers are blocks of the pool like those that a driver allocates itself: counted by tag,
// guarded at their ends, and gone with the object.
#include "host/framework/memory_objects.h"

#include "host/framework/functions.h"

#include <cstring>

namespace host::framework {

using checks::Rule;

namespace {

constexpr std::size_t kPageBytes = 4096;
constexpr std::size_t kAlignment = 16;

}  // namespace

PoolBuffer::PoolBuffer(kernel::Kernel& kernel, const kernel::PoolBlock& block)
    : kernel_(kernel), memory_(kernel.AllocatePool(block, block.sizeBytes >= kPageBytes ? kPageBytes : kAlignment))
{
}

PoolBuffer::~PoolBuffer()
{
    if (memory_ == nullptr) {
        return;
    }
    if (!kernel_.TakePool(memory_)) {
        kernel_.environment.Report(
            Rule::kPoolBadFree, "object end",
            "the buffer of a memory object is free already: the driver freed what is not its own", nullptr);
        return;
    }
    const std::string damage = kernel_.poolMemory.Free(memory_);
    if (!damage.empty()) {
        kernel_.environment.Report(Rule::kPoolCorrupted, "object end", "the buffer of a memory object: " + damage,
                                   nullptr);
    }
}

NTSTATUS CreateMemory(const PlatformCall& call, const WDF_DRIVER_GLOBALS* globals,
                      const WDF_OBJECT_ATTRIBUTES* attributes, const kernel::PoolBlock& block, WDFMEMORY* memory,
                      void** buffer)
{
    Framework& framework = Framework::Current();
    auto allocation = std::make_unique<PoolBuffer>(framework.kernel, block);
    if (allocation->get() == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return functions::Create<MemoryObject>(call, globals, attributes, memory, "Memory", [&](MemoryObject& object) {
        object.buffer = allocation->get();
        object.sizeBytes = block.sizeBytes;
        object.allocation = std::move(allocation);
        if (buffer != nullptr) {
            *buffer = object.buffer;
        }
    });
}

namespace functions {
namespace {

struct Range {
    NTSTATUS status;
    std::byte* begin;
};

// Where a copy of so many bytes lies in a memory object, or the status that says which side is too small. The copy
// itself is made without the framework's mutex: the driver's side of it may be no memory at all.
Range RangeIn(const MemoryObject& memory, std::size_t offset, std::size_t bytes, NTSTATUS tooSmall)
{
    if ((offset != 0 && offset >= memory.sizeBytes) || bytes > memory.sizeBytes - offset) {
        return {tooSmall, nullptr};
    }
    return {STATUS_SUCCESS, static_cast<std::byte*>(memory.buffer) + offset};
}

}  // namespace

NTSTATUS NTAPI MemoryCreate(PWDF_DRIVER_GLOBALS globals, PWDF_OBJECT_ATTRIBUTES attributes, POOL_TYPE poolType,
                            ULONG tag, size_t sizeBytes, WDFMEMORY* memory, PVOID* buffer)
{
    const bool isPaged = poolType == PagedPool;
    const PlatformCall call("WdfMemoryCreate", HOST_CALLER, isPaged ? APC_LEVEL : DISPATCH_LEVEL);
    if (!Requires(call, memory, "Memory")) {
        return STATUS_INVALID_PARAMETER;
    }
    if (sizeBytes == 0) {
        return STATUS_INVALID_PARAMETER;  // On purpose: the handle stays as it was, as the framework leaves it.
    }
    *memory = nullptr;
    if (poolType == NonPagedPool) {
        call.Violation(Rule::kBadParameter, "plain non-paged pool is executable; use NonPagedPoolNx");
    }
    return CreateMemory(call, globals, attributes,
                        {sizeBytes, tag != 0 || globals == nullptr ? tag : globals->DriverTag, isPaged, call.caller()},
                        memory, buffer);
}

NTSTATUS NTAPI MemoryCreatePreallocated(PWDF_DRIVER_GLOBALS globals, PWDF_OBJECT_ATTRIBUTES attributes, PVOID buffer,
                                        size_t sizeBytes, WDFMEMORY* memory)
{
    const PlatformCall call("WdfMemoryCreatePreallocated", HOST_CALLER, DISPATCH_LEVEL);
    if (!Requires(call, buffer, "Buffer") || !Requires(call, memory, "Memory")) {
        return STATUS_INVALID_PARAMETER;
    }
    *memory = nullptr;
    if (sizeBytes == 0) {
        return STATUS_INVALID_PARAMETER;
    }
    return Create<MemoryObject>(call, globals, attributes, memory, "Memory", [&](MemoryObject& object) {
        object.buffer = buffer;
        object.sizeBytes = sizeBytes;
        object.isPreallocated = true;
    });
}

PVOID NTAPI MemoryGetBuffer(PWDF_DRIVER_GLOBALS, WDFMEMORY handle, size_t* sizeBytes)
{
    const PlatformCall call("WdfMemoryGetBuffer", HOST_CALLER, DISPATCH_LEVEL);
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    const auto* memory = framework.objects.Resolve<MemoryObject>(call, handle, "Memory");
    if (memory == nullptr) {
        return nullptr;
    }
    if (sizeBytes != nullptr) {
        *sizeBytes = memory->sizeBytes;
    }
    return memory->buffer;
}

NTSTATUS NTAPI MemoryAssignBuffer(PWDF_DRIVER_GLOBALS, WDFMEMORY handle, PVOID buffer, size_t sizeBytes)
{
    const PlatformCall call("WdfMemoryAssignBuffer", HOST_CALLER, DISPATCH_LEVEL);
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    auto* memory = framework.objects.Resolve<MemoryObject>(call, handle, "Memory");
    if (memory == nullptr || !Requires(call, buffer, "Buffer")) {
        return STATUS_INVALID_PARAMETER;
    }
    if (!memory->isPreallocated) {
        call.Violation(Rule::kWrongHandleType, Describe(*memory) + " has a buffer of its own");
        return STATUS_INVALID_PARAMETER;
    }
    if (sizeBytes == 0) {
        return STATUS_INVALID_PARAMETER;
    }
    memory->buffer = buffer;
    memory->sizeBytes = sizeBytes;
    return call.Done();
}

NTSTATUS NTAPI MemoryCopyToBuffer(PWDF_DRIVER_GLOBALS, WDFMEMORY handle, size_t offset, PVOID buffer, size_t sizeBytes)
{
    const PlatformCall call("WdfMemoryCopyToBuffer", HOST_CALLER, DISPATCH_LEVEL);
    Framework& framework = Framework::Current();
    Range source{};
    {
        const std::lock_guard lock(framework.mutex);
        const auto* memory = framework.objects.Resolve<MemoryObject>(call, handle, "SourceMemory");
        if (memory == nullptr || !Requires(call, buffer, "Buffer") || sizeBytes == 0) {
            return STATUS_INVALID_PARAMETER;
        }
        source = RangeIn(*memory, offset, sizeBytes, STATUS_BUFFER_TOO_SMALL);
    }
    if (NT_SUCCESS(source.status)) {
        std::memcpy(buffer, source.begin, sizeBytes);
    }
    return source.status;
}

NTSTATUS NTAPI MemoryCopyFromBuffer(PWDF_DRIVER_GLOBALS, WDFMEMORY handle, size_t offset, PVOID buffer,
                                    size_t sizeBytes)
{
    const PlatformCall call("WdfMemoryCopyFromBuffer", HOST_CALLER, DISPATCH_LEVEL);
    Framework& framework = Framework::Current();
    Range destination{};
    {
        const std::lock_guard lock(framework.mutex);
        const auto* memory = framework.objects.Resolve<MemoryObject>(call, handle, "DestinationMemory");
        if (memory == nullptr || !Requires(call, buffer, "Buffer") || sizeBytes == 0) {
            return STATUS_INVALID_PARAMETER;
        }
        if (memory->isReadOnly) {
            call.Violation(Rule::kBadParameter, Describe(*memory) + " is only to be read");
            return STATUS_ACCESS_VIOLATION;
        }
        destination = RangeIn(*memory, offset, sizeBytes, STATUS_INVALID_BUFFER_SIZE);
    }
    if (NT_SUCCESS(destination.status)) {
        std::memcpy(destination.begin, buffer, sizeBytes);
    }
    return destination.status;
}

}  // namespace functions
}  // namespace host::framework
