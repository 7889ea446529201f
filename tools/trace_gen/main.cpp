// Writes what decodes the driver's reports from the list of reports: the event manifest and one message-format file per
// message set, or what the resource compiler takes.
//
//     zepn-trace-gen FOLDER [PAGES]
//     zepn-trace-gen --resources FOLDER
//
// PAGES, when given, receives reports.md, which docs/ holds too, reports.txt, one line for each report, and
// identifiers.sed, the script that puts the provider's name and GUIDs in the package's templates.
//
// Nothing is read; the list is compiled in. The files are the ones that ship, so nothing edits them by hand.
#include "tools/trace_gen/guid_text.h"
#include "tools/trace_gen/reports_page.h"
#include "tools/trace_gen/event_template.h"
#include "tools/trace_gen/site_names.h"
#include "driver/trace/identifiers.h"
#include "driver/trace/report_list.h"

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

using trace_gen::Case;
using trace_gen::GuidText;

// Without a folder, for the image stays in the driver store; whoever registers by hand names it (wevtutil im /rf /mf).
constexpr const char* kImageName = "zepn.sys";

// The source file that each set of messages belongs to.
struct SetFile {
    MessageSet set;
    const char* source;
};

constexpr SetFile kSets[] = {
    {MessageSet::kMain, "driver.cpp"},
    {MessageSet::kForwarding, "forwarding.cpp"},
};

std::string Escaped(const std::string& text)
{
    std::string escaped;
    for (const char letter : text) {
        switch (letter) {
        case '&':
            escaped += "&amp;";
            break;
        case '<':
            escaped += "&lt;";
            break;
        case '>':
            escaped += "&gt;";
            break;
        case '"':
            escaped += "&quot;";
            break;
        default:
            escaped.push_back(letter);
        }
    }
    return escaped;
}

// ---- Manifest ----

const char* LevelName(UCHAR level)
{
    constexpr const char* kNames[] = {"",           "win:Critical", "win:Error", "win:Warning", "win:Informational",
                                      "win:Verbose"};
    return kNames[level];
}

const char* FieldTypes(Field type)
{
    switch (type) {
    case Field::kStatus:
        return R"(inType="win:UInt32" outType="win:NTSTATUS")";
    case Field::kCount:
        return R"(inType="win:UInt64")";
    case Field::kHandle:
    case Field::kHexValue:
        return R"(inType="win:UInt64" outType="win:HexInt64")";
    case Field::kGuid:
        return R"(inType="win:GUID")";
    default:
        return R"(inType="win:AnsiString")";
    }
}

// Events with equal fields share a template, named by its fields.
std::string TemplateId(const Event& event)
{
    std::string id = "T";
    for (const EventField& field : event.fields) {
        if (field.type != Field::kNone) {
            id += std::string("_") + field.name;
        }
    }
    return id;
}

void WriteManifest(std::ostream& out)
{
    out << R"(<?xml version="1.0" encoding="UTF-8"?>
<!-- Generated from the driver's list of reports; not edited by hand. -->
<instrumentationManifest xmlns="http://schemas.microsoft.com/win/2004/08/events"
                         xmlns:win="http://manifests.microsoft.com/win/2004/08/windows/events"
                         xmlns:xs="http://www.w3.org/2001/XMLSchema">
  <instrumentation>
    <events>
)";
    out << "      <provider name=\"" << kProviderName << "\" guid=\"{" << GuidText(kProviderGuid, Case::kUpper)
        << "}\" symbol=\"ZEPN_NOTIFIER_PROVIDER\"\n                resourceFileName=\"" << kImageName
        << "\" messageFileName=\"" << kImageName << "\">\n        <templates>\n";
    std::map<std::string, const Event*> templates;
    for (const Event& event : kEvents) {
        if (!templates.emplace(TemplateId(event), &event).second) {
            continue;
        }
        out << "          <template tid=\"" << TemplateId(event) << "\">\n";
        for (const EventField& field : event.fields) {
            if (field.type != Field::kNone) {
                out << "            <data name=\"" << field.name << "\" " << FieldTypes(field.type) << "/>\n";
            }
        }
        out << "          </template>\n";
    }
    out << "        </templates>\n        <events>\n";
    for (const Event& event : kEvents) {
        out << "          <event value=\"" << event.id << "\" version=\"0\" level=\"" << LevelName(event.level)
            << "\" template=\"" << TemplateId(event) << "\"\n                 symbol=\"" << event.symbol
            << "\" message=\"$(string.Event" << event.id << ")\"/>\n";
    }
    out << "        </events>\n      </provider>\n    </events>\n  </instrumentation>\n  <localization>\n"
        << "    <resources culture=\"en-US\">\n      <stringTable>\n";
    for (const Event& event : kEvents) {
        out << "        <string id=\"Event" << event.id << "\" value=\"" << Escaped(event.message) << "\"/>\n";
    }
    out << "      </stringTable>\n    </resources>\n  </localization>\n</instrumentationManifest>\n";
}

// ---- Message formats ----

struct Item {
    const char* expression;
    const char* type;
    const char* form;
};

std::vector<Item> ItemsOf(const ReportDefinition& definition)
{
    constexpr Item kStatusItem{"status", "ItemNTSTATUS", "s"};
    constexpr Item kObjectItem{"object", "ItemPtr", "p"};
    constexpr Item kWordItem{"value", "ItemLong", "u"};
    if (definition.message.bare) {
        return {};
    }
    switch (definition.payload) {
    case PayloadKind::kNone:
        return {};
    case PayloadKind::kStatus:
        return {kStatusItem};
    case PayloadKind::kObject:
        return {kObjectItem};
    case PayloadKind::kObjectStatus:
        return {kObjectItem, kStatusItem};
    case PayloadKind::kMissingItem:
        return {{"index", "ItemLong", "u"}, {"collection", "ItemPtr", "p"}, {"count", "ItemULongLong", "I64u"}};
    case PayloadKind::kGuidStatus:
        return {{"guid", "ItemLong", "08X"}, kStatusItem};
    case PayloadKind::kTooSmall:
        return {{"provided", "ItemLong", "u"}, {"required", "ItemLong", "u"}, kStatusItem};
    case PayloadKind::kBuild:
        return {{"date", "ItemString", "s"}, {"time", "ItemString", "s"}};
    case PayloadKind::kOpen:
        return {{"device", "ItemPtr", "p"}, {"file", "ItemPtr", "p"}};
    case PayloadKind::kControlCode:
    case PayloadKind::kDump:
    case PayloadKind::kWords1:
        return {kWordItem};
    case PayloadKind::kDumpData:
    case PayloadKind::kDumpValue:
    case PayloadKind::kWords2:
        return {kWordItem, kWordItem};
    case PayloadKind::kWords3:
        return {kWordItem, kWordItem, kWordItem};
    case PayloadKind::kWords4:
        return {kWordItem, kWordItem, kWordItem, kWordItem};
    }
    return {};
}

// Some descriptions end with a blank; here the separator that follows brings its own.
std::string Trimmed(const std::string& text)
{
    return text.substr(0, text.find_last_not_of(' ') + 1);
}

// A definition without a text of its own reads as its description and its values: "WdfObjectCreate (status ...)".
std::string TextOf(const ReportDefinition& definition)
{
    if (definition.message.text != nullptr) {
        return definition.message.text;
    }
    std::ostringstream text;
    text << Trimmed(definition.description);
    if (definition.detail != nullptr) {
        text << " (" << definition.detail << ")";
    }
    const std::vector<Item> items = ItemsOf(definition);
    std::size_t next = 0;
    if (definition.payload == PayloadKind::kGuidStatus) {
        text << " GUID beginning %10!08X!";  // a message carries only the first number
        next = 1;
    }
    const char* separator = " (";
    for (; next < items.size(); ++next) {
        text << separator << items[next].expression << " %" << 10 + next << "!" << items[next].form << "!";
        separator = ", ";
    }
    text << (*separator == ',' ? ")" : "");
    return text.str();
}

// Words are decimal or hexadecimal as the text uses them, never both.
std::string TypeOf(const Item& item, const std::string& text, unsigned index)
{
    const std::string status = "%" + std::to_string(index) + "!s!";
    if (std::string(item.type) == "ItemLong" && text.find(status) != std::string::npos) {
        return "ItemNTSTATUS";
    }
    return item.type;
}

void WriteMessage(std::ostream& out, Site site)
{
    constexpr const char* kLevels[] = {
        "", "", "TRACE_LEVEL_ERROR", "TRACE_LEVEL_WARNING", "TRACE_LEVEL_INFORMATION", "TRACE_LEVEL_VERBOSE"};
    const ReportDefinition& definition = kReportDefinitions[static_cast<std::size_t>(site)];
    const Message& message = definition.message;
    const std::string text = TextOf(definition);
    // The tag, which readers show as the place in the source, is the site's name there.
    out << "#typev " << trace_gen::NameOf(site) << " " << message.number << " \"%0" << text
        << "\" //   LEVEL=" << kLevels[message.level]
        << " FLAGS=" << (message.flag == TraceFlag::kEntry ? "TRACE_FLAG_ENTRY" : "TRACE_FLAG_GENERAL")
        << " FUNC=" << definition.function << "\n{\n";
    unsigned index = 10;
    for (const Item& item : ItemsOf(definition)) {
        out << item.expression << ", " << TypeOf(item, text, index) << " -- " << index << "\n";
        ++index;
    }
    out << "}\n";
}

void WriteMessages(std::ostream& out, const SetFile& file)
{
    out << "// PDB:  zepn.pdb\n" << GuidText(file.set) << " zepn // SRC=" << file.source << " MJ= MN=\n";
    std::map<USHORT, Site> byNumber;
    for (std::size_t index = 0; index < std::size(kReportDefinitions); ++index) {
        const Message& message = kReportDefinitions[index].message;
        if (message.number != 0 && message.set == file.set) {
            byNumber.emplace(message.number, static_cast<Site>(index));
        }
    }
    for (const auto& [number, site] : byNumber) {
        WriteMessage(out, site);
    }
}

// ---- Resources ----

trace_gen::TemplateField BinaryField(const EventField& field)
{
    // The codes of the binary form for what FieldTypes() says in words.
    switch (field.type) {
    case Field::kStatus:
        return {field.name, 8, 31};
    case Field::kCount:
        return {field.name, 10, 10};
    case Field::kHandle:
    case Field::kHexValue:
        return {field.name, 10, 19};
    case Field::kGuid:
        return {field.name, 15, 14};
    default:
        return {field.name, 2, 1};
    }
}

trace_gen::ProviderDescription DescribeProvider()
{
    trace_gen::ProviderDescription provider{.name = kProviderName, .guid = {}, .templates = {}, .events = {}};
    static_assert(sizeof(provider.guid) == sizeof(kProviderGuid));
    std::memcpy(provider.guid.data(), &kProviderGuid, sizeof(kProviderGuid));
    std::map<std::string, std::size_t> indexes;
    for (const Event& event : kEvents) {
        const auto [known, isNew] = indexes.emplace(TemplateId(event), provider.templates.size());
        if (isNew) {
            trace_gen::ProviderTemplate& described = provider.templates.emplace_back();
            for (const EventField& field : event.fields) {
                if (field.type != Field::kNone) {
                    described.fields.push_back(BinaryField(field));
                }
            }
        }
        provider.events.push_back({event.id, event.level, known->second, event.message});
    }
    return provider;
}

void WriteIdentifiers(std::ostream& out)
{
    out << "s|@PROVIDER_NAME@|" << kProviderName << "|g\n"
        << "s|@PROVIDER_GUID@|" << GuidText(kProviderGuid, Case::kUpper) << "|g\n"
        << "s|@CONTROL_GUID@|" << GuidText(kControlGuid, Case::kUpper) << "|g\n";
}

template <class Writer>
bool WriteFile(const std::filesystem::path& path, const Writer& writer)
{
    std::ofstream out(path, std::ios::binary);
    writer(out);
    out.close();
    if (!out) {
        std::cerr << "zepn-trace-gen: cannot write " << path << "\n";
        return false;
    }
    return true;
}

// What the message compiler of the WDK makes of the manifest, under the names that it would give.
bool WriteResources(const std::filesystem::path& folder)
{
    constexpr const char* kMessages = "zepn_events_MSG00001.bin";
    constexpr const char* kTemplate = "zepn_eventsTEMP.BIN";
    const trace_gen::ProviderDescription provider = DescribeProvider();
    const auto writeBytes = [&folder](const char* name, const trace_gen::Bytes& bytes) {
        return WriteFile(folder / name, [&bytes](std::ostream& out) {
            out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        });
    };
    return writeBytes(kMessages, trace_gen::MessageTable(provider)) &&
           writeBytes(kTemplate, trace_gen::EventTemplate(provider)) &&
           WriteFile(folder / "zepn_events.rc", [&](std::ostream& out) {
               out << "LANGUAGE 0x9, 0x1\n1 WEVT_TEMPLATE \"" << kTemplate << "\"\n1 11 \"" << kMessages << "\"\n";
           });
}

}  // namespace

int main(int argumentCount, char** arguments)
{
    if (argumentCount == 3 && std::string(arguments[1]) == "--resources") {
        return WriteResources(arguments[2]) ? 0 : 1;
    }
    if (argumentCount != 2 && argumentCount != 3) {
        std::cerr << "usage: zepn-trace-gen FOLDER [PAGES]\n       zepn-trace-gen --resources FOLDER\n";
        return 2;
    }
    const std::filesystem::path folder = arguments[1];
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    bool written = WriteFile(folder / "zepn.man", [](std::ostream& out) { WriteManifest(out); });
    for (const SetFile& file : kSets) {
        written = WriteFile(folder / (GuidText(file.set) + ".tmf"),
                            [&file](std::ostream& out) { WriteMessages(out, file); }) &&
                  written;
    }
    if (argumentCount == 3) {
        const std::filesystem::path pages = arguments[2];
        std::filesystem::create_directories(pages, error);
        written = WriteFile(pages / "reports.md", [](std::ostream& out) { WriteReportsPage(out, &TextOf); }) && written;
        written = WriteFile(pages / "reports.txt", [](std::ostream& out) { WriteReportList(out); }) && written;
        written = WriteFile(pages / "identifiers.sed", [](std::ostream& out) { WriteIdentifiers(out); }) && written;
    }
    return written ? 0 : 1;
}
