#include "tests/kit/crash_dump_driver.h"

#include "host/schedule/yield.h"

#include <cstring>
#include <utility>

namespace tests {
namespace {

using host::schedule::YieldKind;
using host::schedule::YieldPoint;
using First = peers::CrashDumpCallbacks<0>;
using Second = peers::CrashDumpCallbacks<1>;

constexpr std::uint64_t kHeader = 0xFFFF;  // nobody may look at it

}  // namespace

CrashDumpDriver::CrashDumpDriver(unsigned table)
    : registration(table == 0 ? First::Registration(kHeader) : Second::Registration(kHeader)), table_(table)
{
    (table_ == 0 ? First::receiver : Second::receiver) = this;
}

CrashDumpDriver::~CrashDumpDriver()
{
    (table_ == 0 ? First::receiver : Second::receiver) = nullptr;
}

NTSTATUS CrashDumpDriver::OnAdd(const ZEP_SUBSYSTEM_DESCRIPTOR& descriptor)
{
    YieldPoint(YieldKind::kClientCode, "ZepClientAdd");
    if (onAdd) {
        return onAdd(descriptor);
    }
    added.push_back(descriptor);
    return answer;
}

NTSTATUS CrashDumpDriver::OnRemove(const ZEP_NOTIFIER_CLIENT_CONTEXT* client)
{
    YieldPoint(YieldKind::kClientCode, "ZepClientRemove");
    layout::ClientContext copy;
    std::memcpy(&copy, client, sizeof(copy));
    if (onRemove) {
        return onRemove(copy);
    }
    removed.push_back(copy.guid);
    return answer;
}

NTSTATUS CrashDumpDriver::OnDump(peers::DumpCallback callback, std::vector<std::uint64_t> arguments)
{
    struct Names {
        const char* callback;
        const char* call;
    };
    constexpr Names kNames[] = {{"ZepDumpStart", "start"},
                                {"ZepDumpAddDumpData", "data"},
                                {"ZepDumpStop", "stop"},
                                {"ZepDumpQueryParam", "query"},
                                {"ZepDumpAddTriageData", "triage"}};
    const Names& names = kNames[static_cast<std::size_t>(callback)];
    YieldPoint(YieldKind::kClientCode, names.callback);
    DumpCall call = {names.call, std::move(arguments)};
    if (onDump) {
        return onDump(call);
    }
    calls.push_back(std::move(call));
    return answer;
}

}  // namespace tests
