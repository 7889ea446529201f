// Every offset counts from the beginning of the whole; an offset that points forward is put in when its target is
// written.
#include "tools/trace_gen/event_template.h"
#include "tools/trace_gen/sha256.h"

#include <algorithm>
#include <map>

namespace trace_gen {
namespace {

constexpr std::uint32_t kNone = 0xFFFFFFFFu;
constexpr std::uint32_t kLevelIds = 0x50000000u;
constexpr std::uint32_t kEventIds = 0xB0000000u;

struct Level {
    const char* name;
    const char* text;
};

const Level& LevelOf(std::uint8_t level)
{
    static constexpr Level kLevels[] = {{"win:Critical", "Critical"},
                                        {"win:Error", "Error"},
                                        {"win:Warning", "Warning"},
                                        {"win:Informational", "Information"},
                                        {"win:Verbose", "Verbose"}};
    return kLevels[level - 1];
}

// The levels that events refer to, each with the offset of its record once that is written.
std::map<std::uint8_t, std::uint32_t> LevelsOf(const ProviderDescription& provider)
{
    std::map<std::uint8_t, std::uint32_t> levels;
    for (const ProviderEvent& event : provider.events) {
        levels[event.level] = 0;
    }
    return levels;
}

void PutSizedText(Writer& out, const std::string& text)
{
    const std::uint32_t begin = out.Size();
    out.Put32(0);
    out.PutText16(text);
    out.Put16(0);
    out.Align(4);
    out.Set32(begin, out.Size() - begin);
}

void PutEmptyList(Writer& out, const char* signature)
{
    out.PutText8(signature);
    out.Put32(0);
    out.Put32(0);
}

// ---- Templates ----

void PutName(Writer& out, const std::string& name)
{
    std::uint32_t hash = 0;
    for (const char letter : name) {
        hash = hash * 65599 + static_cast<unsigned char>(letter);
    }
    out.Put16(hash & 0xFFFFu);
    out.Put16(static_cast<std::uint32_t>(name.size()));
    out.PutText16(name);
    out.Put16(0);
}

void PutDataElement(Writer& out, const TemplateField& field, std::uint32_t index)
{
    out.Put8(0x41);
    out.Put16(0xFFFF);
    const std::uint32_t size = out.Size();
    out.Put32(0);
    PutName(out, "Data");
    const std::uint32_t attributes = out.Size();
    out.Put32(0);
    out.Put8(0x06);
    PutName(out, "Name");
    out.Put8(0x05);
    out.Put8(0x01);
    out.Put16(static_cast<std::uint32_t>(field.name.size()));
    out.PutText16(field.name);
    out.Set32(attributes, out.Size() - attributes - 4);
    out.Put8(0x02);
    out.Put8(0x0D);
    out.Put16(index);
    out.Put8(field.inType);
    out.Put8(0x04);
    out.Set32(size, out.Size() - size - 4);
}

void PutBinaryXml(Writer& out, const ProviderTemplate& described)
{
    out.Put32(0x0001010F);
    out.Put8(0x01);
    out.Put16(0xFFFF);
    const std::uint32_t size = out.Size();
    out.Put32(0);
    PutName(out, "EventData");
    out.Put8(0x02);
    std::uint32_t index = 0;
    for (const TemplateField& field : described.fields) {
        PutDataElement(out, field, index++);
    }
    out.Put8(0x04);
    out.Set32(size, out.Size() - size - 4);
    out.Put8(0x00);
    out.Align(4);
}

Bytes TemplateGuid(const ProviderTemplate& described)
{
    Writer text;
    text.PutText8("MS-WEVT");
    text.Put8(0);
    text.PutText16(described.fields.empty() ? "<EventData/>" : "<EventData>");
    unsigned index = 0;
    for (const TemplateField& field : described.fields) {
        text.PutText16("<Data Name=\"" + field.name + "\">%" + std::to_string(++index) + "</Data>");
    }
    text.PutText16(described.fields.empty() ? "" : "</EventData>");
    for (const TemplateField& field : described.fields) {
        text.Put32(field.inType);
    }
    const auto digest = Sha256(text.bytes());
    Bytes guid(digest.begin(), digest.begin() + 16);
    guid[7] = static_cast<std::uint8_t>((guid[7] & 0x0F) | 0x50);
    return guid;
}

void PutTemplate(Writer& out, const ProviderTemplate& described)
{
    const std::uint32_t begin = out.Size();
    const auto count = static_cast<std::uint32_t>(described.fields.size());
    out.PutText8("TEMP");
    out.Put32(0);
    out.Put32(count);
    out.Put32(count);
    out.Put32(0);
    out.Put32(1);  // event data
    out.PutBytes(TemplateGuid(described));
    PutBinaryXml(out, described);
    out.Set32(begin + 16, out.Size());
    const std::uint32_t properties = out.Size();
    for (const TemplateField& field : described.fields) {
        out.Put32(0);
        out.Put8(field.inType);
        out.Put8(field.outType);
        out.Put16(0);
        out.Put32(0);  // no value map
        out.Put32(0);  // neither an array nor of a given length
        out.Put32(0);
    }
    for (std::uint32_t index = 0; index < count; ++index) {
        out.Set32(properties + 20 * index + 16, out.Size());
        PutSizedText(out, described.fields[index].name);
    }
    out.Set32(begin + 4, out.Size() - begin);
}

// Gives the offset of each template.
std::vector<std::uint32_t> PutTemplates(Writer& out, const ProviderDescription& provider)
{
    const std::uint32_t begin = out.Size();
    std::vector<std::uint32_t> offsets;
    out.PutText8("TTBL");
    out.Put32(0);
    out.Put32(static_cast<std::uint32_t>(provider.templates.size()));
    for (const ProviderTemplate& described : provider.templates) {
        offsets.push_back(out.Size());
        PutTemplate(out, described);
    }
    out.Set32(begin + 4, out.Size() - begin);
    return offsets;
}

// ---- The other lists ----

void PutProviderName(Writer& out, const ProviderDescription& provider)
{
    const std::uint32_t begin = out.Size();
    out.PutText8("PRVA");
    out.Put32(0);
    out.Put32(1);
    out.Put32(0x10000001);
    out.Put32(out.Size() + 4);
    out.PutText16(provider.name);
    out.Put16(0);
    out.Align(4);
    out.Set32(begin + 4, out.Size() - begin);
}

void PutLevels(Writer& out, std::map<std::uint8_t, std::uint32_t>& levels)
{
    const std::uint32_t begin = out.Size();
    out.PutText8("LEVL");
    out.Put32(0);
    out.Put32(static_cast<std::uint32_t>(levels.size()));
    for (auto& [value, offset] : levels) {
        offset = out.Size();
        out.Put32(value);
        out.Put32(kLevelIds | value);
        out.Put32(0);
    }
    for (const auto& [value, offset] : levels) {
        out.Set32(offset + 8, out.Size());
        PutSizedText(out, LevelOf(value).name);
    }
    out.Set32(begin + 4, out.Size() - begin);
}

void PutEvents(Writer& out, const ProviderDescription& provider, const std::vector<std::uint32_t>& templates,
               const std::map<std::uint8_t, std::uint32_t>& levels)
{
    const std::uint32_t begin = out.Size();
    out.PutText8("EVNT");
    out.Put32(0);
    out.Put32(static_cast<std::uint32_t>(provider.events.size()));
    out.Put32(0);
    for (const ProviderEvent& event : provider.events) {
        out.Put32(event.id);  // id, version 0, channel 0
        out.Put32(event.level);
        out.Put32(0);  // no keyword
        out.Put32(0);
        out.Put32(kEventIds | event.id);
        out.Put32(templates[event.templateIndex]);
        out.Put32(0);  // opcode
        out.Put32(levels.at(event.level));
        out.Put32(0);  // task
        out.Put32(0);  // keywords: count and offset
        out.Put32(0);
        out.Put32(0);  // channel
    }
    out.Set32(begin + 4, out.Size() - begin);
}

}  // namespace

Bytes EventTemplate(const ProviderDescription& provider)
{
    constexpr std::uint32_t kLevl = 0;
    constexpr std::uint32_t kTask = 1;
    constexpr std::uint32_t kOpco = 2;
    constexpr std::uint32_t kKeyw = 3;
    constexpr std::uint32_t kEvnt = 4;
    constexpr std::uint32_t kTtbl = 7;
    constexpr std::uint32_t kPrva = 13;
    constexpr std::uint32_t kLists[] = {kTtbl, kPrva, kOpco, kLevl, kTask, kKeyw, kEvnt};

    Writer out;
    out.PutText8("CRIM");
    out.Put32(0);
    out.Put16(5);
    out.Put16(1);
    out.Put32(1);
    out.PutBytes(Bytes(provider.guid.begin(), provider.guid.end()));
    out.Put32(out.Size() + 4);

    const std::uint32_t block = out.Size();
    out.PutText8("WEVT");
    out.Put32(0);
    out.Put32(kNone);  // the provider has no message
    out.Put32(static_cast<std::uint32_t>(std::size(kLists)));
    const std::uint32_t directory = out.Size();
    for (const std::uint32_t type : kLists) {
        out.Put32(type);
        out.Put32(0);
    }
    std::uint32_t slot = directory + 4;
    const auto beginList = [&] {
        out.Set32(slot, out.Size());
        slot += 8;
    };
    auto levels = LevelsOf(provider);
    beginList();
    const std::vector<std::uint32_t> templates = PutTemplates(out, provider);
    beginList();
    PutProviderName(out, provider);
    beginList();
    PutEmptyList(out, "OPCO");
    beginList();
    PutLevels(out, levels);
    beginList();
    PutEmptyList(out, "TASK");
    beginList();
    PutEmptyList(out, "KEYW");
    out.Align(8);
    beginList();
    PutEvents(out, provider, templates, levels);
    out.Set32(block + 4, out.Size() - block);
    out.Set32(4, out.Size());
    out.Put16(0);  // as compilers end it; not counted in the length
    return out.bytes();
}

Bytes MessageTable(const ProviderDescription& provider)
{
    std::map<std::uint32_t, std::string> texts;
    for (const ProviderEvent& event : provider.events) {
        texts[kLevelIds | event.level] = LevelOf(event.level).text;
        texts[kEventIds | event.id] = event.message;
    }
    // One block for each run of ids without a gap.
    struct Block {
        std::uint32_t low;
        std::uint32_t high;
    };
    std::vector<Block> blocks;
    for (const auto& [id, text] : texts) {
        if (blocks.empty() || blocks.back().high + 1 != id) {
            blocks.push_back({id, id});
        }
        blocks.back().high = id;
    }
    Writer out;
    out.Put32(static_cast<std::uint32_t>(blocks.size()));
    for (const Block& block : blocks) {
        out.Put32(block.low);
        out.Put32(block.high);
        out.Put32(0);
    }
    std::uint32_t index = 0;
    for (const Block& block : blocks) {
        out.Set32(4 + 12 * index++ + 8, out.Size());
        for (std::uint32_t id = block.low; id <= block.high; ++id) {
            const std::uint32_t begin = out.Size();
            out.Put16(0);
            out.Put16(1);  // UTF-16
            out.PutText16(texts[id] + "\r\n");
            out.Put16(0);
            out.Align(4);
            out.Set16(begin, out.Size() - begin);
        }
    }
    return out.bytes();
}

}  // namespace trace_gen
