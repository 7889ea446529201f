// A crash-dump driver for tests: it records what it is called with, and answers as it is set to.
#pragma once

#include "driver/include/zepn_notifier.h"
#include "tests/kit/contexts.h"
#include "tools/peers/crash_dump_callbacks.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace tests {

// Of each of the two tables of callbacks there is one driver at a time.
struct CrashDumpDriver final : private peers::CrashDumpReceiver {
    struct DumpCall {
        std::string name;
        std::vector<std::uint64_t> arguments;  // the record first
        bool operator==(const DumpCall&) const = default;
    };

    explicit CrashDumpDriver(unsigned table = 0);
    ~CrashDumpDriver() override;
    CrashDumpDriver(const CrashDumpDriver&) = delete;
    CrashDumpDriver& operator=(const CrashDumpDriver&) = delete;

    const WpcdClientRegistration registration;

    std::vector<ZEP_SUBSYSTEM_DESCRIPTOR> added;
    std::vector<GUID> removed;
    std::vector<DumpCall> calls;
    NTSTATUS answer = STATUS_SUCCESS;

    // Called instead of recording; what they return is the answer.
    std::function<NTSTATUS(const ZEP_SUBSYSTEM_DESCRIPTOR&)> onAdd;
    std::function<NTSTATUS(const layout::ClientContext&)> onRemove;
    std::function<NTSTATUS(const DumpCall&)> onDump;

private:
    NTSTATUS OnAdd(const ZEP_SUBSYSTEM_DESCRIPTOR& descriptor) override;
    NTSTATUS OnRemove(const ZEP_NOTIFIER_CLIENT_CONTEXT* client) override;
    NTSTATUS OnDump(peers::DumpCallback callback, std::vector<std::uint64_t> arguments) override;

    const unsigned table_;
};

inline std::uint64_t Number(const void* pointer)
{
    return reinterpret_cast<std::uint64_t>(pointer);
}

}  // namespace tests
