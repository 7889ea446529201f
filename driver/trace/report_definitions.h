// What a reporting site writes, and the forms that most of them have; reports.def lists the sites.
//
// The kind of values that a site passes follows from its event, or for a site that only traces, from its message. The
// manifest, the message-format files and the reports page are generated from the same definitions, so what is sent and
// what decodes it cannot drift apart.
#pragma once

#include "driver/trace/event_definitions.h"

#include <ntddk.h>

// What a reporting site is given, in the order in which it passes it.
enum class PayloadKind : UCHAR {
    kNone,          //
    kStatus,        // NTSTATUS
    kObject,        // handle
    kObjectStatus,  // handle, NTSTATUS
    kMissingItem,   // index, collection, count
    kGuidStatus,    // client GUID, NTSTATUS
    kTooSmall,      // capacity offered, capacity needed, NTSTATUS
    kBuild,         // date string, time string
    kControlCode,   // I/O control code
    kOpen,          // device, file object; the event carries the file object
    kDump,          // dump record, of which the first 32 bits are traced
    kDumpData,      // dump record, data or null: likewise
    kDumpValue,     // dump record, 32-bit value
    kWords1,        // one 32-bit value
    kWords2,        // two
    kWords3,        // three
    kWords4,        // four
};

// Messages are numbered within the set that their source file belongs to; each set has its own message GUID.
enum class MessageSet : UCHAR {
    kMain,
    kForwarding,  // the dump forwarders
};

enum class TraceFlag : UCHAR {
    kEntry,    // TRACE_FLAG_ENTRY, 0x1: entry of every function that reports; exit of the dump forwarders
    kGeneral,  // TRACE_FLAG_GENERAL, 0x2
};

struct Message {
    USHORT number = 0;  // 0: the site writes no trace message
    MessageSet set = MessageSet::kMain;
    TraceFlag flag = TraceFlag::kGeneral;
    UCHAR level = kLevelError;
    bool bare = false;           // carries no argument although the site has values
    const char* text = nullptr;  // format with %10!..!, %11!..!; null: made of description and values
};

struct ReportDefinition {
    const char* function;  // as reported; a few sites report under another function's name on purpose
    USHORT event = 0;      // 0: the site writes no event
    const char* description = nullptr;
    const char* detail = nullptr;
    PayloadKind payload = PayloadKind::kNone;
    Message message = {};
    bool messageFirst = false;
};

// ---- Failures ----

consteval ReportDefinition CallFailed(USHORT number, const char* function, const char* description)
{
    return {.function = function,
            .event = 1,
            .description = description,
            .payload = PayloadKind::kStatus,
            .message = {.number = number}};
}

consteval ReportDefinition Refused(USHORT number, const char* function, const char* description)
{
    return {.function = function,
            .event = 2,
            .description = description,
            .payload = PayloadKind::kStatus,
            .message = {.number = number}};
}

consteval ReportDefinition CrashDumpCallFailed(USHORT number, const char* function, const char* description,
                                               UCHAR messageLevel)
{
    return {.function = function,
            .event = 3,
            .description = description,
            .payload = PayloadKind::kStatus,
            .message = {.number = number, .level = messageLevel}};
}

consteval ReportDefinition ItemMissing(USHORT number, const char* function, const char* description)
{
    return {.function = function,
            .event = 5,
            .description = description,
            .payload = PayloadKind::kMissingItem,
            .message = {.number = number}};
}

consteval ReportDefinition ContextMissing(USHORT number, const char* function, const char* description)
{
    return {.function = function,
            .event = 6,
            .description = description,
            .payload = PayloadKind::kObject,
            .message = {.number = number}};
}

consteval ReportDefinition ContextMissingStatus(USHORT number, const char* function, const char* description)
{
    return {.function = function,
            .event = 7,
            .description = description,
            .payload = PayloadKind::kObjectStatus,
            .message = {.number = number}};
}

consteval ReportDefinition QueueEmpty(USHORT number, const char* function)
{
    return {.function = function,
            .event = 10,
            .payload = PayloadKind::kObject,
            .message = {.number = number, .text = "queue %10!p! is empty"}};
}

consteval ReportDefinition ClientUnusable(USHORT number, const char* function, const char* description)
{
    return {.function = function,
            .event = 12,
            .description = description,
            .payload = PayloadKind::kGuidStatus,
            .message = {.number = number}};
}

consteval ReportDefinition Failed(USHORT number, const char* function, const char* description)
{
    return {.function = function, .event = 13, .description = description, .message = {.number = number}};
}

consteval ReportDefinition Recoverable(USHORT number, const char* function, const char* description, const char* detail)
{
    return {
        .function = function, .event = 22, .description = description, .detail = detail, .message = {.number = number}};
}

// ---- Entries and exits ----

consteval Message EntryMessage(USHORT number, const char* text)
{
    return {.number = number, .flag = TraceFlag::kEntry, .level = kLevelInformation, .text = text};
}

// Entry of an operation or work item: event 61 and the entry message, in the order that the site has.
enum class Order : UCHAR { kEventFirst, kMessageFirst };

consteval ReportDefinition Entered(USHORT number, const char* function, Order order)
{
    return {.function = function,
            .event = 61,
            .message = EntryMessage(number, "entered"),
            .messageFirst = order == Order::kMessageFirst};
}

// Entry of a function that has no entry event.
consteval ReportDefinition EnteredWithoutEvent(USHORT number, const char* function)
{
    return {.function = function, .message = EntryMessage(number, "entered")};
}

consteval ReportDefinition Exited(USHORT number, const char* function)
{
    return {.function = function, .message = EntryMessage(number, "exited")};
}

// Entry of a callback that the framework or the system calls: its message, then its event if it has one, both with what
// the callback was called with.
struct CallbackEntry {
    USHORT number;
    const char* function;
    USHORT event = 0;
    const char* description = nullptr;
    PayloadKind payload = PayloadKind::kObject;
    const char* text;
};

consteval ReportDefinition CallbackEntered(const CallbackEntry& entry)
{
    return {.function = entry.function,
            .event = entry.event,
            .description = entry.description,
            .payload = entry.payload,
            .message = EntryMessage(entry.number, entry.text),
            .messageFirst = true};
}

// ---- Others ----

// A site that only traces.
consteval ReportDefinition Traced(USHORT number, const char* function, UCHAR level, PayloadKind payload,
                                  const char* text)
{
    return {.function = function, .payload = payload, .message = {.number = number, .level = level, .text = text}};
}

// The same definition, its message in the set of the dump forwarders.
consteval ReportDefinition Forwarding(ReportDefinition definition)
{
    definition.message.set = MessageSet::kForwarding;
    return definition;
}
