// The kernel's declarations that a small driver needs, binary-compatible with the platform's own.
//
// Sizes and offsets were taken from the platform's headers and are asserted below each record. Everything here is
// declared as the WDK declares it, so that a source file compiles against either.
#pragma once

#include <evntprov.h>
#include <guiddef.h>
#include <ntplatform.h>
#include <ntstatus.h>
#include <string.h>

#define NT_SUCCESS(Status) (((NTSTATUS)(Status)) >= 0)

#define PASSIVE_LEVEL 0
#define APC_LEVEL 1
#define DISPATCH_LEVEL 2

// ---- Records ----

typedef struct _UNICODE_STRING {
    USHORT Length;
    USHORT MaximumLength;
    PWCHAR Buffer;
} UNICODE_STRING, *PUNICODE_STRING;
typedef const UNICODE_STRING* PCUNICODE_STRING;
PLATFORM_SIZE(UNICODE_STRING, 16);
PLATFORM_LAYOUT(UNICODE_STRING, Buffer, 8);

#define RTL_CONSTANT_STRING(text) {sizeof(text) - sizeof((text)[0]), sizeof(text), (PWCHAR)(text)}

typedef union _LARGE_INTEGER {
    struct {
        ULONG LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER;
PLATFORM_SIZE(LARGE_INTEGER, 8);

typedef struct _LIST_ENTRY {
    struct _LIST_ENTRY* Flink;
    struct _LIST_ENTRY* Blink;
} LIST_ENTRY, *PLIST_ENTRY;
PLATFORM_SIZE(LIST_ENTRY, 16);

#include <ntinline.h>
#include <ntdispatcher.h>

#define OBJ_CASE_INSENSITIVE 0x00000040L
#define OBJ_KERNEL_HANDLE 0x00000200L

typedef struct _OBJECT_ATTRIBUTES {
    ULONG Length;
    HANDLE RootDirectory;
    PUNICODE_STRING ObjectName;
    ULONG Attributes;
    PVOID SecurityDescriptor;
    PVOID SecurityQualityOfService;
} OBJECT_ATTRIBUTES, *POBJECT_ATTRIBUTES;
PLATFORM_SIZE(OBJECT_ATTRIBUTES, 48);
PLATFORM_LAYOUT(OBJECT_ATTRIBUTES, ObjectName, 16);
PLATFORM_LAYOUT(OBJECT_ATTRIBUTES, Attributes, 24);
PLATFORM_LAYOUT(OBJECT_ATTRIBUTES, SecurityDescriptor, 32);

#define InitializeObjectAttributes(p, n, a, r, s)  \
    {                                              \
        (p)->Length = sizeof(OBJECT_ATTRIBUTES);   \
        (p)->RootDirectory = (r);                  \
        (p)->Attributes = (a);                     \
        (p)->ObjectName = (n);                     \
        (p)->SecurityDescriptor = (s);             \
        (p)->SecurityQualityOfService = NULL;      \
    }

typedef VOID(NTAPI* PINTERFACE_REFERENCE)(PVOID Context);
typedef VOID(NTAPI* PINTERFACE_DEREFERENCE)(PVOID Context);

typedef struct _INTERFACE {
    USHORT Size;
    USHORT Version;
    PVOID Context;
    PINTERFACE_REFERENCE InterfaceReference;
    PINTERFACE_DEREFERENCE InterfaceDereference;
} INTERFACE, *PINTERFACE;
PLATFORM_SIZE(INTERFACE, 32);
PLATFORM_LAYOUT(INTERFACE, Context, 8);
PLATFORM_LAYOUT(INTERFACE, InterfaceReference, 16);

#include <ntdevice.h>

typedef struct _DEVICE_OBJECT *PDEVICE_OBJECT;
typedef struct _IRP* PIRP;
typedef struct _FILE_OBJECT* PFILE_OBJECT;

struct _DRIVER_OBJECT;
typedef NTSTATUS(NTAPI DRIVER_INITIALIZE)(struct _DRIVER_OBJECT* DriverObject, PUNICODE_STRING RegistryPath);
typedef DRIVER_INITIALIZE* PDRIVER_INITIALIZE;
typedef NTSTATUS(NTAPI DRIVER_ADD_DEVICE)(struct _DRIVER_OBJECT* DriverObject, PDEVICE_OBJECT PhysicalDeviceObject);
typedef DRIVER_ADD_DEVICE* PDRIVER_ADD_DEVICE;
typedef VOID(NTAPI DRIVER_UNLOAD)(struct _DRIVER_OBJECT* DriverObject);
typedef DRIVER_UNLOAD* PDRIVER_UNLOAD;
typedef NTSTATUS(NTAPI DRIVER_DISPATCH)(PDEVICE_OBJECT DeviceObject, PIRP Irp);
typedef DRIVER_DISPATCH* PDRIVER_DISPATCH;

#define IRP_MJ_CREATE 0x00
#define IRP_MJ_CLOSE 0x02
#define IRP_MJ_DEVICE_CONTROL 0x0E
#define IRP_MJ_CLEANUP 0x12
#define IRP_MJ_POWER 0x16
#define IRP_MJ_PNP 0x1B
#define IRP_MJ_MAXIMUM_FUNCTION 0x1B

typedef struct _DRIVER_EXTENSION {
    struct _DRIVER_OBJECT* DriverObject;
    PDRIVER_ADD_DEVICE AddDevice;
    ULONG Count;
    UNICODE_STRING ServiceKeyName;
} DRIVER_EXTENSION, *PDRIVER_EXTENSION;
PLATFORM_LAYOUT(DRIVER_EXTENSION, AddDevice, 8);
PLATFORM_LAYOUT(DRIVER_EXTENSION, ServiceKeyName, 24);

typedef struct _DRIVER_OBJECT {
    SHORT Type;
    SHORT Size;
    PDEVICE_OBJECT DeviceObject;
    ULONG Flags;
    PVOID DriverStart;
    ULONG DriverSize;
    PVOID DriverSection;
    PDRIVER_EXTENSION DriverExtension;
    UNICODE_STRING DriverName;
    PUNICODE_STRING HardwareDatabase;
    PVOID FastIoDispatch;
    PDRIVER_INITIALIZE DriverInit;
    PVOID DriverStartIo;
    PDRIVER_UNLOAD DriverUnload;
    PDRIVER_DISPATCH MajorFunction[IRP_MJ_MAXIMUM_FUNCTION + 1];
} DRIVER_OBJECT, *PDRIVER_OBJECT;
PLATFORM_SIZE(DRIVER_OBJECT, 336);
PLATFORM_LAYOUT(DRIVER_OBJECT, DriverStart, 24);
PLATFORM_LAYOUT(DRIVER_OBJECT, DriverExtension, 48);
PLATFORM_LAYOUT(DRIVER_OBJECT, DriverName, 56);
PLATFORM_LAYOUT(DRIVER_OBJECT, DriverInit, 88);
PLATFORM_LAYOUT(DRIVER_OBJECT, DriverUnload, 104);
PLATFORM_LAYOUT(DRIVER_OBJECT, MajorFunction, 112);

// ---- Accesses without lock or fence: one access each, never torn, repeated or left out by the compiler ----

FORCEINLINE ULONG ReadULongNoFence(ULONG const volatile* Source)
{
    return __atomic_load_n(Source, __ATOMIC_RELAXED);
}

FORCEINLINE VOID WriteULongNoFence(ULONG volatile* Destination, ULONG Value)
{
    __atomic_store_n(Destination, Value, __ATOMIC_RELAXED);
}

FORCEINLINE UCHAR ReadUCharNoFence(UCHAR const volatile* Source)
{
    return __atomic_load_n(Source, __ATOMIC_RELAXED);
}

FORCEINLINE VOID WriteUCharNoFence(UCHAR volatile* Destination, UCHAR Value)
{
    __atomic_store_n(Destination, Value, __ATOMIC_RELAXED);
}

FORCEINLINE ULONG64 ReadULong64NoFence(ULONG64 const volatile* Source)
{
    return __atomic_load_n(Source, __ATOMIC_RELAXED);
}

FORCEINLINE VOID WriteULong64NoFence(ULONG64 volatile* Destination, ULONG64 Value)
{
    __atomic_store_n(Destination, Value, __ATOMIC_RELAXED);
}

FORCEINLINE PVOID ReadPointerNoFence(PVOID const volatile* Source)
{
    return __atomic_load_n(Source, __ATOMIC_RELAXED);
}

FORCEINLINE VOID WritePointerNoFence(PVOID volatile* Destination, PVOID Value)
{
    __atomic_store_n(Destination, Value, __ATOMIC_RELAXED);
}

#define RtlCopyMemory(Destination, Source, Length) memcpy((Destination), (Source), (Length))
#define RtlMoveMemory(Destination, Source, Length) memmove((Destination), (Source), (Length))
#define RtlZeroMemory(Destination, Length) memset((Destination), 0, (Length))
#define RtlEqualMemory(Destination, Source, Length) (!memcmp((Destination), (Source), (Length)))

// ---- Pool, objects, callbacks ----

typedef enum _POOL_TYPE { NonPagedPool = 0, PagedPool = 1, NonPagedPoolNx = 512 } POOL_TYPE;

typedef ULONG64 POOL_FLAGS;
#define POOL_FLAG_USE_QUOTA 0x0000000000000001ULL
#define POOL_FLAG_UNINITIALIZED 0x0000000000000002ULL
#define POOL_FLAG_CACHE_ALIGNED 0x0000000000000008ULL
#define POOL_FLAG_RAISE_ON_FAILURE 0x0000000000000020ULL
#define POOL_FLAG_NON_PAGED 0x0000000000000040ULL
#define POOL_FLAG_NON_PAGED_EXECUTE 0x0000000000000080ULL
#define POOL_FLAG_PAGED 0x0000000000000100ULL
typedef const struct _POOL_EXTENDED_PARAMETER* PCPOOL_EXTENDED_PARAMETER;

typedef struct _CALLBACK_OBJECT *PCALLBACK_OBJECT;
typedef VOID(NTAPI CALLBACK_FUNCTION)(PVOID CallbackContext, PVOID Argument1, PVOID Argument2);
typedef CALLBACK_FUNCTION* PCALLBACK_FUNCTION;

#define PO_CB_SYSTEM_POWER_POLICY 0
#define PO_CB_AC_STATUS 1
#define PO_CB_BUTTON_COLLISION 2
#define PO_CB_SYSTEM_STATE_LOCK 3

enum { KernelMode = 0, UserMode = 1 };

#define KEY_READ 0x20019
#define KEY_WRITE 0x20006
#define REG_SZ 1
#define REG_EXPAND_SZ 2
#define REG_DWORD 4

#define FILE_DEVICE_UNKNOWN 0x00000022
#define FILE_DEVICE_SECURE_OPEN 0x00000100
#define FILE_ANY_ACCESS 0
#define METHOD_BUFFERED 0
#define METHOD_IN_DIRECT 1
#define METHOD_OUT_DIRECT 2
#define METHOD_NEITHER 3
#define CTL_CODE(DeviceType, Function, Method, Access) \
    (((DeviceType) << 16) | ((Access) << 14) | ((Function) << 2) | (Method))

EXTERN_C_START

_IRQL_requires_max_(DISPATCH_LEVEL)
NTKERNELAPI PVOID NTAPI ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag);

_IRQL_requires_max_(DISPATCH_LEVEL)
NTKERNELAPI VOID NTAPI ExFreePoolWithTag(PVOID P, ULONG Tag);
#define ExFreePool(a) ExFreePoolWithTag(a, 0)

// Zeroed, unless the flags say otherwise.
_IRQL_requires_max_(DISPATCH_LEVEL)
NTKERNELAPI PVOID NTAPI ExAllocatePool2(POOL_FLAGS Flags, SIZE_T NumberOfBytes, ULONG Tag);

_IRQL_requires_max_(DISPATCH_LEVEL)
NTKERNELAPI VOID NTAPI ExFreePool2(PVOID P, ULONG Tag, PCPOOL_EXTENDED_PARAMETER ExtendedParameters,
                                   ULONG ExtendedParametersCount);

_IRQL_requires_max_(APC_LEVEL)
NTKERNELAPI NTSTATUS NTAPI ExCreateCallback(PCALLBACK_OBJECT* CallbackObject, POBJECT_ATTRIBUTES ObjectAttributes,
                                            BOOLEAN Create, BOOLEAN AllowMultipleCallbacks);

_IRQL_requires_max_(APC_LEVEL)
NTKERNELAPI PVOID NTAPI ExRegisterCallback(PCALLBACK_OBJECT CallbackObject, PCALLBACK_FUNCTION CallbackFunction,
                                           PVOID CallbackContext);

_IRQL_requires_max_(APC_LEVEL)
NTKERNELAPI VOID NTAPI ExUnregisterCallback(PVOID CallbackRegistration);

_IRQL_requires_max_(DISPATCH_LEVEL)
NTKERNELAPI VOID NTAPI ExNotifyCallback(PVOID CallbackObject, PVOID Argument1, PVOID Argument2);

_IRQL_requires_max_(DISPATCH_LEVEL)
NTKERNELAPI LONG_PTR NTAPI ObfDereferenceObject(PVOID Object);
#define ObDereferenceObject(Object) ObfDereferenceObject(Object)

NTSYSAPI VOID NTAPI RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString);
NTSYSAPI VOID NTAPI RtlCopyUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString);
NTSYSAPI SIZE_T NTAPI RtlCompareMemory(const VOID* Source1, const VOID* Source2, SIZE_T Length);

_IRQL_requires_max_(PASSIVE_LEVEL)
NTKERNELAPI PVOID NTAPI MmGetSystemRoutineAddress(PUNICODE_STRING SystemRoutineName);

typedef BOOLEAN(NTAPI PS_GET_VERSION)(PULONG MajorVersion, PULONG MinorVersion, PULONG BuildNumber,
                                      PUNICODE_STRING CSDVersion);
NTKERNELAPI PS_GET_VERSION PsGetVersion;

NTSYSAPI ULONG NTAPI_VARIADIC DbgPrintEx(ULONG ComponentId, ULONG Level, PCSTR Format, ...);
NTSYSAPI ULONG NTAPI_VARIADIC DbgPrint(PCSTR Format, ...);
#define DPFLTR_IHVDRIVER_ID 77
#define DPFLTR_ERROR_LEVEL 0
#define DPFLTR_INFO_LEVEL 3

NTKERNELAPI DECLSPEC_NORETURN VOID NTAPI KeBugCheckEx(ULONG BugCheckCode, ULONG_PTR Parameter1, ULONG_PTR Parameter2,
                                                      ULONG_PTR Parameter3, ULONG_PTR Parameter4);

// What the WDK has for systems before ExAllocatePool2.
FORCEINLINE PVOID ExAllocatePoolUninitialized(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag)
{
    return ExAllocatePoolWithTag(PoolType, NumberOfBytes, Tag);
}

FORCEINLINE PVOID ExAllocatePoolZero(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag)
{
    PVOID block = ExAllocatePoolWithTag(PoolType, NumberOfBytes, Tag);
    if (block != NULL) {
        RtlZeroMemory(block, NumberOfBytes);
    }
    return block;
}

// ---- Plug and play, as peer drivers use it ----

#define GENERIC_READ 0x80000000U
#define GENERIC_WRITE 0x40000000U
#define FILE_OPEN 0x00000001
#define FILE_NON_DIRECTORY_FILE 0x00000040

typedef enum _IO_NOTIFICATION_EVENT_CATEGORY {
    EventCategoryReserved,
    EventCategoryHardwareProfileChange,
    EventCategoryDeviceInterfaceChange,
    EventCategoryTargetDeviceChange
} IO_NOTIFICATION_EVENT_CATEGORY;

#define PNPNOTIFY_DEVICE_INTERFACE_INCLUDE_EXISTING_INTERFACES 0x00000001

typedef struct _DEVICE_INTERFACE_CHANGE_NOTIFICATION {
    USHORT Version;
    USHORT Size;
    GUID Event;
    GUID InterfaceClassGuid;
    PUNICODE_STRING SymbolicLinkName;
} DEVICE_INTERFACE_CHANGE_NOTIFICATION, *PDEVICE_INTERFACE_CHANGE_NOTIFICATION;
PLATFORM_SIZE(DEVICE_INTERFACE_CHANGE_NOTIFICATION, 48);
PLATFORM_LAYOUT(DEVICE_INTERFACE_CHANGE_NOTIFICATION, Event, 4);
PLATFORM_LAYOUT(DEVICE_INTERFACE_CHANGE_NOTIFICATION, InterfaceClassGuid, 20);
PLATFORM_LAYOUT(DEVICE_INTERFACE_CHANGE_NOTIFICATION, SymbolicLinkName, 40);

typedef NTSTATUS(NTAPI DRIVER_NOTIFICATION_CALLBACK_ROUTINE)(PVOID NotificationStructure, PVOID Context);
typedef DRIVER_NOTIFICATION_CALLBACK_ROUTINE* PDRIVER_NOTIFICATION_CALLBACK_ROUTINE;

_IRQL_requires_max_(PASSIVE_LEVEL)
NTKERNELAPI NTSTATUS NTAPI IoGetDeviceInterfaces(const GUID* InterfaceClassGuid, PDEVICE_OBJECT PhysicalDeviceObject,
                                                 ULONG Flags, PWSTR* SymbolicLinkList);

_IRQL_requires_max_(PASSIVE_LEVEL)
NTKERNELAPI NTSTATUS NTAPI IoRegisterPlugPlayNotification(IO_NOTIFICATION_EVENT_CATEGORY EventCategory,
                                                          ULONG EventCategoryFlags, PVOID EventCategoryData,
                                                          PDRIVER_OBJECT DriverObject,
                                                          PDRIVER_NOTIFICATION_CALLBACK_ROUTINE CallbackRoutine,
                                                          PVOID Context, PVOID* NotificationEntry);

_IRQL_requires_max_(PASSIVE_LEVEL)
NTKERNELAPI NTSTATUS NTAPI IoUnregisterPlugPlayNotificationEx(PVOID NotificationEntry);

#include <ntabsent.h>

// ---- Event tracing ----

typedef VOID(NTAPI ETWENABLECALLBACK)(LPCGUID SourceId, ULONG ControlCode, UCHAR Level, ULONGLONG MatchAnyKeyword,
                                      ULONGLONG MatchAllKeyword, PEVENT_FILTER_DESCRIPTOR FilterData,
                                      PVOID CallbackContext);
typedef ETWENABLECALLBACK* PETWENABLECALLBACK;

_IRQL_requires_max_(PASSIVE_LEVEL)
NTKERNELAPI NTSTATUS NTAPI EtwRegister(LPCGUID ProviderId, PETWENABLECALLBACK EnableCallback, PVOID CallbackContext,
                                       PREGHANDLE RegHandle);

_IRQL_requires_max_(PASSIVE_LEVEL)
NTKERNELAPI NTSTATUS NTAPI EtwUnregister(REGHANDLE RegHandle);

NTKERNELAPI NTSTATUS NTAPI EtwWrite(REGHANDLE RegHandle, PCEVENT_DESCRIPTOR EventDescriptor, LPCGUID ActivityId,
                                    ULONG UserDataCount, PEVENT_DATA_DESCRIPTOR UserData);

typedef ULONG64 TRACEHANDLE, *PTRACEHANDLE;

typedef enum _TRACE_INFORMATION_CLASS {
    TraceIdClass,
    TraceHandleClass,
    TraceEnableFlagsClass,
    TraceEnableLevelClass
} TRACE_INFORMATION_CLASS;

#define WMIREG_ACTION_REGISTER 1
#define WMIREG_ACTION_DEREGISTER 2
#define WMIREG_FLAG_TRACE_PROVIDER 0x00010000

_IRQL_requires_max_(PASSIVE_LEVEL)
NTKERNELAPI NTSTATUS NTAPI IoWMIRegistrationControl(PDEVICE_OBJECT DeviceObject, ULONG Action);

EXTERN_C_END
