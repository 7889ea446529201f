#include "tests/fault_injection/clients.h"

namespace fault_injection {
namespace {

Lines* g_callbacks = nullptr;
NTSTATUS g_dumpAnswer = STATUS_SUCCESS;

ULONG ClientOf(void* context)
{
    return static_cast<ULONG>(reinterpret_cast<std::uintptr_t>(context));
}

NTSTATUS NTAPI OnState(PVOID context, const ZepState* state, PULONG response)
{
    const ULONG client = ClientOf(context);
    g_callbacks->push_back("state " + std::to_string(state->State) + " of " +
                           std::to_string(state->InterfaceGUID.Data1) + " to " + std::to_string(client) + ", size " +
                           std::to_string(state->Size) + ", response " + std::to_string(*response));
    if (const ULONG answer = StateAnswer(client, state->State)) {
        *response = answer;
    }
    return STATUS_UNSUCCESSFUL;
}

NTSTATUS NTAPI OnCommand(PVOID context, ULONG id, const ZepCommandInfo* info, PULONG state)
{
    g_callbacks->push_back("command " + std::to_string(id) + " of " + std::to_string(info->SourceGuid.Data1) +
                           " in state " + std::to_string(info->SourceState) + " to " +
                           std::to_string(ClientOf(context)) + ", response " + std::to_string(*state));
    *state = CommandAnswer(id, *state);
    return STATUS_UNSUCCESSFUL;
}

NTSTATUS NTAPI OnAppsState(PVOID context, ULONG reason, PULONG state)
{
    g_callbacks->push_back("apps state " + std::to_string(reason) + " to " + std::to_string(ClientOf(context)) +
                           ", response " + std::to_string(*state));
    *state = AppsStateAnswer(ClientOf(context), *state);
    return STATUS_UNSUCCESSFUL;
}

NTSTATUS NTAPI OnAdd(const ZEP_SUBSYSTEM_DESCRIPTOR* descriptor)
{
    g_callbacks->push_back("announce " + std::to_string(descriptor->InterfaceGUID.Data1));
    return AddAnswer(descriptor->InterfaceGUID.Data1);
}

NTSTATUS NTAPI OnRemove(const ZEP_NOTIFIER_CLIENT_CONTEXT* client)
{
    ULONG number = 0;
    memcpy(&number, client, sizeof(number));
    g_callbacks->push_back("withdraw " + std::to_string(number));
    return RemoveAnswer(number);
}

NTSTATUS DumpCalled(ULONG which, ULONGLONG first, ULONGLONG second)
{
    g_callbacks->push_back("dump " + std::to_string(which) + " " + std::to_string(first) + " " +
                           std::to_string(second));
    return g_dumpAnswer;
}

NTSTATUS NTAPI OnDumpStart(PVOID, ULONGLONG first, ULONGLONG second)
{
    return DumpCalled(0, first, second);
}

NTSTATUS NTAPI OnDumpData(PVOID, PVOID, ULONGLONG first, ULONG second, ULONG)
{
    return DumpCalled(1, first, second);
}

NTSTATUS NTAPI OnDumpStop(PVOID, ULONGLONG first)
{
    return DumpCalled(2, first, 6);
}

NTSTATUS NTAPI OnDumpQuery(PVOID, ULONG first, ULONGLONG second, ULONGLONG)
{
    return DumpCalled(3, first, second);
}

NTSTATUS NTAPI OnTriageData(PVOID, ULONGLONG first, ULONG second)
{
    return DumpCalled(4, first, second);
}

}  // namespace

GUID GuidOf(ULONG client)
{
    return {client, 0x1111, 0x2222, {1, 2, 3, 4, 5, 6, 7, 8}};
}

void* ContextOf(ULONG client)
{
    return reinterpret_cast<void*>(std::uintptr_t{client});
}

void RecordCallbacks(Lines& lines)
{
    g_callbacks = &lines;
}

void AnswerDumps(NTSTATUS status)
{
    g_dumpAnswer = status;
}

PZEP_STATE_NOTIFICATION_CALLBACK StateCallback()
{
    return &OnState;
}

PZEP_COMMAND_CALLBACK CommandCallback()
{
    return &OnCommand;
}

PZEP_APPS_STATE_CALLBACK AppsStateCallback()
{
    return &OnAppsState;
}

const WpcdClientRegistration& CrashDumpDriver()
{
    static const WpcdClientRegistration registration = {
        .Header = 1,
        .ZepClientAdd = &OnAdd,
        .ZepClientRemove = &OnRemove,
        .ZepDumpStart = &OnDumpStart,
        .ZepDumpAddDumpData = &OnDumpData,
        .ZepDumpStop = &OnDumpStop,
        .ZepDumpQueryParam = &OnDumpQuery,
        .ZepDumpAddTriageData = &OnTriageData,
    };
    return registration;
}

}  // namespace fault_injection
