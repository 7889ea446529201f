#include "tools/trace_gen/resources.h"

namespace trace_gen {
namespace {

constexpr std::uint16_t kLanguage = 0x0409;  // English, United States
constexpr std::uint16_t kMessageTableType = 11;

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

Bytes ResourceFile(const ProviderDescription& provider)
{
    Writer out;
    // The empty resource that tells a 32-bit file.
    for (const std::uint32_t word : {0u, 32u, 0xFFFFu, 0xFFFFu, 0u, 0u, 0u, 0u}) {
        out.Put32(word);
    }
    PutResource(out, 0, "WEVT_TEMPLATE", EventTemplate(provider));
    PutResource(out, kMessageTableType, "", MessageTable(provider));
    return out.bytes();
}

}  // namespace trace_gen
