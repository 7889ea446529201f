// From a played scenario to text, and what a damaged capture file gets.
#include "tests/package/assembled.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

namespace tests {
namespace {

std::string BytesOf(const fs::path& file)
{
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

// Runs the decoder; gives how it ended, output and errors in text.
int Decode(const fs::path& file, std::string& text)
{
    const fs::path out = file.string() + ".txt";
    const int result = std::system(("'" ZEPN_DECODE "' '" + file.string() + "' > '" + out.string() + "' 2>&1").c_str());
    text = BytesOf(out);
    fs::remove(out);
    return WEXITSTATUS(result);
}

TEST(Capture, IsDecodedByTheFilesAloneAndDamageIsNamed)
{
    const fs::path file = fs::temp_directory_path() / ("zepn-capture-" + std::to_string(getpid()));
    ASSERT_EQ(std::system(("'" ZEPN_PLAY "' --image native --capture '" + file.string() + "' > /dev/null").c_str()), 0);
    std::string text;
    EXPECT_EQ(Decode(file, text), 0) << text;
    EXPECT_NE(text.find("event 44 level 4: DriverEntry: built "), std::string::npos);
    EXPECT_NE(text.find("trace 10 DriverEntryStarted TRACE_LEVEL_INFORMATION DriverEntry: built "), std::string::npos);

    const std::string good = BytesOf(file);
    const auto expect = [&](const std::string& bytes, int status, const std::string& words) {
        std::ofstream(file, std::ios::binary | std::ios::trunc) << bytes;
        EXPECT_EQ(Decode(file, text), status);
        EXPECT_NE(text.find(words), std::string::npos) << text;
    };
    expect("nonsense", 2, "at byte 0: this is no capture file");
    expect(good.substr(0, good.size() - 16), 2, "the file is cut off");
    expect(good.substr(0, 40), 2, "at byte 8: the file is cut off");
    expect(good + "x", 2, "the end record does not fit");
    std::string damaged = good;
    damaged[12] = 9;
    expect(damaged, 2, "at byte 8: unknown kind of record 9");
    damaged = good;
    damaged[24] ^= 1;
    expect(damaged, 1, "(");
    fs::remove(file);
}

}  // namespace
}  // namespace tests
