#include "tests/kit/crash_dump_driver.h"

#include "host/schedule/yield.h"

#include <cstring>

namespace tests {
namespace {

using host::schedule::YieldKind;
using host::schedule::YieldPoint;

CrashDumpDriver* g_drivers[2];

}  // namespace

template <unsigned table>
struct CrashDumpDriver::Callbacks {
    static NTSTATUS NTAPI OnAdd(const ZEP_SUBSYSTEM_DESCRIPTOR* descriptor)
    {
        YieldPoint(YieldKind::kClientCode, "ZepClientAdd");
        CrashDumpDriver& driver = *g_drivers[table];
        if (driver.onAdd) {
            return driver.onAdd(*descriptor);
        }
        driver.added.push_back(*descriptor);
        driver.buffers.push_back(descriptor);
        return driver.answer;
    }

    static NTSTATUS NTAPI OnRemove(const ZEP_NOTIFIER_CLIENT_CONTEXT* client)
    {
        YieldPoint(YieldKind::kClientCode, "ZepClientRemove");
        CrashDumpDriver& driver = *g_drivers[table];
        layout::ClientContext copy;
        std::memcpy(&copy, client, sizeof(copy));
        if (driver.onRemove) {
            return driver.onRemove(copy);
        }
        driver.removed.push_back(copy.guid);
        return driver.answer;
    }

    template <class... Values>
    static NTSTATUS Dump(const char* callback, const char* name, PVOID record, Values... values)
    {
        YieldPoint(YieldKind::kClientCode, callback);
        CrashDumpDriver& driver = *g_drivers[table];
        DumpCall call = {name, {Number(record), values...}};
        if (driver.onDump) {
            return driver.onDump(call);
        }
        driver.calls.push_back(std::move(call));
        return driver.answer;
    }

    static NTSTATUS NTAPI OnStart(PVOID record, ULONGLONG first, ULONGLONG second)
    {
        return Dump("ZepDumpStart", "start", record, first, second);
    }
    static NTSTATUS NTAPI OnAddData(PVOID record, PVOID data, ULONGLONG first, ULONG second, ULONG third)
    {
        return Dump("ZepDumpAddDumpData", "data", record, Number(data), first, second, third);
    }
    static NTSTATUS NTAPI OnStop(PVOID record, ULONGLONG first) { return Dump("ZepDumpStop", "stop", record, first); }
    static NTSTATUS NTAPI OnQuery(PVOID record, ULONG first, ULONGLONG second, ULONGLONG third)
    {
        return Dump("ZepDumpQueryParam", "query", record, first, second, third);
    }
    static NTSTATUS NTAPI OnTriage(PVOID record, ULONGLONG first, ULONG second)
    {
        return Dump("ZepDumpAddTriageData", "triage", record, first, second);
    }

    static constexpr WpcdClientRegistration kRegistration = {.Header = 0xFFFF,
                                                             .ZepClientAdd = &OnAdd,
                                                             .ZepClientRemove = &OnRemove,
                                                             .ZepDumpStart = &OnStart,
                                                             .ZepDumpAddDumpData = &OnAddData,
                                                             .ZepDumpStop = &OnStop,
                                                             .ZepDumpQueryParam = &OnQuery,
                                                             .ZepDumpAddTriageData = &OnTriage};
};

CrashDumpDriver::CrashDumpDriver(unsigned table)
    : registration(table == 0 ? Callbacks<0>::kRegistration : Callbacks<1>::kRegistration), table_(table)
{
    g_drivers[table_] = this;
}

CrashDumpDriver::~CrashDumpDriver()
{
    g_drivers[table_] = nullptr;
}

}  // namespace tests
