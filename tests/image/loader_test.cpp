// The loader takes the image that ships and refuses what is damaged, naming what is wrong.
#include "host/environment.h"
#include "host/image/exports.h"
#include "host/image/image.h"
#include "tests/image/damage.h"
#include "tests/kit/settings.h"

#include <dlfcn.h>
#include <sys/uio.h>
#include <unistd.h>

namespace tests {
namespace {

constexpr const char* kOtherMachine = std::string_view(kMachine) == "x64" ? "arm64" : "x64";

class Loader : public testing::Test {
protected:
    const PeReader good = PeReader::FromFile(PathOf(kMachine));

    // What the loader says of these bytes.
    std::string Refusal(Bytes bytes, bool checksumMended)
    {
        if (checksumMended) {
            (void)Thrown([&] { MendChecksum(bytes); });  // it may have no place for one
        }
        const TemporaryFolder folder;
        return Thrown([&] {
            host::Environment environment({});
            RegisterExports();
            (void)host::image::LoadedImage::Load(environment,
                                                 folder.Write("damaged.sys", {bytes.begin(), bytes.end()}));
        });
    }

    // What the image imports; nothing of it is called.
    static void RegisterExports()
    {
        static const std::vector<image_check::ImportedModule> imports = PeReader::FromFile(PathOf(kMachine)).Imports();
        for (const image_check::ImportedModule& module : imports) {
            for (const std::string& name : module.names) {
                const host::image::Export entry{name.c_str(), const_cast<std::string*>(&name)};
                host::image::AddExports(module.name, std::span(&entry, 1));
            }
        }
    }
};

TEST_F(Loader, TakesTheGoodImageAndNamesWhatIsWrongWithOthers)
{
    EXPECT_EQ(Refusal(good.bytes(), false), "none");
    struct Row {
        Edit damage;
        const char* words;
    };
    const Row kRows[] = {
        {Write(Optional(-24), {'X'}), "no PE signature"},
        {Write(Optional(-20), {0x4C, 0x01}), "this host runs"},
        {Write(Optional(0), {0x0B, 0x01}), "not PE32+"},
        {Write(Optional(68), {2, 0}), "subsystem is not native"},
        {Write(Optional(56), {1, 0, 0, 0}), "image size"},
        {Write(Optional(16), {0, 0, 0, 0}), "no executable section"},
        {Write(Header(kText, 36), {0x20, 0, 0, 0xE0}), "writable and executable"},
        {Write(Header(kText, 16), {0xFF, 0xFF, 0xFF, 0x0F}), "beyond the end of the file"},
        {Write(Header(kReadOnlyData, 12), {0, 0x10, 0, 0}), "do not fit"},
        {Write(Directory(9), {1, 0, 0, 0}), "none of this kind"},
        {Write(Optional(-2), {0x23, 0x00}), "relocations are stripped"},
        {Write(Table(5), {0xFF, 0xFF, 0xFF, 0x7F}), "outside the image"},
        {Write(Table(5, 8), {0x00, 0x30}), "type 3"},
        {Write(Followed(Table(1, 12)), {'q'}), " functions that this host does not play: q"},
        {Write(Followed(Followed(Table(1)), 2), {'q'}), "needs a function that this host does not play: q"},
        {Write(Followed(Table(1), 7), {0x80}), "by ordinal"},
    };
    for (const Row& row : kRows) {
        Bytes bytes = good.bytes();
        row.damage(bytes, good);
        EXPECT_TRUE(Has(Refusal(bytes, true), row.words));
    }
    Bytes changed = good.bytes();
    changed[changed.size() / 2] ^= 1;
    EXPECT_TRUE(Has(Refusal(changed, false), "checksum"));
}

// As the system's loader: only the default value asks for another one, so that each load has a cookie of its own.
TEST_F(Loader, ReplacesTheDefaultCookie)
{
    constexpr std::uint64_t kDefaultCookie = 0x00002B992DDFA232;
    const std::uint64_t cookieAddress = good.CookieAddress();
    ASSERT_EQ(good.AtAddress<std::uint64_t>(cookieAddress), kDefaultCookie);
    host::Environment environment({});
    RegisterExports();
    std::set<std::uint64_t> cookies = {0, kDefaultCookie};
    std::vector<std::unique_ptr<host::image::LoadedImage>> images;
    for (unsigned count = 0; count < 3; ++count) {
        images.push_back(host::image::LoadedImage::Load(environment, PathOf(kMachine)));
        std::uint64_t cookie = 0;
        memcpy(&cookie, static_cast<const char*>(images.back()->base()) + cookieAddress, sizeof(cookie));
        EXPECT_TRUE(cookies.insert(cookie).second) << cookie;
        EXPECT_EQ(cookie >> 48, 0u) << "the system's cookies leave the upper 16 bits clear";
    }
}

// What an unloaded image leaves behind is its code alone, and the next load is that of the file as it is now.
TEST_F(Loader, KeepsCodeForTheNextLoadOfTheSameFile)
{
    host::Environment environment({.keepsCode = true});
    RegisterExports();
    const TemporaryFolder folder;
    Bytes bytes = good.bytes();
    const auto file = folder.Write("kept.sys", {bytes.begin(), bytes.end()});
    const auto load = [&] { return host::image::LoadedImage::Load(environment, file); };
    const auto memory = [](const host::image::LoadedImage& image) {
        const auto* base = static_cast<const std::uint8_t*>(image.base());
        return Bytes(base, base + image.sizeBytes());
    };
    const auto isReadable = [](const std::uint8_t* address) {
        std::uint8_t byte = 0;
        const iovec here{&byte, 1};
        const iovec there{const_cast<std::uint8_t*>(address), 1};
        return process_vm_readv(getpid(), &here, 1, &there, 1, 0) == 1;
    };

    auto image = load();
    const Bytes first = memory(*image);
    auto* const base = static_cast<std::uint8_t*>(const_cast<void*>(image->base()));
    std::uint8_t* const data = base + good.CookieAddress();
    *data ^= 1;
    image->SealAfterEntry();
    image.reset();
    EXPECT_FALSE(isReadable(base) || isReadable(data));

    image = load();
    EXPECT_EQ(image->base(), base);
    EXPECT_EQ(memory(*image), first);
    EXPECT_NE(load()->base(), base) << "two at once";
    image.reset();

    const image_check::Section& text = good.sections()[kText];
    bytes[text.rawOffset] ^= 1;
    MendChecksum(bytes);
    (void)folder.Write("kept.sys", {bytes.begin(), bytes.end()});
    std::filesystem::last_write_time(file, std::filesystem::last_write_time(file) + std::chrono::hours(1));
    image = load();
    EXPECT_EQ(memory(*image)[text.address], bytes[text.rawOffset]);
}

// A debugger opens the library by the name under which it was loaded.
TEST_F(Loader, LoadsTheNativeDriverUnderANameThatOtherProcessesCanOpen)
{
    host::Environment environment({});
    const auto image = host::image::LoadedImage::Load(environment, ZEPN_NATIVE_DRIVER);
    Dl_info library{};
    ASSERT_NE(dladdr(image->entry(), &library), 0);
    EXPECT_EQ(Shell("head -c 4 '" + std::string(library.dli_fname) + "' | grep -q ELF").status, 0) << library.dli_fname;
}

TEST_F(Loader, RefusesImagesOfOtherMachinesAndOtherFiles)
{
    host::Environment environment({});
    EXPECT_THROW((void)host::image::LoadedImage::Load(environment, PathOf(kOtherMachine)), host::HostError);
    EXPECT_THROW((void)host::image::LoadedImage::Load(environment, PathOf(kMachine).replace_extension(".map")),
                 host::HostError);
    EXPECT_THROW((void)host::image::LoadedImage::Load(environment, "/nonexistent"), host::HostError);
}

}  // namespace
}  // namespace tests
