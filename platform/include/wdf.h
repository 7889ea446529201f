// The Kernel-Mode Driver Framework's client side, version 1.15: records, callbacks and calls of a small driver.
//
// Every call loads the framework's function table, takes the entry at its fixed index and passes the driver's globals
// first, exactly as the WDK's inline functions do; so an image built with either binds to the same framework. The
// table is append-only: indices and records are the same in all later versions.
#pragma once

#include <ntddk.h>

#if !defined(KMDF_VERSION_MAJOR) || !defined(KMDF_VERSION_MINOR)
#error "define KMDF_VERSION_MAJOR and KMDF_VERSION_MINOR before including wdf.h"
#endif

// ---- Handles ----

typedef HANDLE WDFOBJECT, *PWDFOBJECT;

#define WDF_DECLARE_HANDLE(name) typedef struct name##__* name
WDF_DECLARE_HANDLE(WDFDRIVER);
WDF_DECLARE_HANDLE(WDFDEVICE);
WDF_DECLARE_HANDLE(WDFQUEUE);
WDF_DECLARE_HANDLE(WDFREQUEST);
WDF_DECLARE_HANDLE(WDFFILEOBJECT);
WDF_DECLARE_HANDLE(WDFCOLLECTION);
WDF_DECLARE_HANDLE(WDFWAITLOCK);
WDF_DECLARE_HANDLE(WDFSPINLOCK);
WDF_DECLARE_HANDLE(WDFWORKITEM);
WDF_DECLARE_HANDLE(WDFKEY);
WDF_DECLARE_HANDLE(WDFCMRESLIST);
WDF_DECLARE_HANDLE(WDFIOTARGET);
typedef struct WDFDEVICE_INIT *PWDFDEVICE_INIT;

#define WDF_NO_OBJECT_ATTRIBUTES NULL
#define WDF_NO_HANDLE NULL
#define WDF_NO_CONTEXT NULL

// ---- Framework statuses ----

#define STATUS_WDF_INTERNAL_ERROR ((NTSTATUS)0xC0200201L)
#define STATUS_WDF_PAUSED ((NTSTATUS)0xC0200203L)
#define STATUS_WDF_BUSY ((NTSTATUS)0xC0200204L)
#define STATUS_WDF_OBJECT_ATTRIBUTES_INVALID ((NTSTATUS)0xC0200209L)
#define STATUS_WDF_NO_CALLBACK ((NTSTATUS)0xC020020BL)
#define STATUS_WDF_INCOMPATIBLE_EXECUTION_LEVEL ((NTSTATUS)0xC020020CL)
#define STATUS_WDF_PARENT_ALREADY_ASSIGNED ((NTSTATUS)0xC020020DL)
#define STATUS_WDF_PARENT_IS_SELF ((NTSTATUS)0xC020020EL)
#define STATUS_WDF_PARENT_ASSIGNMENT_NOT_ALLOWED ((NTSTATUS)0xC020020FL)
#define STATUS_WDF_SYNCHRONIZATION_SCOPE_INVALID ((NTSTATUS)0xC0200210L)
#define STATUS_WDF_EXECUTION_LEVEL_INVALID ((NTSTATUS)0xC0200211L)
#define STATUS_WDF_PARENT_NOT_SPECIFIED ((NTSTATUS)0xC0200212L)

// ---- Enumerations ----

typedef enum _WDF_TRI_STATE { WdfFalse = 0, WdfTrue = 1, WdfUseDefault = 2 } WDF_TRI_STATE;

typedef enum _WDF_EXECUTION_LEVEL {
    WdfExecutionLevelInvalid = 0,
    WdfExecutionLevelInheritFromParent = 1,
    WdfExecutionLevelPassive = 2,
    WdfExecutionLevelDispatch = 3
} WDF_EXECUTION_LEVEL;

typedef enum _WDF_SYNCHRONIZATION_SCOPE {
    WdfSynchronizationScopeInvalid = 0,
    WdfSynchronizationScopeInheritFromParent = 1,
    WdfSynchronizationScopeDevice = 2,
    WdfSynchronizationScopeQueue = 3,
    WdfSynchronizationScopeNone = 4
} WDF_SYNCHRONIZATION_SCOPE;

typedef enum _WDF_DEVICE_IO_TYPE {
    WdfDeviceIoUndefined = 0,
    WdfDeviceIoNeither = 1,
    WdfDeviceIoBuffered = 2,
    WdfDeviceIoDirect = 3
} WDF_DEVICE_IO_TYPE;

typedef enum _WDF_FILEOBJECT_CLASS {
    WdfFileObjectInvalid = 0,
    WdfFileObjectNotRequired = 1,
    WdfFileObjectWdfCanUseFsContext = 2,
    WdfFileObjectWdfCanUseFsContext2 = 3,
    WdfFileObjectWdfCannotUseFsContexts = 4
} WDF_FILEOBJECT_CLASS;

typedef enum _WDF_IO_QUEUE_DISPATCH_TYPE {
    WdfIoQueueDispatchInvalid = 0,
    WdfIoQueueDispatchSequential = 1,
    WdfIoQueueDispatchParallel = 2,
    WdfIoQueueDispatchManual = 3
} WDF_IO_QUEUE_DISPATCH_TYPE;

typedef enum _WDF_POWER_DEVICE_STATE {
    WdfPowerDeviceInvalid = 0,
    WdfPowerDeviceD0 = 1,
    WdfPowerDeviceD1 = 2,
    WdfPowerDeviceD2 = 3,
    WdfPowerDeviceD3 = 4,
    WdfPowerDeviceD3Final = 5,
    WdfPowerDevicePrepareForHibernation = 6
} WDF_POWER_DEVICE_STATE;

typedef enum _WDF_DRIVER_INIT_FLAGS {
    WdfDriverInitNonPnpDriver = 1,
    WdfDriverInitNoDispatchOverride = 2
} WDF_DRIVER_INIT_FLAGS;

// ---- Binding ----

typedef VOID(NTAPI* WDFFUNC)(VOID);

typedef struct _WDF_VERSION {
    ULONG Major;
    ULONG Minor;
    ULONG Build;
} WDF_VERSION;
PLATFORM_SIZE(WDF_VERSION, 12);

typedef struct _WDF_BIND_INFO {
    ULONG Size;
    PWCHAR Component;
    WDF_VERSION Version;
    ULONG FuncCount;
    PVOID FuncTable;
    PVOID Module;
} WDF_BIND_INFO, *PWDF_BIND_INFO;
PLATFORM_SIZE(WDF_BIND_INFO, 48);
PLATFORM_LAYOUT(WDF_BIND_INFO, Component, 8);
PLATFORM_LAYOUT(WDF_BIND_INFO, Version, 16);
PLATFORM_LAYOUT(WDF_BIND_INFO, FuncCount, 28);
PLATFORM_LAYOUT(WDF_BIND_INFO, FuncTable, 32);
PLATFORM_LAYOUT(WDF_BIND_INFO, Module, 40);

typedef struct _WDF_DRIVER_GLOBALS {
    WDFDRIVER Driver;
    ULONG DriverFlags;
    ULONG DriverTag;
    CHAR DriverName[32];
    BOOLEAN DisplaceDriverUnload;
} WDF_DRIVER_GLOBALS, *PWDF_DRIVER_GLOBALS;
PLATFORM_SIZE(WDF_DRIVER_GLOBALS, 56);
PLATFORM_LAYOUT(WDF_DRIVER_GLOBALS, DriverFlags, 8);
PLATFORM_LAYOUT(WDF_DRIVER_GLOBALS, DriverTag, 12);
PLATFORM_LAYOUT(WDF_DRIVER_GLOBALS, DriverName, 16);
PLATFORM_LAYOUT(WDF_DRIVER_GLOBALS, DisplaceDriverUnload, 48);

EXTERN_C const WDFFUNC* WdfFunctions_01015;
#define WdfFunctions WdfFunctions_01015
EXTERN_C PWDF_DRIVER_GLOBALS WdfDriverGlobals;

// ---- Object attributes and typed contexts ----

typedef VOID(NTAPI EVT_WDF_OBJECT_CONTEXT_CLEANUP)(WDFOBJECT Object);
typedef EVT_WDF_OBJECT_CONTEXT_CLEANUP* PFN_WDF_OBJECT_CONTEXT_CLEANUP;
typedef EVT_WDF_OBJECT_CONTEXT_CLEANUP EVT_WDF_DEVICE_CONTEXT_CLEANUP;
typedef VOID(NTAPI EVT_WDF_OBJECT_CONTEXT_DESTROY)(WDFOBJECT Object);
typedef EVT_WDF_OBJECT_CONTEXT_DESTROY* PFN_WDF_OBJECT_CONTEXT_DESTROY;

struct _WDF_OBJECT_CONTEXT_TYPE_INFO;
typedef const struct _WDF_OBJECT_CONTEXT_TYPE_INFO* PCWDF_OBJECT_CONTEXT_TYPE_INFO;
typedef PCWDF_OBJECT_CONTEXT_TYPE_INFO(NTAPI* PFN_GET_UNIQUE_CONTEXT_TYPE)(VOID);

typedef struct _WDF_OBJECT_CONTEXT_TYPE_INFO {
    ULONG Size;
    PCSTR ContextName;
    size_t ContextSize;
    PCWDF_OBJECT_CONTEXT_TYPE_INFO UniqueType;
    PFN_GET_UNIQUE_CONTEXT_TYPE EvtDriverGetUniqueContextType;
} WDF_OBJECT_CONTEXT_TYPE_INFO, *PWDF_OBJECT_CONTEXT_TYPE_INFO;
PLATFORM_SIZE(WDF_OBJECT_CONTEXT_TYPE_INFO, 40);
PLATFORM_LAYOUT(WDF_OBJECT_CONTEXT_TYPE_INFO, ContextSize, 16);
PLATFORM_LAYOUT(WDF_OBJECT_CONTEXT_TYPE_INFO, UniqueType, 24);

typedef struct _WDF_OBJECT_ATTRIBUTES {
    ULONG Size;
    PFN_WDF_OBJECT_CONTEXT_CLEANUP EvtCleanupCallback;
    PFN_WDF_OBJECT_CONTEXT_DESTROY EvtDestroyCallback;
    WDF_EXECUTION_LEVEL ExecutionLevel;
    WDF_SYNCHRONIZATION_SCOPE SynchronizationScope;
    WDFOBJECT ParentObject;
    size_t ContextSizeOverride;
    PCWDF_OBJECT_CONTEXT_TYPE_INFO ContextTypeInfo;
} WDF_OBJECT_ATTRIBUTES, *PWDF_OBJECT_ATTRIBUTES;
PLATFORM_SIZE(WDF_OBJECT_ATTRIBUTES, 56);
PLATFORM_LAYOUT(WDF_OBJECT_ATTRIBUTES, ExecutionLevel, 24);
PLATFORM_LAYOUT(WDF_OBJECT_ATTRIBUTES, SynchronizationScope, 28);
PLATFORM_LAYOUT(WDF_OBJECT_ATTRIBUTES, ParentObject, 32);
PLATFORM_LAYOUT(WDF_OBJECT_ATTRIBUTES, ContextTypeInfo, 48);

FORCEINLINE VOID WDF_OBJECT_ATTRIBUTES_INIT(PWDF_OBJECT_ATTRIBUTES Attributes)
{
    RtlZeroMemory(Attributes, sizeof(WDF_OBJECT_ATTRIBUTES));
    Attributes->Size = sizeof(WDF_OBJECT_ATTRIBUTES);
    Attributes->ExecutionLevel = WdfExecutionLevelInheritFromParent;
    Attributes->SynchronizationScope = WdfSynchronizationScopeInheritFromParent;
}

// Typed look-up goes by the record's address, so an image holds each record once however many files declare it.
#define WDF_TYPE_NAME_TO_TYPE_INFO(contexttype) _WDF_##contexttype##_TYPE_INFO
#define WDF_GET_CONTEXT_TYPE_INFO(contexttype) (WDF_TYPE_NAME_TO_TYPE_INFO(contexttype).UniqueType)

#define WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(contexttype, accessor)                                            \
    typedef contexttype* WDF_POINTER_TYPE_##contexttype;                                                     \
    EXTERN_C const WDF_OBJECT_CONTEXT_TYPE_INFO WDF_TYPE_NAME_TO_TYPE_INFO(contexttype);                     \
    DECLSPEC_SELECTANY const WDF_OBJECT_CONTEXT_TYPE_INFO WDF_TYPE_NAME_TO_TYPE_INFO(contexttype) = {        \
        sizeof(WDF_OBJECT_CONTEXT_TYPE_INFO), #contexttype, sizeof(contexttype),                             \
        &WDF_TYPE_NAME_TO_TYPE_INFO(contexttype), NULL};                                                     \
    FORCEINLINE contexttype* accessor(WDFOBJECT Handle)                                                      \
    {                                                                                                        \
        return (contexttype*)WdfObjectGetTypedContextWorker(Handle, WDF_GET_CONTEXT_TYPE_INFO(contexttype)); \
    }

#define WDF_DECLARE_CONTEXT_TYPE(contexttype) \
    WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(contexttype, WdfObjectGet_##contexttype)

#define WDF_OBJECT_ATTRIBUTES_SET_CONTEXT_TYPE(attributes, contexttype) \
    ((attributes)->ContextTypeInfo = WDF_GET_CONTEXT_TYPE_INFO(contexttype))

#define WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(attributes, contexttype)     \
    do {                                                                     \
        WDF_OBJECT_ATTRIBUTES_INIT(attributes);                              \
        WDF_OBJECT_ATTRIBUTES_SET_CONTEXT_TYPE(attributes, contexttype);     \
    } while (0)

// ---- Driver ----

typedef NTSTATUS(NTAPI EVT_WDF_DRIVER_DEVICE_ADD)(WDFDRIVER Driver, PWDFDEVICE_INIT DeviceInit);
typedef EVT_WDF_DRIVER_DEVICE_ADD* PFN_WDF_DRIVER_DEVICE_ADD;
typedef VOID(NTAPI EVT_WDF_DRIVER_UNLOAD)(WDFDRIVER Driver);
typedef EVT_WDF_DRIVER_UNLOAD* PFN_WDF_DRIVER_UNLOAD;

typedef struct _WDF_DRIVER_CONFIG {
    ULONG Size;
    PFN_WDF_DRIVER_DEVICE_ADD EvtDriverDeviceAdd;
    PFN_WDF_DRIVER_UNLOAD EvtDriverUnload;
    ULONG DriverInitFlags;
    ULONG DriverPoolTag;
} WDF_DRIVER_CONFIG, *PWDF_DRIVER_CONFIG;
PLATFORM_SIZE(WDF_DRIVER_CONFIG, 32);
PLATFORM_LAYOUT(WDF_DRIVER_CONFIG, EvtDriverUnload, 16);
PLATFORM_LAYOUT(WDF_DRIVER_CONFIG, DriverPoolTag, 28);

FORCEINLINE VOID WDF_DRIVER_CONFIG_INIT(PWDF_DRIVER_CONFIG Config, PFN_WDF_DRIVER_DEVICE_ADD EvtDriverDeviceAdd)
{
    RtlZeroMemory(Config, sizeof(WDF_DRIVER_CONFIG));
    Config->Size = sizeof(WDF_DRIVER_CONFIG);
    Config->EvtDriverDeviceAdd = EvtDriverDeviceAdd;
}

// ---- Device ----

typedef NTSTATUS(NTAPI EVT_WDF_DEVICE_D0_ENTRY)(WDFDEVICE Device, WDF_POWER_DEVICE_STATE PreviousState);
typedef EVT_WDF_DEVICE_D0_ENTRY* PFN_WDF_DEVICE_D0_ENTRY;
typedef NTSTATUS(NTAPI EVT_WDF_DEVICE_D0_EXIT)(WDFDEVICE Device, WDF_POWER_DEVICE_STATE TargetState);
typedef EVT_WDF_DEVICE_D0_EXIT* PFN_WDF_DEVICE_D0_EXIT;
typedef NTSTATUS(NTAPI EVT_WDF_DEVICE_PREPARE_HARDWARE)(WDFDEVICE Device, WDFCMRESLIST ResourcesRaw,
                                                        WDFCMRESLIST ResourcesTranslated);
typedef EVT_WDF_DEVICE_PREPARE_HARDWARE* PFN_WDF_DEVICE_PREPARE_HARDWARE;
typedef NTSTATUS(NTAPI EVT_WDF_DEVICE_RELEASE_HARDWARE)(WDFDEVICE Device, WDFCMRESLIST ResourcesTranslated);
typedef EVT_WDF_DEVICE_RELEASE_HARDWARE* PFN_WDF_DEVICE_RELEASE_HARDWARE;
typedef VOID(NTAPI EVT_WDF_DEVICE_SURPRISE_REMOVAL)(WDFDEVICE Device);
typedef EVT_WDF_DEVICE_SURPRISE_REMOVAL* PFN_WDF_DEVICE_SURPRISE_REMOVAL;

typedef NTSTATUS(NTAPI EVT_WDF_DEVICE_D0_ENTRY_POST_INTERRUPTS_ENABLED)(WDFDEVICE Device,
                                                                        WDF_POWER_DEVICE_STATE PreviousState);
typedef EVT_WDF_DEVICE_D0_ENTRY_POST_INTERRUPTS_ENABLED* PFN_WDF_DEVICE_D0_ENTRY_POST_INTERRUPTS_ENABLED;
typedef NTSTATUS(NTAPI EVT_WDF_DEVICE_D0_EXIT_PRE_INTERRUPTS_DISABLED)(WDFDEVICE Device,
                                                                       WDF_POWER_DEVICE_STATE TargetState);
typedef EVT_WDF_DEVICE_D0_EXIT_PRE_INTERRUPTS_DISABLED* PFN_WDF_DEVICE_D0_EXIT_PRE_INTERRUPTS_DISABLED;
typedef VOID(NTAPI EVT_WDF_DEVICE_SELF_MANAGED_IO_CLEANUP)(WDFDEVICE Device);
typedef EVT_WDF_DEVICE_SELF_MANAGED_IO_CLEANUP* PFN_WDF_DEVICE_SELF_MANAGED_IO_CLEANUP;
typedef VOID(NTAPI EVT_WDF_DEVICE_SELF_MANAGED_IO_FLUSH)(WDFDEVICE Device);
typedef EVT_WDF_DEVICE_SELF_MANAGED_IO_FLUSH* PFN_WDF_DEVICE_SELF_MANAGED_IO_FLUSH;
typedef NTSTATUS(NTAPI EVT_WDF_DEVICE_SELF_MANAGED_IO_INIT)(WDFDEVICE Device);
typedef EVT_WDF_DEVICE_SELF_MANAGED_IO_INIT* PFN_WDF_DEVICE_SELF_MANAGED_IO_INIT;
typedef NTSTATUS(NTAPI EVT_WDF_DEVICE_SELF_MANAGED_IO_SUSPEND)(WDFDEVICE Device);
typedef EVT_WDF_DEVICE_SELF_MANAGED_IO_SUSPEND* PFN_WDF_DEVICE_SELF_MANAGED_IO_SUSPEND;
typedef NTSTATUS(NTAPI EVT_WDF_DEVICE_SELF_MANAGED_IO_RESTART)(WDFDEVICE Device);
typedef EVT_WDF_DEVICE_SELF_MANAGED_IO_RESTART* PFN_WDF_DEVICE_SELF_MANAGED_IO_RESTART;
typedef NTSTATUS(NTAPI EVT_WDF_DEVICE_QUERY_REMOVE)(WDFDEVICE Device);
typedef EVT_WDF_DEVICE_QUERY_REMOVE* PFN_WDF_DEVICE_QUERY_REMOVE;
typedef NTSTATUS(NTAPI EVT_WDF_DEVICE_QUERY_STOP)(WDFDEVICE Device);
typedef EVT_WDF_DEVICE_QUERY_STOP* PFN_WDF_DEVICE_QUERY_STOP;

typedef struct _WDF_PNPPOWER_EVENT_CALLBACKS {
    ULONG Size;
    PFN_WDF_DEVICE_D0_ENTRY EvtDeviceD0Entry;
    PFN_WDF_DEVICE_D0_ENTRY_POST_INTERRUPTS_ENABLED EvtDeviceD0EntryPostInterruptsEnabled;
    PFN_WDF_DEVICE_D0_EXIT EvtDeviceD0Exit;
    PFN_WDF_DEVICE_D0_EXIT_PRE_INTERRUPTS_DISABLED EvtDeviceD0ExitPreInterruptsDisabled;
    PFN_WDF_DEVICE_PREPARE_HARDWARE EvtDevicePrepareHardware;
    PFN_WDF_DEVICE_RELEASE_HARDWARE EvtDeviceReleaseHardware;
    PFN_WDF_DEVICE_SELF_MANAGED_IO_CLEANUP EvtDeviceSelfManagedIoCleanup;
    PFN_WDF_DEVICE_SELF_MANAGED_IO_FLUSH EvtDeviceSelfManagedIoFlush;
    PFN_WDF_DEVICE_SELF_MANAGED_IO_INIT EvtDeviceSelfManagedIoInit;
    PFN_WDF_DEVICE_SELF_MANAGED_IO_SUSPEND EvtDeviceSelfManagedIoSuspend;
    PFN_WDF_DEVICE_SELF_MANAGED_IO_RESTART EvtDeviceSelfManagedIoRestart;
    PFN_WDF_DEVICE_SURPRISE_REMOVAL EvtDeviceSurpriseRemoval;
    PFN_WDF_DEVICE_QUERY_REMOVE EvtDeviceQueryRemove;
    PFN_WDF_DEVICE_QUERY_STOP EvtDeviceQueryStop;
    PVOID EvtDeviceUsageNotification;
    PVOID EvtDeviceRelationsQuery;
    PVOID EvtDeviceUsageNotificationEx;
} WDF_PNPPOWER_EVENT_CALLBACKS, *PWDF_PNPPOWER_EVENT_CALLBACKS;
PLATFORM_SIZE(WDF_PNPPOWER_EVENT_CALLBACKS, 144);
PLATFORM_LAYOUT(WDF_PNPPOWER_EVENT_CALLBACKS, EvtDeviceD0Exit, 24);
PLATFORM_LAYOUT(WDF_PNPPOWER_EVENT_CALLBACKS, EvtDevicePrepareHardware, 40);
PLATFORM_LAYOUT(WDF_PNPPOWER_EVENT_CALLBACKS, EvtDeviceReleaseHardware, 48);
PLATFORM_LAYOUT(WDF_PNPPOWER_EVENT_CALLBACKS, EvtDeviceSurpriseRemoval, 96);

FORCEINLINE VOID WDF_PNPPOWER_EVENT_CALLBACKS_INIT(PWDF_PNPPOWER_EVENT_CALLBACKS Callbacks)
{
    RtlZeroMemory(Callbacks, sizeof(WDF_PNPPOWER_EVENT_CALLBACKS));
    Callbacks->Size = sizeof(WDF_PNPPOWER_EVENT_CALLBACKS);
}

typedef VOID(NTAPI EVT_WDF_DEVICE_FILE_CREATE)(WDFDEVICE Device, WDFREQUEST Request, WDFFILEOBJECT FileObject);
typedef EVT_WDF_DEVICE_FILE_CREATE* PFN_WDF_DEVICE_FILE_CREATE;
typedef VOID(NTAPI EVT_WDF_FILE_CLOSE)(WDFFILEOBJECT FileObject);
typedef EVT_WDF_FILE_CLOSE* PFN_WDF_FILE_CLOSE;
typedef VOID(NTAPI EVT_WDF_FILE_CLEANUP)(WDFFILEOBJECT FileObject);
typedef EVT_WDF_FILE_CLEANUP* PFN_WDF_FILE_CLEANUP;

typedef struct _WDF_FILEOBJECT_CONFIG {
    ULONG Size;
    PFN_WDF_DEVICE_FILE_CREATE EvtDeviceFileCreate;
    PFN_WDF_FILE_CLOSE EvtFileClose;
    PFN_WDF_FILE_CLEANUP EvtFileCleanup;
    WDF_TRI_STATE AutoForwardCleanupClose;
    WDF_FILEOBJECT_CLASS FileObjectClass;
} WDF_FILEOBJECT_CONFIG, *PWDF_FILEOBJECT_CONFIG;
PLATFORM_SIZE(WDF_FILEOBJECT_CONFIG, 40);
PLATFORM_LAYOUT(WDF_FILEOBJECT_CONFIG, EvtFileClose, 16);
PLATFORM_LAYOUT(WDF_FILEOBJECT_CONFIG, AutoForwardCleanupClose, 32);
PLATFORM_LAYOUT(WDF_FILEOBJECT_CONFIG, FileObjectClass, 36);

FORCEINLINE VOID WDF_FILEOBJECT_CONFIG_INIT(PWDF_FILEOBJECT_CONFIG FileEventCallbacks,
                                            PFN_WDF_DEVICE_FILE_CREATE EvtDeviceFileCreate,
                                            PFN_WDF_FILE_CLOSE EvtFileClose, PFN_WDF_FILE_CLEANUP EvtFileCleanup)
{
    FileEventCallbacks->Size = sizeof(WDF_FILEOBJECT_CONFIG);
    FileEventCallbacks->EvtDeviceFileCreate = EvtDeviceFileCreate;
    FileEventCallbacks->EvtFileClose = EvtFileClose;
    FileEventCallbacks->EvtFileCleanup = EvtFileCleanup;
    FileEventCallbacks->FileObjectClass = WdfFileObjectWdfCannotUseFsContexts;
    FileEventCallbacks->AutoForwardCleanupClose = WdfUseDefault;
}

typedef NTSTATUS(NTAPI EVT_WDF_DEVICE_PROCESS_QUERY_INTERFACE_REQUEST)(WDFDEVICE Device, LPGUID InterfaceType,
                                                                       PINTERFACE ExposedInterface,
                                                                       PVOID ExposedInterfaceSpecificData);
typedef EVT_WDF_DEVICE_PROCESS_QUERY_INTERFACE_REQUEST* PFN_WDF_DEVICE_PROCESS_QUERY_INTERFACE_REQUEST;

typedef struct _WDF_QUERY_INTERFACE_CONFIG {
    ULONG Size;
    PINTERFACE Interface;
    const GUID* InterfaceType;
    BOOLEAN SendQueryToParentStack;
    PFN_WDF_DEVICE_PROCESS_QUERY_INTERFACE_REQUEST EvtDeviceProcessQueryInterfaceRequest;
    BOOLEAN ImportInterface;
} WDF_QUERY_INTERFACE_CONFIG, *PWDF_QUERY_INTERFACE_CONFIG;
PLATFORM_SIZE(WDF_QUERY_INTERFACE_CONFIG, 48);
PLATFORM_LAYOUT(WDF_QUERY_INTERFACE_CONFIG, InterfaceType, 16);
PLATFORM_LAYOUT(WDF_QUERY_INTERFACE_CONFIG, EvtDeviceProcessQueryInterfaceRequest, 32);
PLATFORM_LAYOUT(WDF_QUERY_INTERFACE_CONFIG, ImportInterface, 40);

FORCEINLINE VOID WDF_QUERY_INTERFACE_CONFIG_INIT(
    PWDF_QUERY_INTERFACE_CONFIG InterfaceConfig, PINTERFACE Interface, const GUID* InterfaceType,
    PFN_WDF_DEVICE_PROCESS_QUERY_INTERFACE_REQUEST EvtDeviceProcessQueryInterfaceRequest)
{
    RtlZeroMemory(InterfaceConfig, sizeof(WDF_QUERY_INTERFACE_CONFIG));
    InterfaceConfig->Size = sizeof(WDF_QUERY_INTERFACE_CONFIG);
    InterfaceConfig->Interface = Interface;
    InterfaceConfig->InterfaceType = InterfaceType;
    InterfaceConfig->EvtDeviceProcessQueryInterfaceRequest = EvtDeviceProcessQueryInterfaceRequest;
}

// ---- Queue ----

typedef VOID(NTAPI EVT_WDF_IO_QUEUE_IO_DEFAULT)(WDFQUEUE Queue, WDFREQUEST Request);
typedef VOID(NTAPI EVT_WDF_IO_QUEUE_IO_READ)(WDFQUEUE Queue, WDFREQUEST Request, size_t Length);
typedef VOID(NTAPI EVT_WDF_IO_QUEUE_IO_WRITE)(WDFQUEUE Queue, WDFREQUEST Request, size_t Length);
typedef VOID(NTAPI EVT_WDF_IO_QUEUE_IO_DEVICE_CONTROL)(WDFQUEUE Queue, WDFREQUEST Request, size_t OutputBufferLength,
                                                       size_t InputBufferLength, ULONG IoControlCode);
typedef EVT_WDF_IO_QUEUE_IO_DEFAULT* PFN_WDF_IO_QUEUE_IO_DEFAULT;
typedef EVT_WDF_IO_QUEUE_IO_READ* PFN_WDF_IO_QUEUE_IO_READ;
typedef EVT_WDF_IO_QUEUE_IO_WRITE* PFN_WDF_IO_QUEUE_IO_WRITE;
typedef EVT_WDF_IO_QUEUE_IO_DEVICE_CONTROL* PFN_WDF_IO_QUEUE_IO_DEVICE_CONTROL;

typedef struct _WDF_IO_QUEUE_CONFIG {
    ULONG Size;
    WDF_IO_QUEUE_DISPATCH_TYPE DispatchType;
    WDF_TRI_STATE PowerManaged;
    BOOLEAN AllowZeroLengthRequests;
    BOOLEAN DefaultQueue;
    PFN_WDF_IO_QUEUE_IO_DEFAULT EvtIoDefault;
    PFN_WDF_IO_QUEUE_IO_READ EvtIoRead;
    PFN_WDF_IO_QUEUE_IO_WRITE EvtIoWrite;
    PFN_WDF_IO_QUEUE_IO_DEVICE_CONTROL EvtIoDeviceControl;
    PFN_WDF_IO_QUEUE_IO_DEVICE_CONTROL EvtIoInternalDeviceControl;
    PVOID EvtIoStop;
    PVOID EvtIoResume;
    PVOID EvtIoCanceledOnQueue;
    union {
        struct {
            ULONG NumberOfPresentedRequests;
        } Parallel;
    } Settings;
    WDFDRIVER Driver;
} WDF_IO_QUEUE_CONFIG, *PWDF_IO_QUEUE_CONFIG;
PLATFORM_SIZE(WDF_IO_QUEUE_CONFIG, 96);
PLATFORM_LAYOUT(WDF_IO_QUEUE_CONFIG, AllowZeroLengthRequests, 12);
PLATFORM_LAYOUT(WDF_IO_QUEUE_CONFIG, DefaultQueue, 13);
PLATFORM_LAYOUT(WDF_IO_QUEUE_CONFIG, EvtIoDeviceControl, 40);
PLATFORM_LAYOUT(WDF_IO_QUEUE_CONFIG, Settings, 80);
PLATFORM_LAYOUT(WDF_IO_QUEUE_CONFIG, Driver, 88);

FORCEINLINE VOID WDF_IO_QUEUE_CONFIG_INIT(PWDF_IO_QUEUE_CONFIG Config, WDF_IO_QUEUE_DISPATCH_TYPE DispatchType)
{
    RtlZeroMemory(Config, sizeof(WDF_IO_QUEUE_CONFIG));
    Config->Size = sizeof(WDF_IO_QUEUE_CONFIG);
    Config->PowerManaged = WdfUseDefault;
    Config->DispatchType = DispatchType;
    if (DispatchType == WdfIoQueueDispatchParallel) {
        Config->Settings.Parallel.NumberOfPresentedRequests = (ULONG)-1;
    }
}

FORCEINLINE VOID WDF_IO_QUEUE_CONFIG_INIT_DEFAULT_QUEUE(PWDF_IO_QUEUE_CONFIG Config,
                                                        WDF_IO_QUEUE_DISPATCH_TYPE DispatchType)
{
    WDF_IO_QUEUE_CONFIG_INIT(Config, DispatchType);
    Config->DefaultQueue = TRUE;
}

// ---- Work item ----

typedef VOID(NTAPI EVT_WDF_WORKITEM)(WDFWORKITEM WorkItem);
typedef EVT_WDF_WORKITEM* PFN_WDF_WORKITEM;

typedef struct _WDF_WORKITEM_CONFIG {
    ULONG Size;
    PFN_WDF_WORKITEM EvtWorkItemFunc;
    BOOLEAN AutomaticSerialization;
} WDF_WORKITEM_CONFIG, *PWDF_WORKITEM_CONFIG;
PLATFORM_SIZE(WDF_WORKITEM_CONFIG, 24);
PLATFORM_LAYOUT(WDF_WORKITEM_CONFIG, AutomaticSerialization, 16);

FORCEINLINE VOID WDF_WORKITEM_CONFIG_INIT(PWDF_WORKITEM_CONFIG Config, PFN_WDF_WORKITEM EvtWorkItemFunc)
{
    RtlZeroMemory(Config, sizeof(WDF_WORKITEM_CONFIG));
    Config->Size = sizeof(WDF_WORKITEM_CONFIG);
    Config->EvtWorkItemFunc = EvtWorkItemFunc;
    Config->AutomaticSerialization = TRUE;
}

// ---- Calls: table index, name, result, parameters, arguments ----
//
// Parameters are in the platform's order and follow the driver's globals.

#define WDF_UNPACK(...) __VA_ARGS__
#define WDF_CALL(index, name, result, parameters, arguments)                                                  \
    enum { name##TableIndex = (index) };                                                                      \
    typedef result(NTAPI* PFN_##name)(PWDF_DRIVER_GLOBALS DriverGlobals, WDF_UNPACK parameters);              \
    FORCEINLINE result name parameters                                                                        \
    {                                                                                                         \
        return ((PFN_##name)WdfFunctions[name##TableIndex])(WdfDriverGlobals, WDF_UNPACK arguments);          \
    }

WDF_CALL(13, WdfCollectionCreate, NTSTATUS,
         (PWDF_OBJECT_ATTRIBUTES CollectionAttributes, WDFCOLLECTION* Collection),
         (CollectionAttributes, Collection))
WDF_CALL(14, WdfCollectionGetCount, ULONG, (WDFCOLLECTION Collection), (Collection))
WDF_CALL(15, WdfCollectionAdd, NTSTATUS, (WDFCOLLECTION Collection, WDFOBJECT Object), (Collection, Object))
WDF_CALL(16, WdfCollectionRemove, VOID, (WDFCOLLECTION Collection, WDFOBJECT Item), (Collection, Item))
WDF_CALL(17, WdfCollectionRemoveItem, VOID, (WDFCOLLECTION Collection, ULONG Index), (Collection, Index))
WDF_CALL(18, WdfCollectionGetItem, WDFOBJECT, (WDFCOLLECTION Collection, ULONG Index), (Collection, Index))
WDF_CALL(19, WdfCollectionGetFirstItem, WDFOBJECT, (WDFCOLLECTION Collection), (Collection))
WDF_CALL(20, WdfCollectionGetLastItem, WDFOBJECT, (WDFCOLLECTION Collection), (Collection))
WDF_CALL(39, WdfDeviceGetDriver, WDFDRIVER, (WDFDEVICE Device), (Device))
WDF_CALL(55, WdfDeviceInitSetPnpPowerEventCallbacks, VOID,
         (PWDFDEVICE_INIT DeviceInit, PWDF_PNPPOWER_EVENT_CALLBACKS PnpPowerEventCallbacks),
         (DeviceInit, PnpPowerEventCallbacks))
WDF_CALL(61, WdfDeviceInitSetIoType, VOID,
         (PWDFDEVICE_INIT DeviceInit, WDF_DEVICE_IO_TYPE IoType),
         (DeviceInit, IoType))
WDF_CALL(67, WdfDeviceInitAssignName, NTSTATUS,
         (PWDFDEVICE_INIT DeviceInit, PCUNICODE_STRING DeviceName),
         (DeviceInit, DeviceName))
WDF_CALL(71, WdfDeviceInitSetFileObjectConfig, VOID,
         (PWDFDEVICE_INIT DeviceInit, PWDF_FILEOBJECT_CONFIG FileObjectConfig, PWDF_OBJECT_ATTRIBUTES FileObjectAttributes),
         (DeviceInit, FileObjectConfig, FileObjectAttributes))
WDF_CALL(75, WdfDeviceCreate, NTSTATUS,
         (PWDFDEVICE_INIT* DeviceInit, PWDF_OBJECT_ATTRIBUTES DeviceAttributes, WDFDEVICE* Device),
         (DeviceInit, DeviceAttributes, Device))
WDF_CALL(76, WdfDeviceSetStaticStopRemove, VOID, (WDFDEVICE Device, BOOLEAN Stoppable), (Device, Stoppable))
WDF_CALL(77, WdfDeviceCreateDeviceInterface, NTSTATUS,
         (WDFDEVICE Device, const GUID* InterfaceClassGUID, PCUNICODE_STRING ReferenceString),
         (Device, InterfaceClassGUID, ReferenceString))
WDF_CALL(78, WdfDeviceSetDeviceInterfaceState, VOID,
         (WDFDEVICE Device, const GUID* InterfaceClassGUID, PCUNICODE_STRING ReferenceString, BOOLEAN IsInterfaceEnabled),
         (Device, InterfaceClassGUID, ReferenceString, IsInterfaceEnabled))
WDF_CALL(80, WdfDeviceCreateSymbolicLink, NTSTATUS,
         (WDFDEVICE Device, PCUNICODE_STRING SymbolicLinkName),
         (Device, SymbolicLinkName))
WDF_CALL(92, WdfDeviceGetDefaultQueue, WDFQUEUE, (WDFDEVICE Device), (Device))
WDF_CALL(116, WdfDriverCreate, NTSTATUS,
         (PDRIVER_OBJECT DriverObject, PCUNICODE_STRING RegistryPath, PWDF_OBJECT_ATTRIBUTES DriverAttributes, PWDF_DRIVER_CONFIG DriverConfig, WDFDRIVER* Driver),
         (DriverObject, RegistryPath, DriverAttributes, DriverConfig, Driver))
WDF_CALL(118, WdfDriverWdmGetDriverObject, PDRIVER_OBJECT, (WDFDRIVER Driver), (Driver))
WDF_CALL(119, WdfDriverOpenParametersRegistryKey, NTSTATUS,
         (WDFDRIVER Driver, ACCESS_MASK DesiredAccess, PWDF_OBJECT_ATTRIBUTES KeyAttributes, WDFKEY* Key),
         (Driver, DesiredAccess, KeyAttributes, Key))
WDF_CALL(131, WdfFdoQueryForInterface, NTSTATUS,
         (WDFDEVICE Fdo, LPCGUID InterfaceType, PINTERFACE Interface, USHORT Size, USHORT Version, PVOID InterfaceSpecificData),
         (Fdo, InterfaceType, Interface, Size, Version, InterfaceSpecificData))
WDF_CALL(152, WdfIoQueueCreate, NTSTATUS,
         (WDFDEVICE Device, PWDF_IO_QUEUE_CONFIG Config, PWDF_OBJECT_ATTRIBUTES QueueAttributes, WDFQUEUE* Queue),
         (Device, Config, QueueAttributes, Queue))
WDF_CALL(157, WdfIoQueueGetDevice, WDFDEVICE, (WDFQUEUE Queue), (Queue))
WDF_CALL(202, WdfObjectGetTypedContextWorker, PVOID,
         (WDFOBJECT Handle, PCWDF_OBJECT_CONTEXT_TYPE_INFO TypeInfo),
         (Handle, TypeInfo))
WDF_CALL(203, WdfObjectAllocateContext, NTSTATUS,
         (WDFOBJECT Handle, PWDF_OBJECT_ATTRIBUTES ContextAttributes, PVOID* Context),
         (Handle, ContextAttributes, Context))
WDF_CALL(204, WdfObjectContextGetObject, WDFOBJECT, (PVOID ContextPointer), (ContextPointer))
WDF_CALL(205, WdfObjectReferenceActual, VOID,
         (WDFOBJECT Handle, PVOID Tag, LONG Line, PCHAR File),
         (Handle, Tag, Line, File))
WDF_CALL(206, WdfObjectDereferenceActual, VOID,
         (WDFOBJECT Handle, PVOID Tag, LONG Line, PCHAR File),
         (Handle, Tag, Line, File))
WDF_CALL(207, WdfObjectCreate, NTSTATUS, (PWDF_OBJECT_ATTRIBUTES Attributes, WDFOBJECT* Object), (Attributes, Object))
WDF_CALL(208, WdfObjectDelete, VOID, (WDFOBJECT Object), (Object))
WDF_CALL(228, WdfDeviceAddQueryInterface, NTSTATUS,
         (WDFDEVICE Device, PWDF_QUERY_INTERFACE_CONFIG InterfaceConfig),
         (Device, InterfaceConfig))
WDF_CALL(231, WdfRegistryClose, VOID, (WDFKEY Key), (Key))
WDF_CALL(234, WdfRegistryRemoveValue, NTSTATUS, (WDFKEY Key, PCUNICODE_STRING ValueName), (Key, ValueName))
WDF_CALL(240, WdfRegistryQueryULong, NTSTATUS,
         (WDFKEY Key, PCUNICODE_STRING ValueName, PULONG Value),
         (Key, ValueName, Value))
WDF_CALL(241, WdfRegistryAssignValue, NTSTATUS,
         (WDFKEY Key, PCUNICODE_STRING ValueName, ULONG ValueType, ULONG ValueLength, PVOID Value),
         (Key, ValueName, ValueType, ValueLength, Value))
WDF_CALL(246, WdfRegistryAssignULong, NTSTATUS,
         (WDFKEY Key, PCUNICODE_STRING ValueName, ULONG Value),
         (Key, ValueName, Value))
WDF_CALL(263, WdfRequestComplete, VOID, (WDFREQUEST Request, NTSTATUS Status), (Request, Status))
WDF_CALL(265, WdfRequestCompleteWithInformation, VOID,
         (WDFREQUEST Request, NTSTATUS Status, ULONG_PTR Information),
         (Request, Status, Information))
WDF_CALL(277, WdfRequestGetFileObject, WDFFILEOBJECT, (WDFREQUEST Request), (Request))
WDF_CALL(282, WdfRequestGetIoQueue, WDFQUEUE, (WDFREQUEST Request), (Request))
WDF_CALL(312, WdfWaitLockCreate, NTSTATUS,
         (PWDF_OBJECT_ATTRIBUTES LockAttributes, WDFWAITLOCK* Lock),
         (LockAttributes, Lock))
WDF_CALL(313, WdfWaitLockAcquire, NTSTATUS, (WDFWAITLOCK Lock, PLONGLONG Timeout), (Lock, Timeout))
WDF_CALL(314, WdfWaitLockRelease, VOID, (WDFWAITLOCK Lock), (Lock))
WDF_CALL(315, WdfSpinLockCreate, NTSTATUS,
         (PWDF_OBJECT_ATTRIBUTES SpinLockAttributes, WDFSPINLOCK* SpinLock),
         (SpinLockAttributes, SpinLock))
WDF_CALL(316, WdfSpinLockAcquire, VOID, (WDFSPINLOCK SpinLock), (SpinLock))
WDF_CALL(317, WdfSpinLockRelease, VOID, (WDFSPINLOCK SpinLock), (SpinLock))
WDF_CALL(379, WdfWorkItemCreate, NTSTATUS,
         (PWDF_WORKITEM_CONFIG Config, PWDF_OBJECT_ATTRIBUTES Attributes, WDFWORKITEM* WorkItem),
         (Config, Attributes, WorkItem))
WDF_CALL(380, WdfWorkItemEnqueue, VOID, (WDFWORKITEM WorkItem), (WorkItem))
WDF_CALL(381, WdfWorkItemGetParentObject, WDFOBJECT, (WDFWORKITEM WorkItem), (WorkItem))
WDF_CALL(382, WdfWorkItemFlush, VOID, (WDFWORKITEM WorkItem), (WorkItem))

#include <wdfiotarget.h>
#include <wdfdevice.h>
#include <wdfmemory.h>
#include <wdfrequest.h>
#include <wdfresource.h>
#include <wdfstring.h>
#include <wdfdriver.h>
#include <wdftimer.h>

#include <wdfregistry.h>

#undef WDF_CALL

#include <wdfabsent.h>

// No table call: the framework publishes the handle in the globals when WdfDriverCreate succeeds.
FORCEINLINE WDFDRIVER WdfGetDriver(VOID)
{
    return WdfDriverGlobals->Driver;
}

#define WdfObjectReference(Handle) WdfObjectReferenceActual((Handle), NULL, __LINE__, (PCHAR)__FILE__)
#define WdfObjectDereference(Handle) WdfObjectDereferenceActual((Handle), NULL, __LINE__, (PCHAR)__FILE__)

// ---- The framework loader's exports ----

EXTERN_C_START
DECLSPEC_IMPORT NTSTATUS NTAPI WdfVersionBind(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath,
                                              PWDF_BIND_INFO BindInfo, PWDF_DRIVER_GLOBALS* ComponentGlobals);
DECLSPEC_IMPORT NTSTATUS NTAPI WdfVersionUnbind(PUNICODE_STRING RegistryPath, PWDF_BIND_INFO BindInfo,
                                                PWDF_DRIVER_GLOBALS ComponentGlobals);
EXTERN_C_END
