// A small driver that takes from the kernel's C library what a kit's linker would take from there: memory and text
// routines, formatted text, the probe of a large frame, and the handler of a frame with __try. Its one mistake is at
// the unload.
#include <ntddk.h>

#include <wdf.h>

EXTERN_C_START
DECLSPEC_IMPORT int __cdecl _snprintf(char* to, size_t count, const char* format, ...);
DECLSPEC_IMPORT int __cdecl _wcsicmp(const WCHAR* one, const WCHAR* other);
DECLSPEC_IMPORT int __cdecl wcscpy_s(WCHAR* to, size_t capacity, const WCHAR* from);
EXTERN_C_END

static KSPIN_LOCK g_Lock;
static KEVENT g_Event;
static volatile KIRQL g_Level;  // stored after the call, which would be a jump else

static LONG Guarded(volatile LONG* value)
{
    LONG read = 0;
    __try {
        read = *value;
    } __except (1) {
        read = -1;
    }
    return read;
}

static NTSTATUS NTAPI EvtDeviceAdd(WDFDRIVER, PWDFDEVICE_INIT init)
{
    WDFDEVICE device = nullptr;
    const NTSTATUS status = WdfDeviceCreate(&init, WDF_NO_OBJECT_ATTRIBUTES, &device);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    volatile char large[8192];
    large[0] = 1;
    WCHAR name[16];
    LONG number = 7;
    char text[64];
    const int failed = wcscpy_s(name, ARRAYSIZE(name), L"Fan");
    const int order = _wcsicmp(name, L"fAN");
    KeInitializeSpinLock(&g_Lock);
    KeInitializeEvent(&g_Event, NotificationEvent, FALSE);
    KIRQL before;
    KeAcquireSpinLock(&g_Lock, &before);
    KeSetEvent(&g_Event, IO_NO_INCREMENT, FALSE);
    KeReleaseSpinLock(&g_Lock, before);
    LARGE_INTEGER timeout = {.QuadPart = -10};
    const NTSTATUS waited = KeWaitForSingleObject(&g_Event, Executive, KernelMode, FALSE, &timeout);
    _snprintf(text, sizeof(text), "%S %d %d %x %d %I64d", name, failed, order, waited, Guarded(&number) + large[0],
              timeout.QuadPart);
    DbgPrint("%s\n", text);
    return STATUS_SUCCESS;
}

#pragma code_seg("PAGE")
__declspec(noinline) static void Paged()
{
    g_Level = KeGetCurrentIrql();
}
#pragma code_seg()

// Calls code that may be paged out, first as it may and then as it may not.
static void NTAPI EvtDriverUnload(WDFDRIVER)
{
    Paged();
    KIRQL before;
    KeAcquireSpinLock(&g_Lock, &before);
    Paged();
    KeReleaseSpinLock(&g_Lock, before);
}

EXTERN_C NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driverObject, PUNICODE_STRING registryPath)
{
    WDF_DRIVER_CONFIG config;
    WDF_DRIVER_CONFIG_INIT(&config, EvtDeviceAdd);
    config.EvtDriverUnload = EvtDriverUnload;
    return WdfDriverCreate(driverObject, registryPath, WDF_NO_OBJECT_ATTRIBUTES, &config, WDF_NO_HANDLE);
}
