// The check of the resources fires at each damage to their place, their tree and the heads of what they hold.
#include "tests/image/damage.h"

namespace tests {
namespace {

// Where the linker puts the parts of the tree, from its beginning. Types are the event template, the message table
// and the version, in this order.
constexpr unsigned kTypes = 0x00;
constexpr unsigned kFirstType = 0x10;
constexpr unsigned kTemplateNames = 0x28;
constexpr unsigned kTemplateLanguages = 0x70;
constexpr unsigned kDataRecord[] = {0xB8, 0xC8, 0xD8};

// Writes at a place in the tree, or in the data of a resource.
Edit InTree(unsigned offset, const Bytes& values)
{
    return Write(Table(2, offset), values);
}
Edit InData(unsigned resource, unsigned offset, const Bytes& values)
{
    return Write(Followed(Table(2, kDataRecord[resource]), offset), values);
}
Edit InSection(std::uint8_t topOfCharacteristics)
{
    return Write(Header(kResources, 39), {topOfCharacteristics});
}

std::vector<Damage> ResourceDamage()
{
    return {
        // Their place.
        {Write(Directory(2), Bytes(8)), "resources", "there are none"},
        {Write(Directory(2), {0, 0, 0, 0x7F}), "resources", "not within one section"},
        {Write(Directory(2, 4), {0, 0, 1}), "resources", "not within one section"},
        {Write(Directory(2, 4), {0, 4}), "resources", "lies beyond the directory"},
        {InSection(0xC2), "sections", ".rsrc is writable"},
        {InSection(0x62), "sections", ".rsrc is executable"},
        {InSection(0x40), "resources", ".rsrc stays in memory"},
        // Their tree.
        {InTree(kTypes + 4, {1}), "resources", "types at 0x0 has a time stamp"},
        {InTree(kTemplateNames + 14, {0}), "resources", "names at 0x28 is empty"},
        {InTree(kTemplateNames + 14, {0xFF, 0xFF}), "resources", "than there is room for"},
        {InTree(kFirstType + 3, {0}), "resources", "texts before numbers"},
        {InTree(kFirstType + 8, {17}), "resources", "types at 0x0 is not sorted"},
        {InTree(kFirstType + 8, {16}), "resources", "types at 0x0 is not sorted"},
        {InTree(kFirstType + 7, {0}), "resources", "of another level"},
        {InTree(kTemplateLanguages + 23, {0x80}), "resources", "of another level"},
        {InTree(kFirstType + 4, {0, 0, 1}), "resources", "lie beyond the resource"},
        {InTree(kFirstType, {0, 0, 1}), "resources", "lie beyond the resource"},
        {InTree(kFirstType + 8, {10}), "resources", "no message table named 1"},
        {InTree(0xE8 + 2, {'X'}), "resources", "no event template named 1"},
        {InTree(kTemplateNames + 16, {2}), "resources", "no event template named 1"},
        {InTree(kTemplateLanguages + 17, {8}), "resources", "no event template named 1"},
        // What they hold.
        {InTree(kDataRecord[1] + 4, {0, 0, 0, 0}), "resources", "type 11: no contents"},
        {Add(Table(2, kDataRecord[2]), 2), "resources", "type 16: not aligned"},
        {Add(Table(2, kDataRecord[1] + 5), 1), "resources", "type 16: overlaps"},
        {InTree(kDataRecord[2], {0, 0x10, 0, 0}), "resources", "type 16: overlaps"},
        {InTree(kDataRecord[2] + 3, {0x7F}), "resources", "type 16: lies beyond"},
        {InData(0, 0, {'c'}), "resources", "does not begin with CRIM"},
        {InData(0, 4, {0xFF}), "resources", "event template claims"},
        {InData(0, 12, {0}), "resources", "describes no provider"},
        {InData(1, 0, {0, 0, 0, 0}), "resources", "claims 0 blocks"},
        {InData(1, 0, {0xFF, 0xFF, 0xFF, 0xFF}), "resources", "claims 4294967295 blocks"},
        {InData(1, 4, {0xFF, 0xFF, 0xFF, 0xFF}), "resources", "out of order"},
        {InData(1, 12, {0, 0, 1}), "resources", "on beyond its end"},
        {InData(2, 0, {0, 1}), "resources", "version claims 256 bytes"},
        {InData(2, 40, {0}), "resources", "has no fixed part"},
    };
}

TEST(ImageCheckDamage, OfResourcesIsFound)
{
    ExpectFound(ResourceDamage());
}

// A sample carries none; but what an image carries must be right.
TEST(ImageCheckResources, MayBeMissingWhereTheyAreNotNeeded)
{
    const auto found = [](const Edit& edit) {
        return TextOf(FindingsOf(edit, "arm64", image_check::ReportResources::kNotNeeded));
    };
    EXPECT_EQ(found(Write(Directory(2), {0, 0, 0, 0})), "");
    EXPECT_EQ(found(InTree(kTemplateNames + 16, {2})), "");
    EXPECT_EQ(found(InSection(0x40)), "resources: .rsrc stays in memory\n");
}

// The sanitizers look on.
TEST(ImageCheckResources, OfAnyContentsAreJudged)
{
    const PeReader good = PeReader::FromFile(PathOf("x64"));
    const std::uint64_t tree = Table(2)(good);
    constexpr unsigned kTreeSize = 0x110;
    for (unsigned at = 0; at < kTreeSize; ++at) {
        for (const int mask : {0x01, 0x08, 0x80, 0xFF}) {
            Bytes bytes = good.bytes();
            bytes[tree + at] = static_cast<std::uint8_t>(bytes[tree + at] ^ mask);
            const std::string checks = ChecksOf(image_check::CheckStructure(PeReader(bytes)));
            EXPECT_TRUE(checks == "checksum" || checks == "checksum, resources") << checks << " at " << at;
        }
    }
}

}  // namespace
}  // namespace tests
