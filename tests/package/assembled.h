// The package as assemble.sh puts it together, in a folder that goes with the test.
#pragma once

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace tests {

namespace fs = std::filesystem;

inline std::string ReadAll(const fs::path& file)
{
    std::ifstream stream(file, std::ios::binary);
    EXPECT_TRUE(stream) << file;
    std::ostringstream text;
    text << stream.rdbuf();
    return text.str();
}

inline std::string Trimmed(std::string text)
{
    text.erase(0, text.find_first_not_of(" \t\r\n"));
    text.erase(text.find_last_not_of(" \t\r\n") + 1);
    return text;
}

class AssembledPackage : public testing::Test {
protected:
    void SetUp() override
    {
        fs::remove_all(folder_);
        ASSERT_EQ(
            std::system(
                ("'" + root_ + "/driver/package/assemble.sh' '" + root_ + "' '" + folder_.string() + "'").c_str()),
            0);
    }
    void TearDown() override { fs::remove_all(folder_); }

    const std::string root_ = ZEPN_ROOT;
    const fs::path folder_ = fs::temp_directory_path() / ("zepn-package-test-" + std::to_string(getpid()));
    const std::string version_ = Trimmed(ReadAll(root_ + "/VERSION"));
};

}  // namespace tests
