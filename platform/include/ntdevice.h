// Device objects, device power states and resource descriptors. Included by ntddk.h.
//
// Of a device object the members that drivers look at have their names; the rest is the system's.
#pragma once

typedef ULONG DEVICE_TYPE;

#define DO_BUFFERED_IO 0x00000004
#define DO_EXCLUSIVE 0x00000008
#define DO_DIRECT_IO 0x00000010
#define DO_DEVICE_HAS_NAME 0x00000040
#define DO_POWER_PAGABLE 0x00002000
#define DO_POWER_INRUSH 0x00004000

typedef struct DECLSPEC_ALIGN(16) _DEVICE_OBJECT {
    SHORT Type;
    USHORT Size;
    LONG ReferenceCount;
    struct _DRIVER_OBJECT* DriverObject;
    struct _DEVICE_OBJECT* NextDevice;
    struct _DEVICE_OBJECT* AttachedDevice;
    struct _IRP* CurrentIrp;
    PVOID Timer;
    ULONG Flags;
    ULONG Characteristics;
    PVOID Vpb;
    PVOID DeviceExtension;
    DEVICE_TYPE DeviceType;
    CCHAR StackSize;
    PVOID SystemQueue[9];
    ULONG AlignmentRequirement;
    PVOID System[20];
    PVOID Reserved;
} DEVICE_OBJECT;
PLATFORM_SIZE(DEVICE_OBJECT, 336);
PLATFORM_LAYOUT(DEVICE_OBJECT, DriverObject, 8);
PLATFORM_LAYOUT(DEVICE_OBJECT, Flags, 48);
PLATFORM_LAYOUT(DEVICE_OBJECT, Characteristics, 52);
PLATFORM_LAYOUT(DEVICE_OBJECT, DeviceExtension, 64);
PLATFORM_LAYOUT(DEVICE_OBJECT, DeviceType, 72);
PLATFORM_LAYOUT(DEVICE_OBJECT, StackSize, 76);
PLATFORM_LAYOUT(DEVICE_OBJECT, AlignmentRequirement, 152);

typedef enum _DEVICE_POWER_STATE {
    PowerDeviceUnspecified = 0,
    PowerDeviceD0 = 1,
    PowerDeviceD1 = 2,
    PowerDeviceD2 = 3,
    PowerDeviceD3 = 4,
    PowerDeviceMaximum = 5
} DEVICE_POWER_STATE;

typedef LARGE_INTEGER PHYSICAL_ADDRESS;
typedef ULONG_PTR KAFFINITY;

#define CmResourceTypeNull 0
#define CmResourceTypePort 1
#define CmResourceTypeInterrupt 2
#define CmResourceTypeMemory 3
#define CmResourceTypeConnection 132

#pragma pack(push, 4)
typedef struct _CM_PARTIAL_RESOURCE_DESCRIPTOR {
    UCHAR Type;
    UCHAR ShareDisposition;
    USHORT Flags;
    union {
        struct {
            PHYSICAL_ADDRESS Start;
            ULONG Length;
        } Generic, Port, Memory;
        struct {
            ULONG Level;
            ULONG Vector;
            KAFFINITY Affinity;
        } Interrupt;
        struct {
            UCHAR Class;
            UCHAR Type;
            UCHAR Reserved1;
            UCHAR Reserved2;
            ULONG IdLowPart;
            ULONG IdHighPart;
        } Connection;
        struct {
            ULONG Data[3];
        } DevicePrivate;
    } u;
} CM_PARTIAL_RESOURCE_DESCRIPTOR, *PCM_PARTIAL_RESOURCE_DESCRIPTOR;
#pragma pack(pop)
PLATFORM_SIZE(CM_PARTIAL_RESOURCE_DESCRIPTOR, 20);
PLATFORM_LAYOUT(CM_PARTIAL_RESOURCE_DESCRIPTOR, u.Interrupt.Affinity, 12);
