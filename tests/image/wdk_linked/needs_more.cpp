// A native driver with imports that nobody has.
#include <ntddk.h>

EXTERN_C_START
VOID NTAPI NobodyHasThis(VOID);
VOID NTAPI NorThis(VOID);
EXTERN_C_END

EXTERN_C NTSTATUS NTAPI FxDriverEntry(PDRIVER_OBJECT driverObject, PUNICODE_STRING)
{
    if (driverObject == nullptr) {
        NobodyHasThis();
        NorThis();
    }
    return STATUS_SUCCESS;
}
