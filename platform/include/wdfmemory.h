// Memory objects: a buffer with a handle, which the framework frees. Included by wdf.h.
#pragma once

WDF_DECLARE_HANDLE(WDFMEMORY);

typedef struct _WDFMEMORY_OFFSET {
    size_t BufferOffset;
    size_t BufferLength;  // 0: up to the end
} WDFMEMORY_OFFSET, *PWDFMEMORY_OFFSET;
PLATFORM_SIZE(WDFMEMORY_OFFSET, 16);
PLATFORM_LAYOUT(WDFMEMORY_OFFSET, BufferLength, 8);

WDF_CALL(192, WdfMemoryCreate, NTSTATUS,
         (PWDF_OBJECT_ATTRIBUTES Attributes, POOL_TYPE PoolType, ULONG PoolTag, size_t BufferSize, WDFMEMORY* Memory, PVOID* Buffer),
         (Attributes, PoolType, PoolTag, BufferSize, Memory, Buffer))
WDF_CALL(193, WdfMemoryCreatePreallocated, NTSTATUS,
         (PWDF_OBJECT_ATTRIBUTES Attributes, PVOID Buffer, size_t BufferSize, WDFMEMORY* Memory),
         (Attributes, Buffer, BufferSize, Memory))
WDF_CALL(194, WdfMemoryGetBuffer, PVOID, (WDFMEMORY Memory, size_t* BufferSize), (Memory, BufferSize))
WDF_CALL(195, WdfMemoryAssignBuffer, NTSTATUS,
         (WDFMEMORY Memory, PVOID Buffer, size_t BufferSize),
         (Memory, Buffer, BufferSize))
WDF_CALL(196, WdfMemoryCopyToBuffer, NTSTATUS,
         (WDFMEMORY SourceMemory, size_t SourceOffset, PVOID Buffer, size_t NumBytesToCopyTo),
         (SourceMemory, SourceOffset, Buffer, NumBytesToCopyTo))
WDF_CALL(197, WdfMemoryCopyFromBuffer, NTSTATUS,
         (WDFMEMORY DestinationMemory, size_t DestinationOffset, PVOID Buffer, size_t NumBytesToCopyFrom),
         (DestinationMemory, DestinationOffset, Buffer, NumBytesToCopyFrom))
