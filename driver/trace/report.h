// How the driver reports: one call per site, naming the site's row and passing its values.
//
//     return ReportFailure<Site::kInitObject>(status);
//
// A silent site costs one load and one bit test per channel, inline; writing is out of line. Values of the wrong kind
// do not compile. Reporting never changes a result, takes no lock and allocates nothing; callable at any IRQL.
#pragma once

#include "driver/trace/rows.h"

// What a site's cold half needs of its row at run time.
struct SiteRecord {
    const char* function;
    const char* description;
    const char* detail;
    USHORT event;
    USHORT message;
    UCHAR eventBit;
    UCHAR eventLevel;
    UCHAR messageBit;
    MessageSet set;
    bool hasDescription;  // the event's second field is the description
    bool bareMessage;
    bool messageFirst;
};

// The words that the sites test. Each is derived by its channel's enable callback, on a thread of the system's, and is
// read at every site without lock or fence: a report that races with a listener coming or going may be lost.
struct TraceEnableWords {
    ULONG events;    // bit i: the provider's enable bit i (level 2 + i)
    ULONG messages;  // bit 8 * flag + level: messages of that flag and level are wanted
};
extern TraceEnableWords g_TraceEnable;

consteval UCHAR EventBit(const Row& row)
{
    return row.event == 0 ? 0 : static_cast<UCHAR>(EventById(row.event)->level - kLevelError);
}

consteval UCHAR MessageBit(const Message& message)
{
    return static_cast<UCHAR>(8 * static_cast<UCHAR>(message.flag) + message.level);
}

consteval bool HasDescription(const Row& row)
{
    return row.event != 0 && EventById(row.event)->fields[1].type == Field::kDescription;
}

consteval SiteRecord RecordOf(const Row& row)
{
    return {.function = row.function,
            .description = row.description,
            .detail = row.detail,
            .event = row.event,
            .message = row.message.number,
            .eventBit = EventBit(row),
            .eventLevel = row.event == 0 ? UCHAR{0} : EventById(row.event)->level,
            .messageBit = MessageBit(row.message),
            .set = row.message.set,
            .hasDescription = HasDescription(row),
            .bareMessage = row.message.bare,
            .messageFirst = row.messageFirst};
}

template <Site kSite>
inline constexpr SiteRecord kSiteRecord = RecordOf(RowOf(kSite));

// The cold halves, one per kind of values. Each writes what is enabled: WritePlain and WriteObject in the site's order,
// WriteControlCode and WriteOpen the message first, all others the event first.
void WritePlain(const SiteRecord& site);
void WriteStatus(const SiteRecord& site, NTSTATUS status);
void WriteObject(const SiteRecord& site, PVOID object);
void WriteObjectStatus(const SiteRecord& site, PVOID object, NTSTATUS status);
void WriteMissingItem(const SiteRecord& site, ULONG index, PVOID collection, ULONG count);
void WriteGuidStatus(const SiteRecord& site, const GUID& guid, NTSTATUS status);
void WriteTooSmall(const SiteRecord& site, ULONG provided, ULONG required, NTSTATUS status);
void WriteBuild(const SiteRecord& site, const char* date, const char* time);
void WriteControlCode(const SiteRecord& site, ULONG code);
void WriteOpen(const SiteRecord& site, PVOID device, PVOID fileObject);
void WriteDump(const SiteRecord& site, const VOID* dump);
void WriteDumpData(const SiteRecord& site, const VOID* dump, const VOID* data);
void WriteDumpValue(const SiteRecord& site, const VOID* dump, ULONG value);
void WriteWords(const SiteRecord& site, ULONG first);
void WriteWords(const SiteRecord& site, ULONG first, ULONG second);
void WriteWords(const SiteRecord& site, ULONG first, ULONG second, ULONG third);
void WriteWords(const SiteRecord& site, ULONG first, ULONG second, ULONG third, ULONG fourth);

template <Site kSite>
FORCEINLINE bool IsHeard()
{
    constexpr const Row& row = RowOf(kSite);
    if constexpr (row.event != 0) {
        if ((ReadULongNoFence(&g_TraceEnable.events) & (1u << EventBit(row))) != 0) {
            return true;
        }
    }
    if constexpr (row.message.number != 0) {
        if ((ReadULongNoFence(&g_TraceEnable.messages) & (1u << MessageBit(row.message))) != 0) {
            return true;
        }
    }
    return false;
}

template <Site kSite, class... Arguments>
FORCEINLINE void Report(const Arguments&... arguments)
{
    constexpr Values values = RowOf(kSite).values;
    if (!IsHeard<kSite>()) [[likely]] {
        return;
    }
    if constexpr (values == Values::kNone) {
        WritePlain(kSiteRecord<kSite>, arguments...);
    } else if constexpr (values == Values::kStatus) {
        WriteStatus(kSiteRecord<kSite>, arguments...);
    } else if constexpr (values == Values::kObject) {
        WriteObject(kSiteRecord<kSite>, arguments...);
    } else if constexpr (values == Values::kObjectStatus) {
        WriteObjectStatus(kSiteRecord<kSite>, arguments...);
    } else if constexpr (values == Values::kMissingItem) {
        WriteMissingItem(kSiteRecord<kSite>, arguments...);
    } else if constexpr (values == Values::kGuidStatus) {
        WriteGuidStatus(kSiteRecord<kSite>, arguments...);
    } else if constexpr (values == Values::kTooSmall) {
        WriteTooSmall(kSiteRecord<kSite>, arguments...);
    } else if constexpr (values == Values::kBuild) {
        WriteBuild(kSiteRecord<kSite>, arguments...);
    } else if constexpr (values == Values::kControlCode) {
        WriteControlCode(kSiteRecord<kSite>, arguments...);
    } else if constexpr (values == Values::kOpen) {
        WriteOpen(kSiteRecord<kSite>, arguments...);
    } else if constexpr (values == Values::kDump) {
        WriteDump(kSiteRecord<kSite>, arguments...);
    } else if constexpr (values == Values::kDumpData) {
        WriteDumpData(kSiteRecord<kSite>, arguments...);
    } else if constexpr (values == Values::kDumpValue) {
        WriteDumpValue(kSiteRecord<kSite>, arguments...);
    } else {  // plain words
        static_assert(values == static_cast<Values>(static_cast<int>(Values::kWords1) + sizeof...(Arguments) - 1),
                      "as many words as the row says");
        WriteWords(kSiteRecord<kSite>, arguments...);
    }
}

// Report and return in one statement, for the kinds of values that end with the status an operation answers.
template <Site kSite>
[[nodiscard]] FORCEINLINE NTSTATUS ReportFailure(NTSTATUS status)
{
    Report<kSite>(status);
    return status;
}

template <Site kSite>
[[nodiscard]] FORCEINLINE NTSTATUS ReportFailure(PVOID object, NTSTATUS status)
{
    Report<kSite>(object, status);
    return status;
}

template <Site kSite>
[[nodiscard]] FORCEINLINE NTSTATUS ReportFailure(const GUID& guid, NTSTATUS status)
{
    Report<kSite>(guid, status);
    return status;
}
