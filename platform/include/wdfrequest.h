// Requests: what a driver learns of one, and its buffers. Included by wdf.h.
#pragma once

typedef enum _WDF_REQUEST_TYPE {
    WdfRequestTypeCreate = 0x0,
    WdfRequestTypeClose = 0x2,
    WdfRequestTypeRead = 0x3,
    WdfRequestTypeWrite = 0x4,
    WdfRequestTypeDeviceControl = 0xE,
    WdfRequestTypeDeviceControlInternal = 0xF,
    WdfRequestTypeCleanup = 0x12
} WDF_REQUEST_TYPE;

typedef struct _IO_SECURITY_CONTEXT* PIO_SECURITY_CONTEXT;

typedef struct _WDF_REQUEST_PARAMETERS {
    USHORT Size;
    UCHAR MinorFunction;
    WDF_REQUEST_TYPE Type;
    union {
        struct {
            PIO_SECURITY_CONTEXT SecurityContext;
            ULONG Options;
            USHORT POINTER_ALIGNMENT FileAttributes;
            USHORT ShareAccess;
            ULONG POINTER_ALIGNMENT EaLength;
        } Create;
        struct {
            size_t Length;
            ULONG POINTER_ALIGNMENT Key;
            LONGLONG DeviceOffset;
        } Read;
        struct {
            size_t Length;
            ULONG POINTER_ALIGNMENT Key;
            LONGLONG DeviceOffset;
        } Write;
        struct {
            size_t OutputBufferLength;
            size_t POINTER_ALIGNMENT InputBufferLength;
            ULONG POINTER_ALIGNMENT IoControlCode;
            PVOID Type3InputBuffer;
        } DeviceIoControl;
    } Parameters;
} WDF_REQUEST_PARAMETERS, *PWDF_REQUEST_PARAMETERS;
PLATFORM_SIZE(WDF_REQUEST_PARAMETERS, 40);
PLATFORM_LAYOUT(WDF_REQUEST_PARAMETERS, Type, 4);
PLATFORM_LAYOUT(WDF_REQUEST_PARAMETERS, Parameters.Create.FileAttributes, 24);
PLATFORM_LAYOUT(WDF_REQUEST_PARAMETERS, Parameters.DeviceIoControl.InputBufferLength, 16);
PLATFORM_LAYOUT(WDF_REQUEST_PARAMETERS, Parameters.DeviceIoControl.IoControlCode, 24);

FORCEINLINE VOID WDF_REQUEST_PARAMETERS_INIT(PWDF_REQUEST_PARAMETERS Parameters)
{
    RtlZeroMemory(Parameters, sizeof(WDF_REQUEST_PARAMETERS));
    Parameters->Size = sizeof(WDF_REQUEST_PARAMETERS);
}

WDF_CALL(139, WdfFileObjectGetDevice, WDFDEVICE, (WDFFILEOBJECT FileObject), (FileObject))
WDF_CALL(266, WdfRequestGetParameters, VOID,
         (WDFREQUEST Request, PWDF_REQUEST_PARAMETERS Parameters),
         (Request, Parameters))
WDF_CALL(267, WdfRequestRetrieveInputMemory, NTSTATUS, (WDFREQUEST Request, WDFMEMORY* Memory), (Request, Memory))
WDF_CALL(268, WdfRequestRetrieveOutputMemory, NTSTATUS, (WDFREQUEST Request, WDFMEMORY* Memory), (Request, Memory))
WDF_CALL(269, WdfRequestRetrieveInputBuffer, NTSTATUS,
         (WDFREQUEST Request, size_t MinimumRequiredLength, PVOID* Buffer, size_t* Length),
         (Request, MinimumRequiredLength, Buffer, Length))
WDF_CALL(270, WdfRequestRetrieveOutputBuffer, NTSTATUS,
         (WDFREQUEST Request, size_t MinimumRequiredSize, PVOID* Buffer, size_t* Length),
         (Request, MinimumRequiredSize, Buffer, Length))
WDF_CALL(275, WdfRequestSetInformation, VOID, (WDFREQUEST Request, ULONG_PTR Information), (Request, Information))
WDF_CALL(276, WdfRequestGetInformation, ULONG_PTR, (WDFREQUEST Request), (Request))
