// The slow paths of the reporting sites.
//
// Each builds its event's payload on the stack, field by field, and writes what is enabled: event and message of a
// failure, message and event of an entry.
#include "driver/trace/report.h"

#include "driver/trace/trace.h"

// ---- The list as a whole ----

// Two sites whose messages have one number; the same site twice when there are none.
struct NumberedAlike {
    Site first;
    Site second;
};

consteval NumberedAlike FindNumberedAlike()
{
    constexpr ULONG kSets = 2;
    constexpr ULONG kNumbers = 512;  // a larger one does not compile
    Site users[kSets][kNumbers] = {};
    bool isUsed[kSets][kNumbers] = {};
    for (ULONG index = 0; index < static_cast<ULONG>(Site::kCount); ++index) {
        const Message& message = kReportDefinitions[index].message;
        if (message.number == 0) {
            continue;
        }
        const ULONG set = static_cast<ULONG>(message.set);
        if (isUsed[set][message.number]) {
            return {users[set][message.number], static_cast<Site>(index)};
        }
        isUsed[set][message.number] = true;
        users[set][message.number] = static_cast<Site>(index);
    }
    return {Site::kCount, Site::kCount};
}

// A template, so that the compiler's message names both sites.
template <Site kFirst, Site kSecond>
struct MessageNumberIsUnique {
    static_assert(kFirst == kSecond, "two messages of one set have the same number");
};
template struct MessageNumberIsUnique<FindNumberedAlike().first, FindNumberedAlike().second>;

// ---- Payloads ----

struct Payload {
    EVENT_DATA_DESCRIPTOR fields[kEventFieldCountMaximum];
    ULONG count;
};

static void AddText(Payload& payload, const char* text)
{
    if (text == nullptr) {
        text = "NULL";
    }
    ULONG size = 1;
    while (text[size - 1] != '\0') {
        ++size;
    }
    EventDataDescCreate(&payload.fields[payload.count++], text, size);
}

// The value must stay valid until the event is written.
template <class Value>
static void AddValue(Payload& payload, const Value& value)
{
    EventDataDescCreate(&payload.fields[payload.count++], &value, sizeof(value));
}

static void Begin(Payload& payload, const SiteRecord& site)
{
    payload.count = 0;
    AddText(payload, site.function);
    if (site.hasDescription) {
        AddText(payload, site.description);
    }
}

static void WriteSiteEvent(const SiteRecord& site, Payload& payload)
{
    if (site.event != 0 && (ReadULongNoFence(&g_TraceEnable.events) & (1u << site.eventBit)) != 0) {
        WriteEvent(site.event, site.eventLevel, payload.fields, payload.count);
    }
}

static bool IsMessageWanted(const SiteRecord& site)
{
    return site.message != 0 && (ReadULongNoFence(&g_TraceEnable.messages) & (1u << site.messageBit)) != 0;
}

static ULONG FirstWord(const VOID* record)
{
    ULONG word;
    memcpy(&word, record, sizeof(word));
    return word;
}

static ULONGLONG AsNumber(PVOID handle)
{
    return reinterpret_cast<ULONG_PTR>(handle);
}

void WritePlain(const SiteRecord& site)
{
    Payload payload;
    Begin(payload, site);
    if (site.detail != nullptr) {
        AddText(payload, site.detail);
    }

    if (!site.messageFirst) {
        WriteSiteEvent(site, payload);
    }
    if (IsMessageWanted(site)) {
        TraceMessage(site.set, site.message);
    }
    if (site.messageFirst) {
        WriteSiteEvent(site, payload);
    }
}

void WriteStatus(const SiteRecord& site, NTSTATUS status)
{
    Payload payload;
    Begin(payload, site);
    AddValue(payload, status);

    WriteSiteEvent(site, payload);
    if (IsMessageWanted(site)) {
        TraceMessageW(site.set, site.message, static_cast<ULONG>(status));
    }
}

void WriteObject(const SiteRecord& site, PVOID object)
{
    const ULONGLONG handle = AsNumber(object);
    Payload payload;
    Begin(payload, site);
    AddValue(payload, handle);

    if (!site.messageFirst) {
        WriteSiteEvent(site, payload);
    }
    if (IsMessageWanted(site)) {
        if (site.bareMessage) {
            TraceMessage(site.set, site.message);
        } else {
            TraceMessageQ(site.set, site.message, handle);
        }
    }
    if (site.messageFirst) {
        WriteSiteEvent(site, payload);
    }
}

void WriteObjectStatus(const SiteRecord& site, PVOID object, NTSTATUS status)
{
    const ULONGLONG handle = AsNumber(object);
    Payload payload;
    Begin(payload, site);
    AddValue(payload, handle);
    AddValue(payload, status);

    WriteSiteEvent(site, payload);
    if (IsMessageWanted(site)) {
        if (site.bareMessage) {
            TraceMessage(site.set, site.message);
        } else {
            TraceMessageQW(site.set, site.message, handle, static_cast<ULONG>(status));
        }
    }
}

void WriteMissingItem(const SiteRecord& site, ULONG index, PVOID collection, ULONG count)
{
    const ULONGLONG wideIndex = index;
    const ULONGLONG handle = AsNumber(collection);
    const ULONGLONG wideCount = count;
    Payload payload;
    Begin(payload, site);
    AddValue(payload, wideIndex);
    AddValue(payload, handle);
    AddValue(payload, wideCount);

    WriteSiteEvent(site, payload);
    if (IsMessageWanted(site)) {
        TraceMessageWQQ(site.set, site.message, index, handle, wideCount);
    }
}

void WriteGuidStatus(const SiteRecord& site, const GUID& guid, NTSTATUS status)
{
    Payload payload;
    Begin(payload, site);
    AddValue(payload, guid);
    AddValue(payload, status);

    WriteSiteEvent(site, payload);
    if (IsMessageWanted(site)) {
        TraceMessageWW(site.set, site.message, guid.Data1, static_cast<ULONG>(status));
    }
}

void WriteTooSmall(const SiteRecord& site, ULONG provided, ULONG required, NTSTATUS status)
{
    const ULONGLONG wideProvided = provided;
    const ULONGLONG wideRequired = required;
    Payload payload;
    Begin(payload, site);
    AddValue(payload, wideProvided);
    AddValue(payload, wideRequired);
    AddValue(payload, status);

    WriteSiteEvent(site, payload);
    if (IsMessageWanted(site)) {
        TraceMessageWWW(site.set, site.message, provided, required, static_cast<ULONG>(status));
    }
}

void WriteBuild(const SiteRecord& site, const char* date, const char* time)
{
    Payload payload;
    Begin(payload, site);
    AddText(payload, date);
    AddText(payload, time);

    WriteSiteEvent(site, payload);
    if (IsMessageWanted(site)) {
        TraceMessageSS(site.set, site.message, date, time);
    }
}

void WriteControlCode(const SiteRecord& site, ULONG code)
{
    const ULONGLONG wideCode = code;
    Payload payload;
    Begin(payload, site);
    AddValue(payload, wideCode);

    if (IsMessageWanted(site)) {
        TraceMessageW(site.set, site.message, code);
    }
    WriteSiteEvent(site, payload);
}

void WriteOpen(const SiteRecord& site, PVOID device, PVOID fileObject)
{
    const ULONGLONG handle = AsNumber(fileObject);
    Payload payload;
    Begin(payload, site);
    AddValue(payload, handle);

    if (IsMessageWanted(site)) {
        TraceMessageQQ(site.set, site.message, AsNumber(device), handle);
    }
    WriteSiteEvent(site, payload);
}

// The clients' records are read only here, when their message is enabled.
void WriteDump(const SiteRecord& site, const VOID* dump)
{
    TraceMessageW(site.set, site.message, FirstWord(dump));
}

void WriteDumpData(const SiteRecord& site, const VOID* dump, const VOID* data)
{
    TraceMessageWW(site.set, site.message, FirstWord(dump), data == nullptr ? 0 : FirstWord(data));
}

void WriteDumpValue(const SiteRecord& site, const VOID* dump, ULONG value)
{
    TraceMessageWW(site.set, site.message, FirstWord(dump), value);
}

void WriteWords(const SiteRecord& site, ULONG first)
{
    TraceMessageW(site.set, site.message, first);
}

void WriteWords(const SiteRecord& site, ULONG first, ULONG second)
{
    TraceMessageWW(site.set, site.message, first, second);
}

void WriteWords(const SiteRecord& site, ULONG first, ULONG second, ULONG third)
{
    TraceMessageWWW(site.set, site.message, first, second, third);
}

void WriteWords(const SiteRecord& site, ULONG first, ULONG second, ULONG third, ULONG fourth)
{
    TraceMessageWWWW(site.set, site.message, first, second, third, fourth);
}
