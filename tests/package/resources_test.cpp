// The image's resources, read back by others' tools and by a parser that knows only the format, not the generator.
#include "host/tracing/decode.h"
#include "tests/package/assembled.h"
#include "tests/package/version_resource.h"
#include "tools/trace_gen/event_template.h"
#include "tools/trace_gen/sha256.h"

#include <gtest/gtest.h>

#include <regex>

namespace tests {
namespace {

using trace_gen::Bytes;

std::string Hex(const std::array<std::uint8_t, 32>& digest)
{
    std::string text;
    for (const std::uint8_t byte : digest) {
        text += "0123456789abcdef"[byte >> 4];
        text += "0123456789abcdef"[byte & 15];
    }
    return text;
}

// Bytes that a compiler of event manifests makes of the same provider.
TEST(EventTemplate, EqualsTheCompilersForAKnownProvider)
{
    const trace_gen::ProviderDescription lamp{
        .name = "Lamp",
        .guid = {0x67, 0x45, 0x23, 0x01, 0xab, 0x89, 0xef, 0xcd, 0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef},
        .templates = {{{{"Who", 2, 1}, {"Code", 8, 31}}}},
        .events = {{7, 2, 0, "%1 failed: %2"}}};
    EXPECT_EQ(trace_gen::EventTemplate(lamp).size(), 562u);
    EXPECT_EQ(Hex(trace_gen::Sha256(trace_gen::EventTemplate(lamp))),
              "b2fa0e676ba2b47bba9cff119b7af492336569838236b2d7f62d3d1e7383c73a");
    EXPECT_EQ(Hex(trace_gen::Sha256(trace_gen::MessageTable(lamp))),
              "f2a6e2e472269465c6efdbe6946f03ddfa347c2410e22b1281d98a5776004ee6");
}

Bytes Extract(const std::string& machine, const std::string& type)
{
    const std::string image = std::string(ZEPN_ROOT) + "/out/" + machine + "/zepn.sys";
    const Ran ran = Shell("wrestool --raw -x --type=" + type + " '" + image + "'");
    EXPECT_EQ(ran.status, 0) << image;
    return {ran.printed.begin(), ran.printed.end()};
}

// Follows offsets only; at() throws on what lies outside.
struct View {
    const Bytes& bytes;
    [[nodiscard]] std::uint32_t U16(std::size_t at) const { return bytes.at(at) | bytes.at(at + 1) << 8; }
    [[nodiscard]] std::uint32_t U32(std::size_t at) const { return U16(at) | U16(at + 2) << 16; }
    [[nodiscard]] std::string Text16(std::size_t at) const
    {
        std::string text;
        for (; U16(at) != 0; at += 2) {
            text += static_cast<char>(U16(at));
        }
        return text;
    }
    [[nodiscard]] std::string Tag(std::size_t at) const
    {
        return {reinterpret_cast<const char*>(&bytes.at(at)), reinterpret_cast<const char*>(&bytes.at(at + 3)) + 1};
    }
};

std::map<std::uint32_t, std::string> ReadMessages(const Bytes& bytes)
{
    const View view{bytes};
    std::map<std::uint32_t, std::string> texts;
    for (std::uint32_t block = 0; block < view.U32(0); ++block) {
        std::size_t entry = view.U32(4 + 12 * block + 8);
        for (std::uint32_t id = view.U32(4 + 12 * block); id <= view.U32(4 + 12 * block + 4); ++id) {
            EXPECT_EQ(view.U16(entry + 2), 1u);
            texts[id] = view.Text16(entry + 4);
            entry += view.U16(entry);
        }
    }
    return texts;
}

class Resources : public testing::TestWithParam<const char*> {};

TEST_P(Resources, SayWhatTheManifestSays)
{
    const Bytes bytes = Extract(GetParam(), "WEVT_TEMPLATE");
    const View view{bytes};
    const auto messages = ReadMessages(Extract(GetParam(), "11"));
    const host::tracing::Manifest manifest(std::filesystem::path(ZEPN_ROOT) / "out" / "manifest" / "zepn.man");
    ASSERT_EQ(view.Tag(0), "CRIM");
    EXPECT_EQ(std::memcmp(&bytes[16], &manifest.provider(), 16), 0);
    const std::size_t block = view.U32(32);
    ASSERT_EQ(view.Tag(block), "WEVT");
    std::size_t events = 0;
    for (std::uint32_t list = 0; list < view.U32(block + 12); ++list) {
        if (view.U32(block + 16 + 8 * list) == 4) {
            events = view.U32(block + 20 + 8 * list);
        }
    }
    ASSERT_EQ(view.Tag(events), "EVNT");
    ASSERT_EQ(view.U32(events + 8), manifest.events().size());
    std::size_t record = events + 16;
    for (const auto& [id, event] : manifest.events()) {
        SCOPED_TRACE(id);
        EXPECT_EQ(view.U16(record), id);
        EXPECT_EQ(bytes.at(record + 4), event.level);
        EXPECT_EQ(messages.at(view.U32(record + 16)), event.message + "\r\n");
        const std::size_t level = view.U32(record + 28);
        EXPECT_EQ(view.U32(level), event.level);
        EXPECT_TRUE(messages.contains(view.U32(level + 4)));
        const std::size_t described = view.U32(record + 20);
        ASSERT_EQ(view.Tag(described), "TEMP");
        ASSERT_EQ(view.U32(described + 8), event.fields.size());
        std::size_t property = view.U32(described + 16);
        for (const auto& field : event.fields) {
            constexpr unsigned kInTypes[] = {2, 8, 10, 15};
            EXPECT_EQ(bytes.at(property + 4), kInTypes[static_cast<int>(field.type)]) << field.name;
            const std::map<std::string, unsigned> kOutTypes = {{"win:NTSTATUS", 31}, {"win:HexInt64", 19}};
            if (!field.outType.empty()) {
                EXPECT_EQ(bytes.at(property + 5), kOutTypes.at(field.outType)) << field.name;
            }
            EXPECT_EQ(view.Text16(view.U32(property + 16) + 4), field.name);
            property += 20;
        }
        record += 48;
    }
}

TEST_P(Resources, CarryVersionAndCommit)
{
    const fs::path root = ZEPN_ROOT;
    const VersionResource version(root / "out" / GetParam() / "zepn.sys");
    EXPECT_TRUE(version.FileVersion().starts_with(Trimmed(ReadAll(root / "VERSION")) + ".")) << version.FileVersion();
    EXPECT_EQ(version.Text("FileVersion"), version.FileVersion());
    EXPECT_EQ(version.Text("ProductVersion"), version.FileVersion());
    EXPECT_EQ(version.Text("OriginalFilename"), "zepn.sys");
    EXPECT_TRUE(std::regex_match(version.Text("Comments"), std::regex("commit ([0-9a-f]{40}(-modified)?|none)")))
        << version.Text("Comments");
}

INSTANTIATE_TEST_SUITE_P(Images, Resources, testing::Values("arm64", "x64"),
                         [](const auto& info) { return std::string(info.param); });

}  // namespace
}  // namespace tests
