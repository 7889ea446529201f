// The drivers around the Notifier, as the harness plays them: its clients, and the callbacks of clients and crash-dump
// driver.
#pragma once

#include "tests/model/driver_harness.h"

#include <cstdint>
#include <vector>

namespace model {

inline constexpr const char* kService = "zepn";

// A client driver. Its address is the callback context.
struct DriverHarness::Peer {
    Peer(DriverHarness& owner, unsigned who, const ClientScript& itsScript)
        : harness(owner), number(who), guid(GuidOf(who)), habits(itsScript), script(itsScript),
          entries(itsScript.entryCount), dumpRecord(0xD0D00000u + who)
    {
        for (std::size_t index = 0; index < entries.size(); ++index) {
            entries[index].Value[0] = index * 3 + who;
        }
    }

    DriverHarness& harness;
    const unsigned number;
    const GUID guid;
    const ClientScript& habits;
    Script script;
    std::vector<ZepDataEntry> entries;
    std::uint32_t dumpRecord;
    ActionCallbackTable callbacks{};
};

// They tell the harness all that they are given, and answer as the sequence's habits say.
struct DriverHarness::Callbacks {
    static inline DriverHarness* current = nullptr;  // the crash-dump driver's callbacks carry no context of their own

    static NTSTATUS NTAPI OnState(PVOID context, const ZepState* state, PULONG response);
    static NTSTATUS NTAPI OnCommand(PVOID context, ULONG id, const ZepCommandInfo* info, PULONG state);
    static NTSTATUS NTAPI OnAppsState(PVOID context, ULONG reason, PULONG state);

    // One of the crash-dump driver's two registrations, 0 or 1: each has callbacks of its own, which say in what they
    // tell that they were called.
    [[nodiscard]] static WpcdClientRegistration Registration(unsigned number);

private:
    template <unsigned table>
    struct CrashDump;
};

}  // namespace model
