// The resources: what makes an installed driver's reports readable, and says its version.
#include "tools/image_check/report.h"
#include "tools/image_check/text.h"

#include <algorithm>

namespace image_check {
namespace {

constexpr std::uint32_t kEnglish = 0x0409;

std::string NameOf(const ResourceId& id)
{
    return id.text.empty() ? std::to_string(id.number) : id.text;
}

// What is wrong with the beginning of a kind of resource, or nothing. Its contents are the generator's business.
using HeadCheck = std::string (*)(const PeReader& image, const Resource& resource);

std::string CheckEventTemplate(const PeReader& image, const Resource& resource)
{
    constexpr std::uint32_t kHeadSize = 16 + 20;  // with one provider
    constexpr std::uint32_t kMagic = 0x4D495243;
    if (resource.sizeBytes < kHeadSize || image.AtAddress<std::uint32_t>(resource.address) != kMagic) {
        return "does not begin with CRIM";
    }
    // Two zero bytes at the end are not counted.
    const auto claimed = image.AtAddress<std::uint32_t>(resource.address + 4ull);
    if (claimed + 2ull != resource.sizeBytes) {
        return Join("claims ", claimed, " bytes and has ", resource.sizeBytes);
    }
    return image.AtAddress<std::uint32_t>(resource.address + 12ull) == 0 ? "describes no provider" : "";
}

std::string CheckMessageTable(const PeReader& image, const Resource& resource)
{
    constexpr std::uint64_t kBlockSize = 12;
    const std::uint64_t blocks =
        resource.sizeBytes < 4 ? 0 : std::uint64_t{image.AtAddress<std::uint32_t>(resource.address)};
    if (blocks == 0 || 4 + blocks * kBlockSize > resource.sizeBytes) {
        return Join("claims ", blocks, " blocks of messages in ", resource.sizeBytes, " bytes");
    }
    std::uint64_t next = 0;
    for (std::uint64_t index = 0; index < blocks; ++index) {
        const std::uint64_t block = resource.address + 4ull + index * kBlockSize;
        const auto lowest = image.AtAddress<std::uint32_t>(block);
        const auto highest = image.AtAddress<std::uint32_t>(block + 4);
        if (lowest < next || highest < lowest) {
            return "has its messages out of order";
        }
        next = highest + 1ull;
        // Every message takes its length, its encoding and at least two characters.
        constexpr std::uint64_t kSmallestMessage = 8;
        const std::uint64_t first = image.AtAddress<std::uint32_t>(block + 8);
        if (first + (next - lowest) * kSmallestMessage > resource.sizeBytes) {
            return Join("has the messages from ", Hex(lowest), " on beyond its end");
        }
    }
    return "";
}

std::string CheckVersion(const PeReader& image, const Resource& resource)
{
    constexpr std::uint32_t kFixedEnd = 40 + 52;
    constexpr std::uint32_t kSignature = 0xFEEF04BD;
    if (resource.sizeBytes < kFixedEnd || image.AtAddress<std::uint32_t>(resource.address + 40ull) != kSignature) {
        return "has no fixed part";
    }
    const auto claimed = image.AtAddress<std::uint16_t>(resource.address);
    return claimed != resource.sizeBytes ? Join("claims ", claimed, " bytes and has ", resource.sizeBytes) : "";
}

struct KnownType {
    ResourceId type;
    const char* what;
    HeadCheck check;
};

const std::vector<KnownType>& KnownTypes()
{
    static const std::vector<KnownType> types = {
        {{0, "WEVT_TEMPLATE"}, "event template", CheckEventTemplate},
        {{11, {}}, "message table", CheckMessageTable},
        {{16, {}}, "version", CheckVersion},
    };
    return types;
}

// The loader maps it once for all; nothing of it is code, and it must stay while someone may ask for a text.
bool CheckPlace(const PeReader& image, Report& report)
{
    const Directory directory = image.directory(kResources);
    const Section* section = image.SectionOf(directory.address);
    if (section == nullptr ||
        std::uint64_t{directory.address} + directory.sizeBytes > std::uint64_t{section->address} + section->sizeBytes) {
        report.Add(Join("the directory at ", Hex(directory.address), " with ", directory.sizeBytes,
                        " bytes is not within one section"));
        return false;
    }
    // Whoever reads them reads the file.
    report.Require(section->IsDiscardable(), section->name + " stays in memory");
    return true;
}

void CheckData(const PeReader& image, std::vector<Resource> resources, Report& report)
{
    const Directory directory = image.directory(kResources);
    std::ranges::sort(resources, {}, &Resource::address);
    std::uint64_t previousEnd = directory.address;
    for (const Resource& resource : resources) {
        const std::string name = "type " + NameOf(resource.type) + ": ";
        const std::uint64_t end = std::uint64_t{resource.address} + resource.sizeBytes;
        report.Require(resource.sizeBytes != 0, name + "no contents");
        report.Require(resource.address % 4 == 0, name + "not aligned to 4 bytes");
        report.Require(resource.address >= previousEnd, name + "overlaps what stands before it");
        if (end > std::uint64_t{directory.address} + directory.sizeBytes) {
            report.Add(name + "lies beyond the directory");
            continue;
        }
        previousEnd = std::max(previousEnd, end);
        const auto known = std::ranges::find(KnownTypes(), resource.type, &KnownType::type);
        // Without an address in the directory, or in the file, there is nothing to look at.
        if (known != KnownTypes().end() && resource.sizeBytes != 0 && resource.address >= directory.address) {
            (void)image.OffsetOf(resource.address, resource.sizeBytes);
            const std::string wrong = known->check(image, resource);
            report.Require(wrong.empty(), Join("the ", known->what, " ", wrong));
        }
    }
}

}  // namespace

void CheckResources(const PeReader& image, ReportResources wanted, Report& report)
{
    const bool required = wanted == ReportResources::kRequired;
    if (image.directory(kResources).address == 0) {
        report.Require(!required, "there are none: its reports cannot be read, nor its version");
        return;
    }
    if (!CheckPlace(image, report)) {
        return;
    }
    const std::vector<Resource> resources = image.Resources();
    CheckData(image, resources, report);
    for (const KnownType& known : KnownTypes()) {
        // The reader asks for name 1, whatever else there is.
        const auto count = std::ranges::count_if(resources, [&](const Resource& resource) {
            return resource.type == known.type && resource.name == ResourceId{1, {}} &&
                   resource.language == ResourceId{kEnglish, {}};
        });
        report.Require(!required || count == 1, Join("there is no ", known.what, " named 1 in English"));
    }
}

}  // namespace image_check
