// What the probe's questions share.
#pragma once

#include <ntddk.h>

#include <wdf.h>

// Writes one answer: as a number below the service's Parameters key and as an event.
VOID Answer(PCWSTR Name, ULONG Value);

// An object that notes its disposal and destruction: clean-up adds its digit to the log, destruction its digit + 8.
// Digits are 1 to 7.
NTSTATUS MakeNoted(WDFOBJECT Parent, ULONG Digit, WDFOBJECT* Object);
// The log since the last call, one hexadecimal digit for each note, first to last. At most 8 fit.
ULONG TakeLog(VOID);
ULONG NotesSoFar(VOID);  // the same log, which stays; from any thread
VOID Note(ULONG Digit);

// ---- Questions; PASSIVE_LEVEL, from EvtDevicePrepareHardware ----

VOID AskObjects(WDFDEVICE Device);      // objects.cpp
VOID AskCollections(WDFDEVICE Device);  // objects.cpp
VOID AskAttributes(WDFDEVICE Device);   // creation.cpp
VOID AskDevice(WDFDEVICE Device);       // creation.cpp
VOID AskQueries(WDFDEVICE Device);      // queries.cpp
VOID AskRegistry(VOID);                 // queries.cpp
VOID AskWorkItems(WDFDEVICE Device);    // work.cpp
VOID AskWaitLocks(WDFDEVICE Device);    // work.cpp
VOID AskKernel(VOID);                   // creation.cpp
