// What the faulty driver shares with its tests: one interface, by which a test takes over the driver's callbacks,
// or calls the framework with the driver's own table and globals; and the scenarios, exported functions each of which
// breaks exactly one rule.
#pragma once

#include <ntddk.h>

#include <wdf.h>

inline constexpr GUID kFaultyInterface = {0x6B1F0C52, 0x77A1, 0x4E0B, {0x9D, 0x31, 0x52, 0x0A, 0xC4, 0x18, 0x7F, 0x90}};

// How the request of an I/O control is dealt with, by its control code.
enum Control : ULONG {
    kCompletes = 4,
    kCompletesTwice = 8,
    kClaimsTooMuch = 12,
    kNeverCompletes = 16,
};

// The driver's callbacks call these when they are set.
struct FaultyHooks {
    void(NTAPI* Work)(WDFWORKITEM item);
    void(NTAPI* Control)(WDFREQUEST request);  // of other codes
    void(NTAPI* Init)(PWDFDEVICE_INIT init);
    void(NTAPI* Resources)(WDFCMRESLIST list);
    void(NTAPI* FileCreate)(WDFREQUEST request, WDFFILEOBJECT file);
    void(NTAPI* FileClose)(WDFFILEOBJECT file);
    void(NTAPI* QueueCleanup)(WDFOBJECT queue);
    NTSTATUS(NTAPI* Step)(const char* step);  // "prepare", "D0 entry from D3Final", ...
};

struct FaultyTable {
    INTERFACE Header;
    FaultyHooks* Hooks;
    const WDFFUNC* Functions;
    PWDF_DRIVER_GLOBALS Globals;
    WDFDEVICE Device;
    WDFQUEUE Queue;
    WDFWORKITEM WorkItem;
    WDFREQUEST* Pending;  // the last request that was kept
};

struct FAULTY_CONTEXT {
    ULONG Numbers[10];
};
WDF_DECLARE_CONTEXT_TYPE(FAULTY_CONTEXT)

WDFDEVICE TheDevice();
