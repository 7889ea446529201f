// Timers: a callback at DISPATCH_LEVEL, or on a system thread, once or again and again. Included by wdf.h.
#pragma once

WDF_DECLARE_HANDLE(WDFTIMER);

typedef VOID(NTAPI EVT_WDF_TIMER)(WDFTIMER Timer);
typedef EVT_WDF_TIMER* PFN_WDF_TIMER;

typedef struct _WDF_TIMER_CONFIG {
    ULONG Size;
    PFN_WDF_TIMER EvtTimerFunc;
    ULONG Period;  // in milliseconds; 0: once
    BOOLEAN AutomaticSerialization;
    ULONG TolerableDelay;  // in milliseconds
    DECLSPEC_ALIGN(8) BOOLEAN UseHighResolutionTimer;
} WDF_TIMER_CONFIG, *PWDF_TIMER_CONFIG;
PLATFORM_SIZE(WDF_TIMER_CONFIG, 40);
PLATFORM_LAYOUT(WDF_TIMER_CONFIG, EvtTimerFunc, 8);
PLATFORM_LAYOUT(WDF_TIMER_CONFIG, Period, 16);
PLATFORM_LAYOUT(WDF_TIMER_CONFIG, AutomaticSerialization, 20);
PLATFORM_LAYOUT(WDF_TIMER_CONFIG, TolerableDelay, 24);
PLATFORM_LAYOUT(WDF_TIMER_CONFIG, UseHighResolutionTimer, 32);

FORCEINLINE VOID WDF_TIMER_CONFIG_INIT(PWDF_TIMER_CONFIG Config, PFN_WDF_TIMER EvtTimerFunc)
{
    RtlZeroMemory(Config, sizeof(WDF_TIMER_CONFIG));
    Config->Size = sizeof(WDF_TIMER_CONFIG);
    Config->EvtTimerFunc = EvtTimerFunc;
    Config->AutomaticSerialization = TRUE;
}

FORCEINLINE VOID WDF_TIMER_CONFIG_INIT_PERIODIC(PWDF_TIMER_CONFIG Config, PFN_WDF_TIMER EvtTimerFunc, LONG Period)
{
    WDF_TIMER_CONFIG_INIT(Config, EvtTimerFunc);
    Config->Period = (ULONG)Period;
}

// Due times are in 100 ns units: relative ones are negative.
#define WDF_TIMEOUT_TO_SEC ((LONGLONG)1 * 10 * 1000 * 1000)
#define WDF_TIMEOUT_TO_MS ((LONGLONG)1 * 10 * 1000)
#define WDF_TIMEOUT_TO_US ((LONGLONG)1 * 10)

FORCEINLINE LONGLONG WDF_REL_TIMEOUT_IN_SEC(ULONGLONG Time)
{
    return (LONGLONG)Time * -1 * WDF_TIMEOUT_TO_SEC;
}

FORCEINLINE LONGLONG WDF_ABS_TIMEOUT_IN_SEC(ULONGLONG Time)
{
    return (LONGLONG)Time * WDF_TIMEOUT_TO_SEC;
}

FORCEINLINE LONGLONG WDF_REL_TIMEOUT_IN_MS(ULONGLONG Time)
{
    return (LONGLONG)Time * -1 * WDF_TIMEOUT_TO_MS;
}

FORCEINLINE LONGLONG WDF_ABS_TIMEOUT_IN_MS(ULONGLONG Time)
{
    return (LONGLONG)Time * WDF_TIMEOUT_TO_MS;
}

FORCEINLINE LONGLONG WDF_REL_TIMEOUT_IN_US(ULONGLONG Time)
{
    return (LONGLONG)Time * -1 * WDF_TIMEOUT_TO_US;
}

FORCEINLINE LONGLONG WDF_ABS_TIMEOUT_IN_US(ULONGLONG Time)
{
    return (LONGLONG)Time * WDF_TIMEOUT_TO_US;
}

WDF_CALL(318, WdfTimerCreate, NTSTATUS,
         (PWDF_TIMER_CONFIG Config, PWDF_OBJECT_ATTRIBUTES Attributes, WDFTIMER* Timer),
         (Config, Attributes, Timer))
WDF_CALL(319, WdfTimerStart, BOOLEAN, (WDFTIMER Timer, LONGLONG DueTime), (Timer, DueTime))
WDF_CALL(320, WdfTimerStop, BOOLEAN, (WDFTIMER Timer, BOOLEAN Wait), (Timer, Wait))
WDF_CALL(321, WdfTimerGetParentObject, WDFOBJECT, (WDFTIMER Timer), (Timer))
