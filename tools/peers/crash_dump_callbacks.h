// The callbacks of a crash-dump driver that a program plays: whatever they are called with goes to one receiver.
#pragma once

#include "driver/include/zepn_notifier.h"

#include <cstdint>
#include <vector>

namespace peers {

enum class DumpCallback { kStart, kAddData, kStop, kQuery, kTriage };

// What its functions return is the driver's answer.
class CrashDumpReceiver {
public:
    CrashDumpReceiver() = default;
    virtual ~CrashDumpReceiver() = default;
    CrashDumpReceiver(const CrashDumpReceiver&) = delete;
    CrashDumpReceiver& operator=(const CrashDumpReceiver&) = delete;

    virtual NTSTATUS OnAdd(const ZEP_SUBSYSTEM_DESCRIPTOR& descriptor) = 0;
    virtual NTSTATUS OnRemove(const ZEP_NOTIFIER_CLIENT_CONTEXT* client) = 0;
    // The arguments as given, the record first.
    virtual NTSTATUS OnDump(DumpCallback callback, std::vector<std::uint64_t> arguments) = 0;
};

// The callbacks get no context, so of each table there is one receiver at a time.
template <unsigned kTable>
class CrashDumpCallbacks {
public:
    static inline CrashDumpReceiver* receiver = nullptr;

    static constexpr WpcdClientRegistration Registration(std::uint64_t header)
    {
        return {.Header = header,
                .ZepClientAdd = &OnAdd,
                .ZepClientRemove = &OnRemove,
                .ZepDumpStart = &OnStart,
                .ZepDumpAddDumpData = &OnAddData,
                .ZepDumpStop = &OnStop,
                .ZepDumpQueryParam = &OnQuery,
                .ZepDumpAddTriageData = &OnTriage};
    }

private:
    static std::uint64_t Number(const void* pointer) { return reinterpret_cast<std::uint64_t>(pointer); }

    static NTSTATUS NTAPI OnAdd(const ZEP_SUBSYSTEM_DESCRIPTOR* descriptor) { return receiver->OnAdd(*descriptor); }
    static NTSTATUS NTAPI OnRemove(const ZEP_NOTIFIER_CLIENT_CONTEXT* client) { return receiver->OnRemove(client); }
    static NTSTATUS NTAPI OnStart(PVOID record, ULONGLONG first, ULONGLONG second)
    {
        return receiver->OnDump(DumpCallback::kStart, {Number(record), first, second});
    }
    static NTSTATUS NTAPI OnAddData(PVOID record, PVOID data, ULONGLONG first, ULONG second, ULONG third)
    {
        return receiver->OnDump(DumpCallback::kAddData, {Number(record), Number(data), first, second, third});
    }
    static NTSTATUS NTAPI OnStop(PVOID record, ULONGLONG first)
    {
        return receiver->OnDump(DumpCallback::kStop, {Number(record), first});
    }
    static NTSTATUS NTAPI OnQuery(PVOID record, ULONG first, ULONGLONG second, ULONGLONG third)
    {
        return receiver->OnDump(DumpCallback::kQuery, {Number(record), first, second, third});
    }
    static NTSTATUS NTAPI OnTriage(PVOID record, ULONGLONG first, ULONG second)
    {
        return receiver->OnDump(DumpCallback::kTriage, {Number(record), first, second});
    }
};

}  // namespace peers
