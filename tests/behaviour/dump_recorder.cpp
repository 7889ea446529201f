#include "tests/behaviour/dump_recorder.h"

namespace tests {
namespace {

Recorder* g_recorder = nullptr;

NTSTATUS NTAPI OnAdd(const ZEP_SUBSYSTEM_DESCRIPTOR* descriptor)
{
    g_recorder->added.push_back(*descriptor);
    g_recorder->buffers.push_back(descriptor);
    return g_recorder->answer;
}

NTSTATUS NTAPI OnRemove(const ZEP_NOTIFIER_CLIENT_CONTEXT* client)
{
    g_recorder->removed.push_back(*reinterpret_cast<const GUID*>(client));
    return g_recorder->answer;
}

NTSTATUS NTAPI OnStart(PVOID handle, ULONGLONG first, ULONGLONG second)
{
    g_recorder->calls.push_back({"start", {Number(handle), first, second}});
    return g_recorder->answer;
}

NTSTATUS NTAPI OnAddData(PVOID handle, PVOID data, ULONGLONG first, ULONG second, ULONG third)
{
    g_recorder->calls.push_back({"add data", {Number(handle), Number(data), first, second, third}});
    return g_recorder->answer;
}

NTSTATUS NTAPI OnStop(PVOID handle, ULONGLONG first)
{
    g_recorder->calls.push_back({"stop", {Number(handle), first}});
    return g_recorder->answer;
}

NTSTATUS NTAPI OnQuery(PVOID handle, ULONG first, ULONGLONG second, ULONGLONG third)
{
    g_recorder->calls.push_back({"query", {Number(handle), first, second, third}});
    return g_recorder->answer;
}

NTSTATUS NTAPI OnTriage(PVOID handle, ULONGLONG first, ULONG second)
{
    g_recorder->calls.push_back({"triage", {Number(handle), first, second}});
    return g_recorder->answer;
}

}  // namespace

Recorder::Recorder()
    : registration{.Header = 0xFFFF,
                   .ZepClientAdd = &OnAdd,
                   .ZepClientRemove = &OnRemove,
                   .ZepDumpStart = &OnStart,
                   .ZepDumpAddDumpData = &OnAddData,
                   .ZepDumpStop = &OnStop,
                   .ZepDumpQueryParam = &OnQuery,
                   .ZepDumpAddTriageData = &OnTriage}
{
    g_recorder = this;
}

Recorder::~Recorder()
{
    g_recorder = nullptr;
}

}  // namespace tests
