// The tree of resources: types, in each its names, in each its languages, each of them with a record of its data.
#include "tools/image_check/pe_reader.h"
#include "tools/image_check/text.h"

#include <algorithm>
#include <iterator>
#include <tuple>

namespace image_check {
namespace {

constexpr std::uint32_t kTableSize = 16;
constexpr std::uint32_t kEntrySize = 8;
constexpr std::uint32_t kDataSize = 16;
constexpr std::uint32_t kHighBit = 0x80000000u;  // in an entry: it leads to a text, or to a table
constexpr unsigned kLanguageLevel = 2;

class Walk {
public:
    Walk(const PeReader& image, Directory directory) : image_(image), directory_(directory) {}

    void Table(std::uint32_t offset, unsigned level)
    {
        constexpr const char* kLevelNames[] = {"types", "names", "languages"};
        const std::string place = Join("the table of ", kLevelNames[level], " at ", Hex(offset));
        if (At<std::uint32_t>(offset, 4) != 0) {
            throw FormatError(place + " has a time stamp, which is the build's");
        }
        const std::uint32_t texts = At<std::uint16_t>(offset, 12);
        const std::uint32_t count = texts + At<std::uint16_t>(offset, 14);
        if (count == 0) {
            throw FormatError(place + " is empty");
        }
        // Tables that lead to each other would be walked for ever.
        entries_ += count;
        if (entries_ > directory_.sizeBytes / kEntrySize) {
            throw FormatError(place + " has more entries than there is room for");
        }
        ResourceId previous;
        for (std::uint32_t index = 0; index < count; ++index) {
            const std::uint32_t entry = offset + kTableSize + kEntrySize * index;
            const auto key = At<std::uint32_t>(entry, 0);
            if (((key & kHighBit) != 0) != (index < texts)) {
                throw FormatError(place + " does not keep texts before numbers");
            }
            const ResourceId id = (key & kHighBit) != 0 ? ResourceId{0, Text(key & ~kHighBit)} : ResourceId{key, {}};
            // The system looks for an entry by halving the table.
            if (index != 0 && index != texts && !(previous < id)) {
                throw FormatError(place + " is not sorted");
            }
            previous = id;
            path_[level] = id;
            const auto target = At<std::uint32_t>(entry, 4);
            if (((target & kHighBit) != 0) != (level < kLanguageLevel)) {
                throw FormatError(place + " leads to something of another level");
            }
            if (level < kLanguageLevel) {
                Table(target & ~kHighBit, level + 1);
            } else {
                Data(target);
            }
        }
    }

    std::vector<Resource> resources;

private:
    [[nodiscard]] std::uint64_t Address(std::uint64_t offset, std::uint64_t sizeBytes) const
    {
        if (offset + sizeBytes > directory_.sizeBytes) {
            throw FormatError(Join(sizeBytes, " bytes at ", Hex(offset), " lie beyond the resource directory"));
        }
        return directory_.address + offset;
    }

    template <class T>
    [[nodiscard]] T At(std::uint64_t offset, std::uint64_t field) const
    {
        return image_.AtAddress<T>(Address(offset + field, sizeof(T)));
    }

    // Resource names are of plain letters; others appear as question marks.
    [[nodiscard]] std::string Text(std::uint32_t offset) const
    {
        std::string text(At<std::uint16_t>(offset, 0), '?');
        for (std::size_t index = 0; index < text.size(); ++index) {
            const auto letter = At<std::uint16_t>(offset, 2 + 2 * index);
            text[index] = letter >= 0x20 && letter < 0x7F ? static_cast<char>(letter) : '?';
        }
        return text;
    }

    void Data(std::uint32_t offset)
    {
        (void)Address(offset, kDataSize);
        resources.push_back({.type = path_[0],
                             .name = path_[1],
                             .language = path_[2],
                             .address = At<std::uint32_t>(offset, 0),
                             .sizeBytes = At<std::uint32_t>(offset, 4)});
    }

    const PeReader& image_;
    Directory directory_;
    std::uint32_t entries_ = 0;
    ResourceId path_[kLanguageLevel + 1];
};

}  // namespace

bool ResourceId::operator<(const ResourceId& other) const
{
    return std::tie(text, number) < std::tie(other.text, other.number);
}

std::vector<Resource> PeReader::Resources() const
{
    if (directory(kResources).address == 0) {
        return {};
    }
    Walk walk(*this, directory(kResources));
    walk.Table(0, 0);
    return std::move(walk.resources);
}

}  // namespace image_check
