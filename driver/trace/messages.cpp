// The trace-message provider: its control block, the two ways to register it, and one write per form of arguments.
//
// Systems of today register through the classic-provider routine, which has no public declaration and is looked up by
// name; older systems register through WMI, whose requests the driver answers. The control block's first field and the
// enable contexts are laid out as the system expects them; the rest of the block is the driver's own.
#include "driver/trace/identifiers.h"
#include "driver/trace/report.h"
#include "driver/trace/trace.h"

#include <wmistr.h>

// Sequence number, message GUID, time stamp, and thread and process id go into each record.
constexpr ULONG kMessageFlags = 0x01 | 0x02 | 0x08 | 0x20;
static_assert(kMessageFlags == 43);

constexpr ULONG kFirstMajorWithClassicProviders = 6;

// Actions of the WMI registration: register as a trace provider, deregister; the device object is a callback block in
// both.
constexpr ULONG kWmiRegister = 0x80010001;
constexpr ULONG kWmiDeregister = 0x80000002;

// Variadic functions have a convention of their own; the WDK knows it by this name only.
#if !defined(NTAPI_VARIADIC)
#define NTAPI_VARIADIC __cdecl
#endif

typedef NTSTATUS(NTAPI_VARIADIC WmiTraceMessageRoutine)(TRACEHANDLE logger, ULONG flags, const GUID* messageGuid,
                                                        USHORT number, ...);
typedef NTSTATUS(NTAPI WmiQueryTraceInformationRoutine)(TRACE_INFORMATION_CLASS informationClass, PVOID information,
                                                        ULONG length, PULONG required, PVOID buffer);
typedef VOID(NTAPI ClassicEnableCallback)(LPCGUID guid, UCHAR controlCode, PVOID enableContext, PVOID callbackContext);
typedef NTSTATUS(NTAPI EtwRegisterClassicProviderRoutine)(LPCGUID guid, ULONG type, ClassicEnableCallback* callback,
                                                          PVOID callbackContext, PREGHANDLE handle);
typedef BOOLEAN(NTAPI PsGetVersionRoutine)(PULONG major, PULONG minor, PULONG build, PUNICODE_STRING servicePack);
typedef NTSTATUS(NTAPI EtwUnregisterRoutine)(REGHANDLE handle);
typedef LONG(NTAPI WmiRequestCallback)(UCHAR minorFunction, PVOID dataPath, ULONG bufferLength, PVOID buffer,
                                       PVOID context, PULONG size);

// Flags, level and logger are written by the enable callbacks on threads of the system's and read without a lock.
struct ControlBlock {
    WmiRequestCallback* callback{};  // the WMI registration finds it here
    const GUID* controlGuid{};
    ControlBlock* next{};
    ULONG64 logger{};
    PUNICODE_STRING registryPath{};
    UCHAR flagsLength{};
    UCHAR level{};
    USHORT reserved{};
    ULONG flags{};
    ULONG reservedFlags{};
    REGHANDLE registrationHandle{};
};
static_assert(sizeof(ControlBlock) == 64 && offsetof(ControlBlock, callback) == 0 &&
              offsetof(ControlBlock, logger) == 24 && offsetof(ControlBlock, level) == 41 &&
              offsetof(ControlBlock, flags) == 44 && offsetof(ControlBlock, registrationHandle) == 56);

// What a session gives a classic provider; its first eight bytes read as one number are the logger handle.
struct EnableContext {
    USHORT loggerId;
    UCHAR level;
    UCHAR internalFlag;
    ULONG enableFlags;
};
static_assert(sizeof(EnableContext) == 8);

enum class Registration : UCHAR { kWmi, kClassicProvider };

static ControlBlock g_ControlBlock;
static ControlBlock* g_Control;  // null before initialization and after clean-up
static Registration g_Registration;
static WmiTraceMessageRoutine* g_TraceMessage;
static WmiQueryTraceInformationRoutine* g_QueryTraceInformation;
static EtwUnregisterRoutine* g_Unregister;

// ---- Enable state ----

// The bit of every (flag, level) that a session with these flags and this level enables.
static ULONG WantedMessages(ULONG flags, UCHAR level)
{
    ULONG levels = 0;
    for (UCHAR messageLevel = kLevelError; messageLevel <= kLevelVerbose; ++messageLevel) {
        if (level >= messageLevel) {
            levels |= 1u << messageLevel;
        }
    }
    const ULONG entry = (flags & 0x1) != 0 ? levels : 0;
    const ULONG general = (flags & 0x2) != 0 ? levels << 8 : 0;
    return entry | general;
}

// The logger is stored first and taken away last. No barrier holds the processor to that: a site that races may send to
// logger 0, which the runtime refuses, so the one record of that instant is lost.
static void EnableMessages(ControlBlock& control, ULONG64 logger, UCHAR level, ULONG flags)
{
    WriteULong64NoFence(&control.logger, logger);
    WriteUCharNoFence(&control.level, level);
    WriteULongNoFence(&control.flags, flags);
    WriteULongNoFence(&g_TraceEnable.messages, WantedMessages(flags, level));
}

static void DisableMessages(ControlBlock& control)
{
    WriteULongNoFence(&g_TraceEnable.messages, 0);
    WriteULongNoFence(&control.flags, 0);
    WriteUCharNoFence(&control.level, 0);
    WriteULong64NoFence(&control.logger, 0);
}

// ---- Classic provider ----

static ClassicEnableCallback MessageEnableCallback;

static void MessageEnableCallback(LPCGUID, UCHAR controlCode, PVOID enableContext, PVOID callbackContext)
{
    auto* control = static_cast<ControlBlock*>(callbackContext);
    if (control == nullptr) {
        return;
    }
    if (controlCode == kControlEnable && enableContext != nullptr) {
        EnableContext context;
        ULONG64 logger;
        memcpy(&context, enableContext, sizeof(context));
        memcpy(&logger, enableContext, sizeof(logger));
        EnableMessages(*control, logger, context.level, context.enableFlags);
    } else if (controlCode == kControlDisable) {
        DisableMessages(*control);
    }
}

// ---- WMI registration: its requests ----

enum WmiMinorFunction : UCHAR {
    kWmiEnableEvents = 4,
    kWmiDisableEvents = 5,
    kWmiEnableCollection = 6,
    kWmiDisableCollection = 7,
    kWmiRegisterInfo = 8,
};

constexpr ULONG kRegisterInfoSize = offsetof(WMIREGINFOW, WmiRegGuid) + sizeof(WMIREGGUIDW);
static_assert(kRegisterInfoSize == 56);

static LONG AnswerRegisterInfo(const ControlBlock& control, ULONG bufferLength, PVOID buffer, PULONG size)
{
    if (bufferLength < kRegisterInfoSize) {
        if (bufferLength >= sizeof(ULONG)) {
            memcpy(buffer, &kRegisterInfoSize, sizeof(ULONG));
            *size = sizeof(ULONG);
        }
        return STATUS_BUFFER_TOO_SMALL;
    }

    memset(buffer, 0, kRegisterInfoSize);
    auto* information = static_cast<PWMIREGINFOW>(buffer);
    information->BufferSize = kRegisterInfoSize;
    information->GuidCount = 1;
    information->WmiRegGuid[0].Guid = *control.controlGuid;
    information->WmiRegGuid[0].Flags = WMIREG_FLAG_TRACED_GUID | WMIREG_FLAG_TRACE_CONTROL_GUID;
    *size = kRegisterInfoSize;
    return STATUS_SUCCESS;
}

static LONG AnswerEnable(ControlBlock& control, PWNODE_HEADER header)
{
    if (g_QueryTraceInformation == nullptr) {
        return STATUS_UNSUCCESSFUL;
    }
    ULONG level = 0;
    NTSTATUS status = g_QueryTraceInformation(TraceEnableLevelClass, &level, sizeof(level), nullptr, header);
    if (!NT_SUCCESS(status)) {
        level = ReadUCharNoFence(&control.level);
    }
    ULONG flags = 0;
    status = g_QueryTraceInformation(TraceEnableFlagsClass, &flags, sizeof(flags), nullptr, header);
    EnableMessages(control, header->HistoricalContext, static_cast<UCHAR>(level), flags);
    return status;
}

static WmiRequestCallback AnswerWmiRequest;

static LONG AnswerWmiRequest(UCHAR minorFunction, PVOID, ULONG bufferLength, PVOID buffer, PVOID context, PULONG size)
{
    auto* control = static_cast<ControlBlock*>(context);
    *size = 0;

    switch (minorFunction) {
    case kWmiRegisterInfo:
        return AnswerRegisterInfo(*control, bufferLength, buffer, size);

    case kWmiEnableEvents:
    case kWmiDisableEvents: {
        if (control == nullptr) {
            return STATUS_WMI_GUID_NOT_FOUND;
        }
        if (bufferLength < sizeof(WNODE_HEADER)) {
            return STATUS_INVALID_PARAMETER;
        }
        auto* header = static_cast<PWNODE_HEADER>(buffer);
        if (RtlCompareMemory(&header->Guid, control->controlGuid, sizeof(GUID)) != sizeof(GUID)) {
            return STATUS_WMI_GUID_NOT_FOUND;
        }
        if (minorFunction == kWmiEnableEvents) {
            return AnswerEnable(*control, header);
        }
        DisableMessages(*control);
        return STATUS_SUCCESS;
    }

    case kWmiEnableCollection:
    case kWmiDisableCollection:
        return STATUS_SUCCESS;

    default:
        return STATUS_INVALID_DEVICE_REQUEST;
    }
}

// ---- Look-up ----

template <class Routine>
static Routine* FindRoutine(PCWSTR name)
{
    UNICODE_STRING routineName;
    RtlInitUnicodeString(&routineName, name);
    return reinterpret_cast<Routine*>(MmGetSystemRoutineAddress(&routineName));
}

void InitializeTraceMessages()
{
    g_ControlBlock = {.callback = AnswerWmiRequest, .controlGuid = &kControlGuid};  // all else is cleared
    g_Control = &g_ControlBlock;

    PsGetVersionRoutine* getVersion = FindRoutine<PsGetVersionRoutine>(L"PsGetVersion");
    g_TraceMessage = FindRoutine<WmiTraceMessageRoutine>(L"WmiTraceMessage");
    g_QueryTraceInformation = FindRoutine<WmiQueryTraceInformationRoutine>(L"WmiQueryTraceInformation");
    g_Registration = Registration::kWmi;

    ULONG major = 0;
    if (getVersion != nullptr) {
        (void)getVersion(&major, nullptr, nullptr, nullptr);
    }
    EtwRegisterClassicProviderRoutine* registerClassic = nullptr;
    if (major >= kFirstMajorWithClassicProviders) {
        registerClassic = FindRoutine<EtwRegisterClassicProviderRoutine>(L"EtwRegisterClassicProvider");
        if (registerClassic != nullptr) {
            g_Unregister = FindRoutine<EtwUnregisterRoutine>(L"EtwUnregister");
            g_Registration = Registration::kClassicProvider;
        }
    }

    // Registration enables at once when a session is armed already; its status does not matter.
    if (registerClassic != nullptr) {
        (void)registerClassic(&kControlGuid, 0, MessageEnableCallback, g_Control, &g_Control->registrationHandle);
    } else {
        (void)IoWMIRegistrationControl(reinterpret_cast<PDEVICE_OBJECT>(g_Control), kWmiRegister);
    }
}

void CleanUpTraceMessages()
{
    if (g_Registration == Registration::kWmi) {
        (void)IoWMIRegistrationControl(reinterpret_cast<PDEVICE_OBJECT>(g_Control), kWmiDeregister);
    } else if (g_Control->registrationHandle != 0 && g_Unregister != nullptr) {
        (void)g_Unregister(g_Control->registrationHandle);
    }
    DisableMessages(*g_Control);
    g_Control = nullptr;
}

// ---- Writing ----
//
// Lengths are 64-bit and the end is a null address: narrower values in stack slots would leave garbage above them.

constexpr SIZE_T kWord = sizeof(ULONG);
constexpr SIZE_T kQuad = sizeof(ULONGLONG);
constexpr PVOID kEnd = nullptr;

template <class... Pairs>
static void Send(MessageSet set, USHORT number, Pairs... pairs)
{
    if (g_TraceMessage == nullptr) {
        return;
    }
    (void)g_TraceMessage(ReadULong64NoFence(&g_ControlBlock.logger), kMessageFlags,
                         &kMessageSetGuids[static_cast<ULONG>(set)], number, pairs..., kEnd);
}

static SIZE_T SizeWithEnd(const char* text)
{
    SIZE_T size = 1;
    while (text[size - 1] != '\0') {
        ++size;
    }
    return size;
}

void TraceMessage(MessageSet set, USHORT number)
{
    Send(set, number);
}

void TraceMessageW(MessageSet set, USHORT number, ULONG a)
{
    Send(set, number, &a, kWord);
}

void TraceMessageWW(MessageSet set, USHORT number, ULONG a, ULONG b)
{
    Send(set, number, &a, kWord, &b, kWord);
}

void TraceMessageWWW(MessageSet set, USHORT number, ULONG a, ULONG b, ULONG c)
{
    Send(set, number, &a, kWord, &b, kWord, &c, kWord);
}

void TraceMessageWWWW(MessageSet set, USHORT number, ULONG a, ULONG b, ULONG c, ULONG d)
{
    Send(set, number, &a, kWord, &b, kWord, &c, kWord, &d, kWord);
}

void TraceMessageQ(MessageSet set, USHORT number, ULONGLONG a)
{
    Send(set, number, &a, kQuad);
}

void TraceMessageQW(MessageSet set, USHORT number, ULONGLONG a, ULONG b)
{
    Send(set, number, &a, kQuad, &b, kWord);
}

void TraceMessageQQ(MessageSet set, USHORT number, ULONGLONG a, ULONGLONG b)
{
    Send(set, number, &a, kQuad, &b, kQuad);
}

void TraceMessageWQQ(MessageSet set, USHORT number, ULONG a, ULONGLONG b, ULONGLONG c)
{
    Send(set, number, &a, kWord, &b, kQuad, &c, kQuad);
}

void TraceMessageSS(MessageSet set, USHORT number, const char* a, const char* b)
{
    Send(set, number, a, SizeWithEnd(a), b, SizeWithEnd(b));
}
