// A driver's sequence as a list of operations, and what each of them showed. The host plays it on the real driver
// (observed.h), the expectation says what must be seen (expected.h); a fault is named so that both mean the same call.
#pragma once

#include <ntddk.h>

#include <optional>
#include <string>
#include <vector>

namespace fault_injection {

using Lines = std::vector<std::string>;

enum class Do {
    kLoad,
    kAddDevice,
    kStart,
    kSleep,
    kWake,
    kSurprise,
    kRemove,
    kUnload,
    kRegister,     // a client, b Traits
    kLeave,        // a client
    kPost,         // a client, b state
    kSubscribe,    // a subscriber, b target, c state
    kUnsubscribe,  // likewise
    kSend,         // a sender, b target, c command id
    kDeliver,      // runs work items until none is queued
    kAttach,       // a 0: null record
    kDetach,
    kCount,     // a 0: null pointer
    kDescribe,  // a capacity; b 1: null array, 2: null count
    kDump,      // a which forwarder, b 0: null handle, c the answer of the crash-dump driver
    kOpen,
    kClose,
    kControl,  // a code
    kPower,    // a second argument of the callback
};

// A client's number is the first of its GUID; 0 passes a null pointer instead.
struct Op {
    Do what;
    ULONG a = 0;
    ULONG b = 0;
    ULONG c = 0;
};

// "post 1 5 0": with a, b and c.
[[nodiscard]] std::string Text(const Op& op);

enum Traits : ULONG { kPlain = 0, kEntries = 1, kCommands = 2, kApps = 4, kNullTable = 8 };

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

// One call that can fail, as the expectation foresees it.
struct Call {
    std::string function;
    std::string detail;  // context type
    std::vector<FaultKind> forms;
};

// Everything that an operation showed.
struct Step {
    std::string status;  // "0xC0000017", "" where it has none
    Lines reports;       // errors and warnings, in order
    Lines callbacks;     // into clients and the crash-dump driver, in order
    Lines violations;    // by rule
    Lines calls;         // fallible platform calls: function and detail
    bool ends = false;   // a thread is parked or a lock kept: nobody can go on from here
};

using Sequence = std::vector<Op>;

std::string Hex(NTSTATUS status);
std::string GuidText(ULONG client);

}  // namespace fault_injection
