// The page about the platform is the one that the host's tables and headers make now, and who uses what is not on it is
// sent there.
#include "tests/docs/text_files.h"
#include "tools/platform_page/page.h"

#include <unistd.h>

#include <cstdlib>

namespace tests {
namespace {

TEST(PlatformPage, IsCurrent)
{
    EXPECT_EQ(TextOf(kRoot / "docs/platform.md"), platform_page::Page(kRoot / "platform/include"))
        << "./zepn build, then copy out/pages/platform.md to docs/";
}

TEST(PlatformPage, IsNamedByTheCompiler)
{
    const std::filesystem::path folder =
        std::filesystem::temp_directory_path() / ("absent-" + std::to_string(getpid()));
    std::filesystem::create_directories(folder);
    for (const std::string language : {"c", "cpp"}) {
        const std::string file = (folder / ("fan." + language)).string();
        std::ofstream(file) << "#include <wdf.h>\n"
                               "void Use(WDFDEVICE device, PVOID memory);\n"
                               "void Use(WDFDEVICE device, PVOID memory)\n"
                               "{\n"
                               "    (void)WdfDmaEnablerCreate(device, memory);\n"
                               "    (void)IoAllocateMdl(memory);\n"
                               "}\n";
        const std::string command = "clang++-19 -fsyntax-only -fsigned-char -fshort-wchar -DKMDF_VERSION_MAJOR=1 "
                                    "-DKMDF_VERSION_MINOR=15 -isystem '" +
                                    (kRoot / "platform/include").string() + "' -x " + (language == "c" ? "c" : "c++") +
                                    " '" + file + "' > '" + file + ".log' 2>&1";
        EXPECT_NE(std::system(command.c_str()), 0);
        const std::string log = TextOf(file + ".log");
        for (const char* name : {"WdfDmaEnablerCreate", "IoAllocateMdl"}) {
            EXPECT_NE(log.find("error: '" + std::string(name) + "' is unavailable: the host does not play it; " +
                               "docs/platform.md lists what it plays"),
                      std::string::npos)
                << log;
        }
        EXPECT_NE(log.find("2 errors generated"), std::string::npos) << log;
    }
    std::filesystem::remove_all(folder);
}

}  // namespace
}  // namespace tests
