// A driver that needs two functions of the framework and one of the kernel that the host does not play. In the headers
// they are unavailable, so it calls them as another kit's headers would.
#include <ntddk.h>

#include <wdf.h>

EXTERN_C DECLSPEC_IMPORT PVOID NTAPI MmAllocateContiguousMemory(SIZE_T size, LONGLONG highest);

enum { kDmaEnablerCreate = 94, kInterruptCreate = 141 };
using Creation = NTSTATUS(NTAPI*)(PWDF_DRIVER_GLOBALS, WDFDEVICE, PVOID config, PWDF_OBJECT_ATTRIBUTES, PVOID* handle);

static BOOLEAN CallsImport()
{
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, L"CallsImport");
    ULONG value = 0;
    WDFKEY key = nullptr;
    if (NT_SUCCESS(WdfDriverOpenParametersRegistryKey(WdfGetDriver(), KEY_READ, WDF_NO_OBJECT_ATTRIBUTES, &key))) {
        (void)WdfRegistryQueryULong(key, &name, &value);
        WdfRegistryClose(key);
    }
    return value != 0;
}

static NTSTATUS Create(unsigned function, WDFDEVICE device)
{
    PVOID handle = nullptr;
    return reinterpret_cast<Creation>(WdfFunctions[function])(WdfDriverGlobals, device, &handle, nullptr, &handle);
}

static NTSTATUS NTAPI EvtDeviceAdd(WDFDRIVER, PWDFDEVICE_INIT init)
{
    WDFDEVICE device = nullptr;
    NTSTATUS status = WdfDeviceCreate(&init, WDF_NO_OBJECT_ATTRIBUTES, &device);
    if (NT_SUCCESS(status) && CallsImport() && MmAllocateContiguousMemory(4096, -1) == nullptr) {
        status = STATUS_INSUFFICIENT_RESOURCES;
    }
    if (NT_SUCCESS(status)) {
        status = Create(kDmaEnablerCreate, device);
    }
    return NT_SUCCESS(status) ? Create(kInterruptCreate, device) : status;
}

EXTERN_C NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driverObject, PUNICODE_STRING registryPath)
{
    WDF_DRIVER_CONFIG config;
    WDF_DRIVER_CONFIG_INIT(&config, EvtDeviceAdd);
    return WdfDriverCreate(driverObject, registryPath, WDF_NO_OBJECT_ATTRIBUTES, &config, WDF_NO_HANDLE);
}
