// The page about the platform is the one that the host's tables and headers make now, and who uses what is not on it is
// sent there.
#include "tests/docs/text_files.h"
#include "tools/platform_page/page.h"

namespace tests {
namespace {

TEST(PlatformPage, IsCurrent)
{
    EXPECT_EQ(ReadAll(kRoot / "docs/platform.md"), platform_page::Page(kRoot / "platform/include"))
        << "./zepn build, then copy out/pages/platform.md to docs/";
}

TEST(PlatformPage, IsNamedByTheCompiler)
{
    const TemporaryFolder folder;
    folder.Write("source", "#include <wdf.h>\n"
                           "void Use(WDFDEVICE device, PVOID memory);\n"
                           "void Use(WDFDEVICE device, PVOID memory)\n"
                           "{\n"
                           "    (void)WdfDmaEnablerCreate(device, memory);\n"
                           "    (void)IoAllocateMdl(memory);\n"
                           "}\n");
    for (const std::string language : {"c", "c++"}) {
        const Ran ran = folder.Run("clang++-19 -fsyntax-only -fsigned-char -fshort-wchar -DKMDF_VERSION_MAJOR=1 "
                                   "-DKMDF_VERSION_MINOR=15 -isystem '" +
                                   (kRoot / "platform/include").string() + "' -x " + language + " source 2>&1");
        EXPECT_NE(ran.status, 0);
        for (const std::string name : {"WdfDmaEnablerCreate", "IoAllocateMdl"}) {
            EXPECT_TRUE(Has(ran.printed, "error: '" + name + "' is unavailable: the host does not play it; " +
                                             "docs/platform.md lists what it plays"));
        }
        EXPECT_TRUE(Has(ran.printed, "2 errors generated"));
    }
}

}  // namespace
}  // namespace tests
