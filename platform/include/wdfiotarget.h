// I/O targets: how a driver opens the device of another and asks it for a function table. Included by wdf.h.
#pragma once

typedef NTSTATUS(NTAPI EVT_WDF_IO_TARGET_QUERY_REMOVE)(WDFIOTARGET IoTarget);
typedef EVT_WDF_IO_TARGET_QUERY_REMOVE* PFN_WDF_IO_TARGET_QUERY_REMOVE;
typedef VOID(NTAPI EVT_WDF_IO_TARGET_REMOVE_CANCELED)(WDFIOTARGET IoTarget);
typedef EVT_WDF_IO_TARGET_REMOVE_CANCELED* PFN_WDF_IO_TARGET_REMOVE_CANCELED;
typedef VOID(NTAPI EVT_WDF_IO_TARGET_REMOVE_COMPLETE)(WDFIOTARGET IoTarget);
typedef EVT_WDF_IO_TARGET_REMOVE_COMPLETE* PFN_WDF_IO_TARGET_REMOVE_COMPLETE;

typedef enum _WDF_IO_TARGET_OPEN_TYPE {
    WdfIoTargetOpenUndefined = 0,
    WdfIoTargetOpenUseExistingDevice = 1,
    WdfIoTargetOpenByName = 2,
    WdfIoTargetOpenReopen = 3
} WDF_IO_TARGET_OPEN_TYPE;

typedef struct _WDF_IO_TARGET_OPEN_PARAMS {
    ULONG Size;
    WDF_IO_TARGET_OPEN_TYPE Type;
    PFN_WDF_IO_TARGET_QUERY_REMOVE EvtIoTargetQueryRemove;
    PFN_WDF_IO_TARGET_REMOVE_CANCELED EvtIoTargetRemoveCanceled;
    PFN_WDF_IO_TARGET_REMOVE_COMPLETE EvtIoTargetRemoveComplete;
    PDEVICE_OBJECT TargetDeviceObject;
    PFILE_OBJECT TargetFileObject;
    UNICODE_STRING TargetDeviceName;
    ACCESS_MASK DesiredAccess;
    ULONG ShareAccess;
    ULONG FileAttributes;
    ULONG CreateDisposition;
    ULONG CreateOptions;
    PVOID EaBuffer;
    ULONG EaBufferLength;
    PLONGLONG AllocationSize;
    ULONG FileInformation;
    UNICODE_STRING FileName;
} WDF_IO_TARGET_OPEN_PARAMS, *PWDF_IO_TARGET_OPEN_PARAMS;
PLATFORM_SIZE(WDF_IO_TARGET_OPEN_PARAMS, 136);
PLATFORM_LAYOUT(WDF_IO_TARGET_OPEN_PARAMS, EvtIoTargetQueryRemove, 8);
PLATFORM_LAYOUT(WDF_IO_TARGET_OPEN_PARAMS, TargetDeviceName, 48);
PLATFORM_LAYOUT(WDF_IO_TARGET_OPEN_PARAMS, DesiredAccess, 64);
PLATFORM_LAYOUT(WDF_IO_TARGET_OPEN_PARAMS, CreateDisposition, 76);
PLATFORM_LAYOUT(WDF_IO_TARGET_OPEN_PARAMS, EaBuffer, 88);
PLATFORM_LAYOUT(WDF_IO_TARGET_OPEN_PARAMS, AllocationSize, 104);
PLATFORM_LAYOUT(WDF_IO_TARGET_OPEN_PARAMS, FileName, 120);

FORCEINLINE VOID WDF_IO_TARGET_OPEN_PARAMS_INIT_OPEN_BY_NAME(PWDF_IO_TARGET_OPEN_PARAMS Params,
                                                             PCUNICODE_STRING TargetDeviceName,
                                                             ACCESS_MASK DesiredAccess)
{
    RtlZeroMemory(Params, sizeof(WDF_IO_TARGET_OPEN_PARAMS));
    Params->Size = sizeof(WDF_IO_TARGET_OPEN_PARAMS);
    Params->Type = WdfIoTargetOpenByName;
    Params->TargetDeviceName = *TargetDeviceName;
    Params->DesiredAccess = DesiredAccess;
    Params->CreateDisposition = FILE_OPEN;
    Params->CreateOptions = FILE_NON_DIRECTORY_FILE;
}

FORCEINLINE VOID WDF_IO_TARGET_OPEN_PARAMS_INIT_REOPEN(PWDF_IO_TARGET_OPEN_PARAMS Params)
{
    RtlZeroMemory(Params, sizeof(WDF_IO_TARGET_OPEN_PARAMS));
    Params->Size = sizeof(WDF_IO_TARGET_OPEN_PARAMS);
    Params->Type = WdfIoTargetOpenReopen;
}

WDF_CALL(167, WdfIoTargetCreate, NTSTATUS,
         (WDFDEVICE Device, PWDF_OBJECT_ATTRIBUTES IoTargetAttributes, WDFIOTARGET* IoTarget),
         (Device, IoTargetAttributes, IoTarget))
WDF_CALL(168, WdfIoTargetOpen, NTSTATUS,
         (WDFIOTARGET IoTarget, PWDF_IO_TARGET_OPEN_PARAMS OpenParams),
         (IoTarget, OpenParams))
WDF_CALL(169, WdfIoTargetCloseForQueryRemove, VOID, (WDFIOTARGET IoTarget), (IoTarget))
WDF_CALL(170, WdfIoTargetClose, VOID, (WDFIOTARGET IoTarget), (IoTarget))
WDF_CALL(177, WdfIoTargetQueryForInterface, NTSTATUS,
         (WDFIOTARGET IoTarget, LPCGUID InterfaceType, PINTERFACE Interface, USHORT Size, USHORT Version, PVOID InterfaceSpecificData),
         (IoTarget, InterfaceType, Interface, Size, Version, InterfaceSpecificData))
