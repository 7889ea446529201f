// The events of the provider: number, level, text and fields of each.
#pragma once

#include <ntddk.h>

// kDescription is a string too: the one that the report definition gives.
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
