// What operations of a sequence show, and the faults injected into it. The driver is made to do them (observed.h), the
// reference model says what must be seen (reference_model.h); a fault is named so that both mean the same call.
#pragma once

#include "tests/kit/callback_lines.h"
#include "tests/kit/operation.h"

#include <ntddk.h>

#include <optional>
#include <string>
#include <vector>

namespace fault_injection {

using Lines = std::vector<std::string>;

using tests::Kind;
using tests::Operation;

// What a registration hands over, as the value of its operation.
enum Traits : ULONG { kPlain = 0, kEntries = 1, kCommands = 2, kApps = 4 };
inline constexpr unsigned kEntryCount = 3;

// What clients and the crash-dump driver answer: fixed, so that both sides know it.
inline ULONG StateAnswer(ULONG subscriber, ULONG state)
{
    return subscriber == 2 && state == 3 ? 12 : subscriber == 3 && state == 4 ? 33 : 0;  // 0: leaves it as it is
}
inline ULONG CommandAnswer(ULONG id, ULONG state)
{
    return id == 7 ? state + 30 : state;
}
inline ULONG AppsStateAnswer(ULONG client, ULONG state)
{
    return client == 1 ? state : state + 100;
}
inline NTSTATUS AddAnswer(ULONG client)
{
    return client == 4 ? STATUS_OBJECT_NAME_EXISTS : STATUS_SUCCESS;  // anything but 0 is a refusal
}
inline NTSTATUS RemoveAnswer(ULONG client)
{
    return client == 2 ? STATUS_TIMEOUT : STATUS_SUCCESS;
}
inline constexpr ULONG kTimeoutMs = 250;

// How a call fails.
enum class FaultKind {
    kError,       // an error status, nothing done; some creations leave a null handle then
    kRefuses,     // a status of the success class other than STATUS_SUCCESS, nothing done
    kInforms,     // the work is done, but the status is one of the success class other than STATUS_SUCCESS
    kNull,        // no item, no context, no block, no registration, no driver object
    kNullOutput,  // STATUS_SUCCESS with a null output
};
const char* Name(FaultKind form);

struct Fault {
    std::string function;
    unsigned index = 0;       // the call of that function, counted from the beginning of the sequence
    bool persistent = false;  // and all later ones
    FaultKind form = FaultKind::kError;

    [[nodiscard]] NTSTATUS Status() const;
    [[nodiscard]] std::string Text() const;
};

// One call that can fail, as the reference model predicts it.
struct Call {
    std::string function;
    std::string detail;  // context type
    std::vector<FaultKind> forms;
};

// Everything that one operation shows.
struct Step {
    std::string status;  // "0xC0000017", "" where it has none
    Lines reports;       // errors and warnings, in order
    Lines callbacks;     // into clients and the crash-dump driver, in order, and waits
    Lines violations;    // by rule
    Lines calls;         // fallible platform calls: function and detail
    bool ends = false;   // a thread hangs or a lock is kept: the sequence cannot go on
};

using Sequence = std::vector<Operation>;

using tests::Hex;
std::string GuidText(ULONG client);

}  // namespace fault_injection
