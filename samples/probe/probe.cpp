#include <ntddk.h>
#include <wdf.h>
EXTERN_C DRIVER_INITIALIZE DriverEntry;
NTSTATUS DriverEntry(PDRIVER_OBJECT, PUNICODE_STRING) { return STATUS_NOT_SUPPORTED; }
