// A client driver for tests: it records what it is called with, and answers as it is set to.
#pragma once

#include "tools/peers/client_calls.h"

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace tests {

// Its address is the callback context. The first number of its GUID distinguishes it.
struct Peer {
    explicit Peer(ULONG itsNumber);

    ULONG number;
    GUID guid;
    std::string name = "name";
    std::string description = "description";
    std::vector<ZepDataEntry> entries;
    ActionCallbackTable callbacks{};

    std::vector<ZepState> deliveries;
    std::vector<std::pair<ULONG, ZepCommandInfo>> commands;
    unsigned appsStateCalls = 0;  // with the one reason that there is
    std::function<void(const ZepState&, ULONG& response)> onState;
    std::function<void(ULONG id, ULONG& state)> onCommand;
    std::function<void(ULONG& state)> onAppsState;

    // Put the command and application-state callbacks into the table.
    Peer& TakesCommands(bool takes = true);
    Peer& WantsAppsState(bool wants = true);

    // What its calls hand over.
    [[nodiscard]] peers::Caller caller() const
    {
        auto* const context = const_cast<Peer*>(this);
        return {guid, name, description, callbacks, entries, context, &OnState, 0xD0D00000u + number};
    }

    // What a subscription names.
    static NTSTATUS NTAPI OnState(PVOID context, const ZepState* state, PULONG response);
};

}  // namespace tests
