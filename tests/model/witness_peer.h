// The drivers around the Notifier, as the witness plays them: its clients, and the callbacks of clients and crash-dump
// driver.
#pragma once

#include "tests/model/witness.h"

#include <cstdint>
#include <vector>

namespace fuzz {

inline constexpr const char* kService = "zepn";

// A client driver. Its address is the callback context.
struct Witness::Peer {
    Peer(Witness& owner, unsigned who, const Habits& itsHabits)
        : witness(owner), number(who), guid(GuidOf(who)), habits(itsHabits), script(itsHabits),
          entries(itsHabits.entryCount), dumpRecord(0xD0D00000u + who)
    {
        for (std::size_t index = 0; index < entries.size(); ++index) {
            entries[index].Value[0] = index * 3 + who;
        }
    }

    Witness& witness;
    const unsigned number;
    const GUID guid;
    const Habits& habits;
    Script script;
    std::vector<ZepDataEntry> entries;
    std::uint32_t dumpRecord;
    ActionCallbackTable callbacks{};
};

// They tell the witness all that they are given, and answer as the life's habits say.
struct Witness::Callbacks {
    static inline Witness* current = nullptr;  // the crash-dump driver's callbacks carry no context of their own

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

}  // namespace fuzz
