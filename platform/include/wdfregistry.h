// Registry values of other types than numbers. Included by wdf.h.
#pragma once

WDF_CALL(235, WdfRegistryQueryValue, NTSTATUS,
         (WDFKEY Key, PCUNICODE_STRING ValueName, ULONG ValueLength, PVOID Value, PULONG ValueLengthQueried, PULONG ValueType),
         (Key, ValueName, ValueLength, Value, ValueLengthQueried, ValueType))
WDF_CALL(236, WdfRegistryQueryMemory, NTSTATUS,
         (WDFKEY Key, PCUNICODE_STRING ValueName, POOL_TYPE PoolType, PWDF_OBJECT_ATTRIBUTES MemoryAttributes, WDFMEMORY* Memory, PULONG ValueType),
         (Key, ValueName, PoolType, MemoryAttributes, Memory, ValueType))
WDF_CALL(238, WdfRegistryQueryUnicodeString, NTSTATUS,
         (WDFKEY Key, PCUNICODE_STRING ValueName, PUSHORT ValueByteLength, PUNICODE_STRING Value),
         (Key, ValueName, ValueByteLength, Value))
WDF_CALL(239, WdfRegistryQueryString, NTSTATUS,
         (WDFKEY Key, PCUNICODE_STRING ValueName, WDFSTRING String),
         (Key, ValueName, String))
WDF_CALL(244, WdfRegistryAssignUnicodeString, NTSTATUS,
         (WDFKEY Key, PCUNICODE_STRING ValueName, PCUNICODE_STRING Value),
         (Key, ValueName, Value))
WDF_CALL(245, WdfRegistryAssignString, NTSTATUS,
         (WDFKEY Key, PCUNICODE_STRING ValueName, WDFSTRING String),
         (Key, ValueName, String))
