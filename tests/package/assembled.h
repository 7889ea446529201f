// The package as assemble.sh puts it together, in a folder that goes with the test.
#pragma once

#include "tests/kit/texts.h"

#include <algorithm>
#include <cctype>

namespace tests {

namespace fs = std::filesystem;

inline std::string Trimmed(std::string text)
{
    text.erase(0, text.find_first_not_of(" \t\r\n"));
    text.erase(text.find_last_not_of(" \t\r\n") + 1);
    return text;
}

inline std::string UpperCase(std::string text)
{
    std::ranges::transform(text, text.begin(), [](unsigned char letter) { return std::toupper(letter); });
    return text;
}

class AssembledPackage : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(Shell("'" + root_ + "/driver/package/assemble.sh' '" + root_ + "' '" + folder_.string() + "'").status,
                  0);
    }

    const std::string root_ = ZEPN_ROOT;
    const TemporaryFolder around_;
    const fs::path folder_ = around_.path / "package";
    const std::string version_ = Trimmed(ReadAll(root_ + "/VERSION"));
};

}  // namespace tests
