// The event provider: registration, the enable state that the system keeps up to date, and the write.
//
// The enable callback runs on threads of the system's, also inside registration. It touches static storage only and
// never the registration handle, which may not be stored yet.
#include "driver/trace/identifiers.h"
#include "driver/trace/report.h"
#include "driver/trace/trace.h"

TraceEnableWords g_TraceEnable;

constexpr ULONG kEnableBitCount = 4;

// What the session asked for, written by the enable callback alone and otherwise kept for the debugger; and the levels
// and keywords of the enable bits, by which it derives the word in g_TraceEnable.
struct EventTraceContext {
    ULONG64 matchAnyKeyword{};
    ULONG64 matchAllKeyword{};
    ULONG isEnabled{};
    UCHAR level{};
    UCHAR enableBitLevels[kEnableBitCount] = {kLevelError, kLevelWarning, kLevelInformation, kLevelVerbose};
    ULONG64 enableBitKeywords[kEnableBitCount]{};  // no event uses one
};

static EventTraceContext g_EventContext;

static REGHANDLE g_RegistrationHandle;

static bool IsWanted(UCHAR bitLevel, ULONG64 bitKeyword, UCHAR level, ULONG64 matchAny, ULONG64 matchAll)
{
    const bool levelWanted = level == 0 || bitLevel <= level;
    const bool keywordWanted = bitKeyword == 0 || ((bitKeyword & matchAny) != 0 && (bitKeyword & matchAll) == matchAll);
    return levelWanted && keywordWanted;
}

static VOID NTAPI EventEnableCallback(LPCGUID, ULONG controlCode, UCHAR level, ULONGLONG matchAny, ULONGLONG matchAll,
                                      PEVENT_FILTER_DESCRIPTOR, PVOID callbackContext)
{
    auto* context = static_cast<EventTraceContext*>(callbackContext);
    if (context == nullptr) {
        return;
    }

    if (controlCode == kControlEnable) {
        WriteUCharNoFence(&context->level, level);
        WriteULong64NoFence(&context->matchAnyKeyword, matchAny);
        WriteULong64NoFence(&context->matchAllKeyword, matchAll);
        WriteULongNoFence(&context->isEnabled, 1);
        ULONG bits = 0;
        for (ULONG bit = 0; bit < kEnableBitCount; ++bit) {
            if (IsWanted(context->enableBitLevels[bit], context->enableBitKeywords[bit], level, matchAny, matchAll)) {
                bits |= 1u << bit;
            }
        }
        WriteULongNoFence(&g_TraceEnable.events, bits);
    } else if (controlCode == kControlDisable) {
        WriteULongNoFence(&context->isEnabled, 0);
        WriteUCharNoFence(&context->level, 0);
        WriteULong64NoFence(&context->matchAnyKeyword, 0);
        WriteULong64NoFence(&context->matchAllKeyword, 0);
        WriteULongNoFence(&g_TraceEnable.events, 0);
    }
}

void RegisterEventProvider()
{
    if (g_RegistrationHandle != 0) {
        return;
    }
    // The result does not matter: without a handle every write is refused by the system.
    (void)EtwRegister(&kProviderGuid, EventEnableCallback, &g_EventContext, &g_RegistrationHandle);
}

void UnregisterEventProvider()
{
    if (g_RegistrationHandle == 0) {
        return;
    }
    (void)EtwUnregister(g_RegistrationHandle);
    g_RegistrationHandle = 0;
}

void WriteEvent(USHORT id, UCHAR level, EVENT_DATA_DESCRIPTOR* fields, ULONG fieldCount)
{
    const EVENT_DESCRIPTOR descriptor = {
        .Id = id, .Version = 0, .Channel = 0, .Level = level, .Opcode = 0, .Task = 0, .Keyword = 0};
    (void)EtwWrite(g_RegistrationHandle, &descriptor, nullptr, fieldCount, fields);
}
