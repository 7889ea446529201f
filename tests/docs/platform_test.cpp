// The page about the platform is the one that the host's tables and headers make now.
#include "tests/docs/text_files.h"
#include "tools/platform_page/page.h"

namespace tests {
namespace {

TEST(PlatformPage, IsCurrent)
{
    EXPECT_EQ(TextOf(kRoot / "docs/platform.md"), platform_page::Page(kRoot / "platform/include"))
        << "./zepn build, then copy out/pages/platform.md to docs/";
}

}  // namespace
}  // namespace tests
