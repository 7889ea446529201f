// What the framework's loader and the entry stub of an image agree on beyond wdf.h: the bind record of clients of 1.25
// and later, class extensions, and interfaces of the loader itself. Drivers never include it.
#pragma once

#include <wdf.h>

typedef struct _WDF_BIND_INFO2 {
    WDF_BIND_INFO V1;  // its Size is that of the whole record
    const ULONG* MinimumVersionRequired;
    PBOOLEAN ClientVersionHigherThanFramework;
    PULONG FunctionCount;
    PULONG StructureCount;
    const size_t** Structures;
} WDF_BIND_INFO2, *PWDF_BIND_INFO2;
PLATFORM_SIZE(WDF_BIND_INFO2, 88);

typedef struct _WDF_CLASS_BIND_INFO {
    ULONG Size;
    PWCHAR ClassName;
    WDF_VERSION Version;
    PVOID FunctionTable;
    ULONG FunctionTableCount;
    PVOID ClassBindInfo;
    PVOID ClientBindClass;
    PVOID ClientUnbindClass;
    PVOID ClassModule;
} WDF_CLASS_BIND_INFO, *PWDF_CLASS_BIND_INFO;
PLATFORM_SIZE(WDF_CLASS_BIND_INFO, 80);
PLATFORM_LAYOUT(WDF_CLASS_BIND_INFO, FunctionTable, 32);
PLATFORM_LAYOUT(WDF_CLASS_BIND_INFO, ClientBindClass, 56);

typedef struct _WDF_LOADER_INTERFACE_HEADER {
    const GUID* InterfaceType;
    ULONG InterfaceSize;
} WDF_LOADER_INTERFACE_HEADER, *PWDF_LOADER_INTERFACE_HEADER;

EXTERN_C_START
DECLSPEC_IMPORT NTSTATUS NTAPI WdfVersionBindClass(PWDF_BIND_INFO BindInfo, PWDF_DRIVER_GLOBALS Globals,
                                                   PWDF_CLASS_BIND_INFO ClassBindInfo);
DECLSPEC_IMPORT VOID NTAPI WdfVersionUnbindClass(PWDF_BIND_INFO BindInfo, PWDF_DRIVER_GLOBALS Globals,
                                                 PWDF_CLASS_BIND_INFO ClassBindInfo);
DECLSPEC_IMPORT NTSTATUS NTAPI WdfLdrQueryInterface(PWDF_LOADER_INTERFACE_HEADER LoaderInterface);
EXTERN_C_END
