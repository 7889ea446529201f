#include "tools/trace_gen/resources.h"

#include <cstdio>

namespace trace_gen {
namespace {

constexpr std::uint16_t kLanguage = 0x0409;  // English, United States
constexpr std::uint16_t kCodePage = 1200;    // UTF-16
constexpr std::uint16_t kMessageTableType = 11;
constexpr std::uint16_t kVersionType = 16;

// Head of a node of the version resource; gives its begin, where its size is put when it ends.
std::uint32_t BeginNode(Writer& out, const std::string& key, std::uint32_t valueSize, bool isText)
{
    out.Align(4);
    const std::uint32_t begin = out.Size();
    out.Put16(0);
    out.Put16(valueSize);
    out.Put16(isText ? 1 : 0);
    out.PutText16(key);
    out.Put16(0);
    out.Align(4);
    return begin;
}

void EndNode(Writer& out, std::uint32_t begin)
{
    out.Set16(begin, out.Size() - begin);
}

void PutString(Writer& out, const std::string& key, const std::string& value)
{
    // Texts are measured in characters with their terminator.
    const std::uint32_t begin = BeginNode(out, key, static_cast<std::uint32_t>(value.size() + 1), true);
    out.PutText16(value);
    out.Put16(0);
    EndNode(out, begin);
}

// Type and name of a resource: a number or a text.
void PutNumber(Writer& out, std::uint16_t number)
{
    out.Put16(0xFFFF);
    out.Put16(number);
}

void PutResource(Writer& out, std::uint16_t typeNumber, const std::string& typeName, const Bytes& contents)
{
    constexpr std::uint32_t kMemoryFlags = 0x0030;  // moveable, pure; kept for form's sake
    const std::uint32_t begin = out.Size();
    out.Put32(static_cast<std::uint32_t>(contents.size()));
    out.Put32(0);
    if (typeName.empty()) {
        PutNumber(out, typeNumber);
    } else {
        out.PutText16(typeName);
        out.Put16(0);
    }
    PutNumber(out, 1);
    out.Align(4);
    out.Put32(0);
    out.Put16(kMemoryFlags);
    out.Put16(kLanguage);
    out.Put32(0);
    out.Put32(0);
    out.Set32(begin + 4, out.Size() - begin);
    out.PutBytes(contents);
    out.Align(4);
}

}  // namespace

std::optional<Version> ParseVersion(const std::string& text)
{
    unsigned part[3];
    int end = 0;
    if (std::sscanf(text.c_str(), "%5u.%5u.%5u%n", &part[0], &part[1], &part[2], &end) != 3 ||
        static_cast<std::size_t>(end) != text.size()) {
        return std::nullopt;
    }
    Version version{};
    for (int index = 0; index < 3; ++index) {
        if (part[index] > 0xFFFF) {
            return std::nullopt;
        }
        version.part[index] = static_cast<std::uint16_t>(part[index]);
    }
    return version;
}

Bytes VersionInformation(const Version& version, const std::string& text)
{
    constexpr std::uint32_t kFixedSize = 52;
    Writer out;
    const std::uint32_t root = BeginNode(out, "VS_VERSION_INFO", kFixedSize, false);
    out.Put32(0xFEEF04BD);
    out.Put32(0x00010000);
    for (int twice = 0; twice < 2; ++twice) {  // of the file and of the product
        out.Put32(static_cast<std::uint32_t>(version.part[0] << 16 | version.part[1]));
        out.Put32(static_cast<std::uint32_t>(version.part[2] << 16 | version.part[3]));
    }
    out.Put32(0x3F);     // which flags are meant
    out.Put32(0);        // neither debug nor pre-release
    out.Put32(0x40004);  // Windows NT
    out.Put32(3);        // a driver
    out.Put32(7);        // of the system
    out.Put32(0);        // no date
    out.Put32(0);

    const std::uint32_t strings = BeginNode(out, "StringFileInfo", 0, true);
    const std::uint32_t table = BeginNode(out, "040904B0", 0, true);
    PutString(out, "CompanyName", "The Notifier's project");
    PutString(out, "FileDescription", "Notifier of chip subsystems");
    PutString(out, "FileVersion", text);
    PutString(out, "InternalName", "zepn");
    PutString(out, "OriginalFilename", "zepn.sys");
    PutString(out, "ProductName", "zepn");
    PutString(out, "ProductVersion", text);
    EndNode(out, table);
    EndNode(out, strings);

    const std::uint32_t variables = BeginNode(out, "VarFileInfo", 0, true);
    const std::uint32_t translation = BeginNode(out, "Translation", 4, false);
    out.Put16(kLanguage);
    out.Put16(kCodePage);
    EndNode(out, translation);
    EndNode(out, variables);
    EndNode(out, root);
    return out.bytes();
}

Bytes ResourceFile(const ProviderDescription& provider, const Version& version, const std::string& text)
{
    Writer out;
    // The empty resource that tells a 32-bit file.
    for (const std::uint32_t word : {0u, 32u, 0xFFFFu, 0xFFFFu, 0u, 0u, 0u, 0u}) {
        out.Put32(word);
    }
    PutResource(out, 0, "WEVT_TEMPLATE", EventTemplate(provider));
    PutResource(out, kMessageTableType, "", MessageTable(provider));
    PutResource(out, kVersionType, "", VersionInformation(version, text));
    return out.bytes();
}

}  // namespace trace_gen
