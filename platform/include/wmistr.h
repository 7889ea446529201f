// WMI records of classic (WMI) provider registration.
#pragma once

#include <guiddef.h>

#define WNODE_FLAG_TRACED_GUID 0x00020000

typedef struct _WNODE_HEADER {
    ULONG BufferSize;
    ULONG ProviderId;
    union {
        ULONGLONG HistoricalContext;
        struct {
            ULONG Version;
            ULONG Linkage;
        };
    };
    union {
        ULONG CountLost;
        HANDLE KernelHandle;
        LONGLONG TimeStamp;
    };
    GUID Guid;
    ULONG ClientContext;
    ULONG Flags;
} WNODE_HEADER, *PWNODE_HEADER;
PLATFORM_SIZE(WNODE_HEADER, 48);
PLATFORM_LAYOUT(WNODE_HEADER, HistoricalContext, 8);
PLATFORM_LAYOUT(WNODE_HEADER, Guid, 24);
PLATFORM_LAYOUT(WNODE_HEADER, Flags, 44);

#define WMIREG_FLAG_TRACED_GUID 0x00080000
#define WMIREG_FLAG_TRACE_CONTROL_GUID 0x00001000

typedef struct {
    GUID Guid;
    ULONG Flags;
    ULONG InstanceCount;
    union {
        ULONG InstanceNameList;
        ULONG BaseNameOffset;
        ULONG_PTR Pdo;
        ULONG_PTR InstanceInfo;
    };
} WMIREGGUIDW, *PWMIREGGUIDW;
PLATFORM_SIZE(WMIREGGUIDW, 32);
PLATFORM_LAYOUT(WMIREGGUIDW, Flags, 16);
PLATFORM_LAYOUT(WMIREGGUIDW, InstanceCount, 20);

typedef struct {
    ULONG BufferSize;
    ULONG NextWmiRegInfo;
    ULONG RegistryPath;
    ULONG MofResourceName;
    ULONG GuidCount;
    WMIREGGUIDW WmiRegGuid[];
} WMIREGINFOW, *PWMIREGINFOW;
PLATFORM_LAYOUT(WMIREGINFOW, GuidCount, 16);
PLATFORM_LAYOUT(WMIREGINFOW, WmiRegGuid, 24);
