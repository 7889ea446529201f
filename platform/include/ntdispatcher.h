// Levels, spin locks, events and time: what the kernel's dispatcher gives to drivers. Included by ntddk.h.
#pragma once

#include <ntplatform.h>

#define HIGH_LEVEL 15

typedef LONG KPRIORITY;
typedef ULONG_PTR KSPIN_LOCK, *PKSPIN_LOCK;
typedef KIRQL* PKIRQL;

typedef struct _DISPATCHER_HEADER {
    UCHAR Type;
    UCHAR Signalling;
    UCHAR Size;
    UCHAR Reserved1;
    LONG SignalState;
    LIST_ENTRY WaitListHead;
} DISPATCHER_HEADER;
PLATFORM_SIZE(DISPATCHER_HEADER, 24);
PLATFORM_LAYOUT(DISPATCHER_HEADER, SignalState, 4);

typedef struct _KEVENT {
    DISPATCHER_HEADER Header;
} KEVENT, *PKEVENT, *PRKEVENT;
PLATFORM_SIZE(KEVENT, 24);

typedef enum _EVENT_TYPE { NotificationEvent, SynchronizationEvent } EVENT_TYPE;
typedef enum _KWAIT_REASON { Executive = 0, UserRequest = 6 } KWAIT_REASON;
#define IO_NO_INCREMENT 0

EXTERN_C_START

// ---- Levels ----

NTKERNELAPI KIRQL NTAPI KeGetCurrentIrql(VOID);
NTKERNELAPI KIRQL NTAPI KfRaiseIrql(KIRQL NewIrql);
NTKERNELAPI VOID NTAPI KeLowerIrql(KIRQL NewIrql);
#define KeRaiseIrql(NewIrql, OldIrql) (*(OldIrql) = KfRaiseIrql(NewIrql))

// ---- Spin locks: their holder runs at DISPATCH_LEVEL ----

FORCEINLINE VOID KeInitializeSpinLock(PKSPIN_LOCK SpinLock)
{
    *SpinLock = 0;
}

_IRQL_requires_max_(DISPATCH_LEVEL)
NTKERNELAPI KIRQL NTAPI KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK SpinLock);
#define KeAcquireSpinLock(SpinLock, OldIrql) (*(OldIrql) = KeAcquireSpinLockRaiseToDpc(SpinLock))

_IRQL_requires_(DISPATCH_LEVEL)
NTKERNELAPI VOID NTAPI KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql);

_IRQL_requires_min_(DISPATCH_LEVEL)
NTKERNELAPI VOID NTAPI KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock);

_IRQL_requires_min_(DISPATCH_LEVEL)
NTKERNELAPI VOID NTAPI KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock);

// ---- Events ----

NTKERNELAPI VOID NTAPI KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State);

// These three answer the state before, 0 for not signaled.
_IRQL_requires_max_(DISPATCH_LEVEL)
NTKERNELAPI LONG NTAPI KeSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait);

_IRQL_requires_max_(DISPATCH_LEVEL)
NTKERNELAPI LONG NTAPI KeResetEvent(PRKEVENT Event);

_IRQL_requires_max_(DISPATCH_LEVEL)
NTKERNELAPI LONG NTAPI KeReadStateEvent(PRKEVENT Event);

_IRQL_requires_max_(DISPATCH_LEVEL)
NTKERNELAPI VOID NTAPI KeClearEvent(PRKEVENT Event);

// Up to DISPATCH_LEVEL when *Timeout is 0, else up to APC_LEVEL.
NTKERNELAPI NTSTATUS NTAPI KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode,
                                                 BOOLEAN Alertable, PLARGE_INTEGER Timeout);

// ---- Time, in units of 100 ns ----

_IRQL_requires_max_(APC_LEVEL)
NTKERNELAPI NTSTATUS NTAPI KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                                                  PLARGE_INTEGER Interval);
NTKERNELAPI VOID NTAPI KeStallExecutionProcessor(ULONG MicroSeconds);
NTKERNELAPI VOID NTAPI KeQuerySystemTimePrecise(PLARGE_INTEGER CurrentTime);
NTKERNELAPI ULONG64 NTAPI KeQueryInterruptTimePrecise(PULONG64 QpcTimeStamp);
NTKERNELAPI LARGE_INTEGER NTAPI KeQueryPerformanceCounter(PLARGE_INTEGER PerformanceFrequency);

EXTERN_C_END

// The WDK's read a page that the kernel shares with everybody; these call what answers the same.
FORCEINLINE VOID KeQuerySystemTime(PLARGE_INTEGER CurrentTime)
{
    KeQuerySystemTimePrecise(CurrentTime);
}

FORCEINLINE ULONG64 KeQueryInterruptTime(VOID)
{
    ULONG64 counter;
    return KeQueryInterruptTimePrecise(&counter);
}
