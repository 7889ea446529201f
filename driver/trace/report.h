// How the driver reports: one call per site, naming the site and passing its values.
//
//     return ReportFailure<Site::kInitObject>(status);
//
// A disabled site costs one load and one bit test per channel, inline; writing is out of line. Values of the wrong kind
// do not compile. Reporting never changes a result, takes no lock and allocates nothing; callable at any IRQL.
#pragma once

#include "driver/trace/report_list.h"

// What a site's slow path needs of its definition at run time.
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
// read at every site without lock or fence: a report that races with a session that starts or stops may be lost.
struct TraceEnableWords {
    ULONG events;    // bit i: the provider's enable bit i (level 2 + i)
    ULONG messages;  // bit 8 * flag + level: messages of that flag and level are wanted
};
extern TraceEnableWords g_TraceEnable;

consteval UCHAR EventBit(const ReportDefinition& definition)
{
    return definition.event == 0 ? 0 : static_cast<UCHAR>(EventById(definition.event)->level - kLevelError);
}

consteval UCHAR MessageBit(const Message& message)
{
    return static_cast<UCHAR>(8 * static_cast<UCHAR>(message.flag) + message.level);
}

consteval bool HasDescription(const ReportDefinition& definition)
{
    return definition.event != 0 && EventById(definition.event)->fields[1].type == Field::kDescription;
}

consteval SiteRecord RecordOf(const ReportDefinition& definition)
{
    return {.function = definition.function,
            .description = definition.description,
            .detail = definition.detail,
            .event = definition.event,
            .message = definition.message.number,
            .eventBit = EventBit(definition),
            .eventLevel = definition.event == 0 ? UCHAR{0} : EventById(definition.event)->level,
            .messageBit = MessageBit(definition.message),
            .set = definition.message.set,
            .hasDescription = HasDescription(definition),
            .bareMessage = definition.message.bare,
            .messageFirst = definition.messageFirst};
}

template <Site kSite>
inline constexpr SiteRecord kSiteRecord = RecordOf(DefinitionOf(kSite));

// The slow paths, one per kind of payload. Each writes what is enabled: WritePlain and WriteObject in the site's order,
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
FORCEINLINE bool IsEnabled()
{
    constexpr const ReportDefinition& definition = DefinitionOf(kSite);
    if constexpr (definition.event != 0) {
        if ((ReadULongNoFence(&g_TraceEnable.events) & (1u << EventBit(definition))) != 0) {
            return true;
        }
    }
    if constexpr (definition.message.number != 0) {
        if ((ReadULongNoFence(&g_TraceEnable.messages) & (1u << MessageBit(definition.message))) != 0) {
            return true;
        }
    }
    return false;
}

template <Site kSite, class... Arguments>
FORCEINLINE void Report(const Arguments&... arguments)
{
    constexpr PayloadKind payload = DefinitionOf(kSite).payload;
    if (!IsEnabled<kSite>()) [[likely]] {
        return;
    }
    if constexpr (payload == PayloadKind::kNone) {
        WritePlain(kSiteRecord<kSite>, arguments...);
    } else if constexpr (payload == PayloadKind::kStatus) {
        WriteStatus(kSiteRecord<kSite>, arguments...);
    } else if constexpr (payload == PayloadKind::kObject) {
        WriteObject(kSiteRecord<kSite>, arguments...);
    } else if constexpr (payload == PayloadKind::kObjectStatus) {
        WriteObjectStatus(kSiteRecord<kSite>, arguments...);
    } else if constexpr (payload == PayloadKind::kMissingItem) {
        WriteMissingItem(kSiteRecord<kSite>, arguments...);
    } else if constexpr (payload == PayloadKind::kGuidStatus) {
        WriteGuidStatus(kSiteRecord<kSite>, arguments...);
    } else if constexpr (payload == PayloadKind::kTooSmall) {
        WriteTooSmall(kSiteRecord<kSite>, arguments...);
    } else if constexpr (payload == PayloadKind::kBuild) {
        WriteBuild(kSiteRecord<kSite>, arguments...);
    } else if constexpr (payload == PayloadKind::kControlCode) {
        WriteControlCode(kSiteRecord<kSite>, arguments...);
    } else if constexpr (payload == PayloadKind::kOpen) {
        WriteOpen(kSiteRecord<kSite>, arguments...);
    } else if constexpr (payload == PayloadKind::kDump) {
        WriteDump(kSiteRecord<kSite>, arguments...);
    } else if constexpr (payload == PayloadKind::kDumpData) {
        WriteDumpData(kSiteRecord<kSite>, arguments...);
    } else if constexpr (payload == PayloadKind::kDumpValue) {
        WriteDumpValue(kSiteRecord<kSite>, arguments...);
    } else {  // plain words
        static_assert(payload ==
                          static_cast<PayloadKind>(static_cast<int>(PayloadKind::kWords1) + sizeof...(Arguments) - 1),
                      "as many words as the definition says");
        WriteWords(kSiteRecord<kSite>, arguments...);
    }
}

// Report and return in one statement, for the payloads that end with the status that an operation returns.
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
