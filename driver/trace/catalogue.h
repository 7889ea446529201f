// The catalogue's types: events, and the shape of a reporting site.
//
// Every place in the driver that reports is one row (rows_*.h), named by one enumerator (sites.h). A row says which
// event and which trace message the place writes; the kind of values it passes follows from the event, or for places
// that only trace, from the message. The manifest, the message-format files and the reports page are generated from the
// same rows, so what is sent and what decodes it cannot drift apart.
#pragma once

#include "driver/trace/sites.h"

#include <ntddk.h>

// What a reporting site is given, in the order in which it passes it.
enum class Values : UCHAR {
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

// kDescription is a string too: the one that the row gives.
enum class Field : UCHAR { kNone, kString, kDescription, kStatus, kCount, kHandle, kHexValue, kGuid };

struct EventField {
    const char* name;
    Field type;
};

inline constexpr ULONG kEventFieldCountMaximum = 5;

// One event of the provider. All have version, channel, opcode, task and keyword 0.
struct Event {
    USHORT id;
    UCHAR level;
    const char* symbol;
    const char* message;  // message string; %1 is the first field
    EventField fields[kEventFieldCountMaximum];
};

inline constexpr UCHAR kLevelError = 2;
inline constexpr UCHAR kLevelWarning = 3;
inline constexpr UCHAR kLevelInformation = 4;
inline constexpr UCHAR kLevelVerbose = 5;

inline constexpr EventField kFunction{"FunctionName", Field::kString};
inline constexpr EventField kDescription{"Description", Field::kDescription};
inline constexpr EventField kStatusField{"Status", Field::kStatus};
inline constexpr EventField kObjectField{"Object", Field::kHandle};

inline constexpr Event kEvents[] = {
    {1, kLevelError, "CallFailed", "%1: %2 (status %3)", {kFunction, kDescription, kStatusField}},
    {2, kLevelError, "Refused", "%1: %2 (status %3)", {kFunction, kDescription, kStatusField}},
    {3, kLevelError, "CrashDumpCallFailed", "%1: %2 (status %3)", {kFunction, kDescription, kStatusField}},
    {5,
     kLevelError,
     "ItemMissing",
     "%1: %2 gave no item at index %3 of collection %4 with %5 items",
     {kFunction, kDescription, {"Index", Field::kCount}, {"Collection", Field::kHandle}, {"Count", Field::kCount}}},
    {6, kLevelError, "ContextMissing", "%1: %2 missing on object %3", {kFunction, kDescription, kObjectField}},
    {7,
     kLevelError,
     "ContextMissingStatus",
     "%1: %2, object %3 (status %4)",
     {kFunction, kDescription, kObjectField, kStatusField}},
    {9,
     kLevelError,
     "ControlDeviceFailed",
     "%1: %2, object %3 (status %4)",
     {kFunction, kDescription, kObjectField, kStatusField}},
    {10, kLevelError, "QueueEmpty", "%1: nothing queued in collection %2", {kFunction, kObjectField}},
    {11,
     kLevelError,
     "BufferTooSmall",
     "%1: room for %2 descriptors, %3 needed (status %4)",
     {kFunction, {"Provided", Field::kCount}, {"Required", Field::kCount}, kStatusField}},
    {12,
     kLevelError,
     "ClientUnusable",
     "%1: %2 GUID %3 (status %4)",
     {kFunction, kDescription, {"Guid", Field::kGuid}, kStatusField}},
    {13, kLevelError, "Failed", "%1: %2", {kFunction, kDescription}},
    {22, kLevelWarning, "Recoverable", "%1: %2 (%3)", {kFunction, kDescription, {"Detail", Field::kString}}},
    {41, kLevelInformation, "DriverCallback", "%1: %2 %3", {kFunction, kDescription, kObjectField}},
    {43, kLevelInformation, "DeviceCallback", "%1: device %2", {kFunction, kObjectField}},
    {44,
     kLevelInformation,
     "Started",
     "%1: built %2 %3",
     {kFunction, {"BuildDate", Field::kString}, {"BuildTime", Field::kString}}},
    {45, kLevelInformation, "FileCallback", "%1: file object %2", {kFunction, kObjectField}},
    {61, kLevelVerbose, "Entered", "%1 entered", {kFunction}},
    {64, kLevelVerbose, "DeviceControl", "%1: I/O control %2", {kFunction, {"Value", Field::kHexValue}}},
};

consteval const Event* EventById(USHORT id)
{
    for (const Event& event : kEvents) {
        if (event.id == id) {
            return &event;
        }
    }
    return nullptr;
}

// ---- Trace messages ----

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

// ---- Rows ----

struct Row {
    Site site;
    const char* function;  // as reported; a few sites report under another function's name on purpose
    USHORT event = 0;      // 0: the site writes no event
    const char* description = nullptr;
    const char* detail = nullptr;
    Values values = Values::kNone;
    Message message;
    bool messageFirst = false;
};

consteval Row CallFailed(Site site, const char* function, const char* description, USHORT number,
                         MessageSet set = MessageSet::kMain)
{
    return {site, function, 1, description, nullptr, Values::kStatus, {.number = number, .set = set}};
}

consteval Row Refused(Site site, const char* function, const char* description, USHORT number,
                      MessageSet set = MessageSet::kMain)
{
    return {site, function, 2, description, nullptr, Values::kStatus, {.number = number, .set = set}};
}

consteval Row CrashDumpCallFailed(Site site, const char* function, const char* description, USHORT number, UCHAR level)
{
    return {site, function, 3, description, nullptr, Values::kStatus, {.number = number, .level = level}};
}

consteval Row ItemMissing(Site site, const char* function, const char* description, USHORT number)
{
    return {site, function, 5, description, nullptr, Values::kMissingItem, {.number = number}};
}

consteval Row ContextMissing(Site site, const char* function, const char* description, USHORT number,
                             MessageSet set = MessageSet::kMain)
{
    return {site, function, 6, description, nullptr, Values::kObject, {.number = number, .set = set}};
}

consteval Row ContextMissingStatus(Site site, const char* function, const char* description, USHORT number,
                                   MessageSet set = MessageSet::kMain)
{
    return {site, function, 7, description, nullptr, Values::kObjectStatus, {.number = number, .set = set}};
}

consteval Row QueueEmpty(Site site, const char* function, USHORT number)
{
    return {site, function, 10, nullptr, nullptr, Values::kObject, {.number = number, .text = "queue %10!p! is empty"}};
}

consteval Row ClientUnusable(Site site, const char* function, const char* description, USHORT number)
{
    return {site, function, 12, description, nullptr, Values::kGuidStatus, {.number = number}};
}

consteval Row Failed(Site site, const char* function, const char* description, USHORT number)
{
    return {site, function, 13, description, nullptr, Values::kNone, {.number = number}};
}

// Entry of an operation or work item: event 61 and the entry message, in the order that the site has.
enum class Order : UCHAR { kEventFirst, kMessageFirst };

consteval Row Entered(Site site, const char* function, USHORT number, Order order, MessageSet set = MessageSet::kMain)
{
    return {site,
            function,
            61,
            nullptr,
            nullptr,
            Values::kNone,
            {.number = number, .set = set, .flag = TraceFlag::kEntry, .level = kLevelInformation, .text = "entered"},
            order == Order::kMessageFirst};
}

// Entry of a function that has no entry event: the message alone.
consteval Row EnteredQuietly(Site site, const char* function, USHORT number)
{
    return {site,
            function,
            0,
            nullptr,
            nullptr,
            Values::kNone,
            {.number = number, .flag = TraceFlag::kEntry, .level = kLevelInformation, .text = "entered"}};
}

// A site that only traces, with the values of its form.
consteval Row Traced(Site site, const char* function, USHORT number, UCHAR level, Values values, const char* text,
                     MessageSet set = MessageSet::kMain)
{
    return {site, function, 0, nullptr, nullptr, values, {.number = number, .set = set, .level = level, .text = text}};
}
