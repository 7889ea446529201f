// From a played scenario to text, and what a damaged capture file gets.
#include "tests/package/assembled.h"

namespace tests {
namespace {

TEST(Capture, IsDecodedByTheFilesAloneAndDamageIsNamed)
{
    const TemporaryFolder folder;
    const auto decode = [&] { return folder.Run("'" ZEPN_DECODE "' capture 2>&1"); };
    ASSERT_EQ(folder.Run("'" ZEPN_PLAY "' --image native --capture capture > log").status, 0);
    const Ran ran = decode();
    EXPECT_EQ(ran.status, 0) << ran.printed;
    EXPECT_TRUE(Has(ran.printed, "event 44 level 4: DriverEntry: built "));
    EXPECT_TRUE(Has(ran.printed, "trace 10 DriverEntryStarted TRACE_LEVEL_INFORMATION DriverEntry: built "));

    const std::string good = ReadAll(folder.path / "capture");
    const auto expect = [&](const std::string& bytes, int status, const std::string& words) {
        folder.Write("capture", bytes);
        EXPECT_EQ(decode().status, status);
        EXPECT_TRUE(Has(decode().printed, words));
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
}

}  // namespace
}  // namespace tests
