// Bringing reporting up and down, and the two writers that the slow paths of the reporting sites use.
#pragma once

#include <ntddk.h>

#include "driver/trace/report_definitions.h"

// Control codes of enable callbacks; the system may send others.
inline constexpr ULONG kControlDisable = 0;
inline constexpr ULONG kControlEnable = 1;

// ---- Registration: PASSIVE_LEVEL, from driver entry and unload only ----

// Registers the event provider unless it is registered. A session that is armed already enables it before this returns.
void RegisterEventProvider();
void UnregisterEventProvider();

// Registers the trace-message provider by the classic provider registration, or by WMI where the system lacks that;
// once in a load. After the clean-up nothing is traced.
void InitializeTraceMessages();
void CleanUpTraceMessages();

// ---- Writing: any IRQL ----

// Writes one event of version 0 without channel, opcode, task and keyword.
void WriteEvent(USHORT id, UCHAR level, EVENT_DATA_DESCRIPTOR* fields, ULONG fieldCount);

// The system takes a trace message's arguments as (address, length) pairs up to a null address. One operation per form
// of arguments: W a 32-bit value, Q a 64-bit value, S a zero-terminated string.
void TraceMessage(MessageSet set, USHORT number);
void TraceMessageW(MessageSet set, USHORT number, ULONG a);
void TraceMessageWW(MessageSet set, USHORT number, ULONG a, ULONG b);
void TraceMessageWWW(MessageSet set, USHORT number, ULONG a, ULONG b, ULONG c);
void TraceMessageWWWW(MessageSet set, USHORT number, ULONG a, ULONG b, ULONG c, ULONG d);
void TraceMessageQ(MessageSet set, USHORT number, ULONGLONG a);
void TraceMessageQW(MessageSet set, USHORT number, ULONGLONG a, ULONG b);
void TraceMessageQQ(MessageSet set, USHORT number, ULONGLONG a, ULONGLONG b);
void TraceMessageWQQ(MessageSet set, USHORT number, ULONG a, ULONGLONG b, ULONGLONG c);
void TraceMessageSS(MessageSet set, USHORT number, const char* a, const char* b);
