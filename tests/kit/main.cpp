// The tests' main: GoogleTest's, under a watchdog. No case fails because the machine is slow; one that goes on without
// end fails within minutes and says what it was doing.
#include "host/checks/watchdog.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace {

// Children that die on purpose begin anew where that is possible; an emulator cannot start itself again.
#if defined(ZEPN_EMULATED)
constexpr const char* kDeathTestStyle = "fast";
#else
constexpr const char* kDeathTestStyle = "threadsafe";
#endif

// Of processor time, without a case or a crash context that begins; many times what the longest takes.
#if defined(ZEPN_EMULATED) || defined(ZEPN_SANITIZED)
constexpr std::chrono::seconds kLimit = std::chrono::minutes(30);
#else
constexpr std::chrono::seconds kLimit = std::chrono::minutes(10);
#endif

// For drivers that are expected to go on without end.
std::chrono::seconds Limit()
{
    const char* seconds = std::getenv("ZEPN_WATCHDOG_SECONDS");
    return seconds == nullptr ? kLimit : std::chrono::seconds(std::stoul(seconds));
}

class Progress : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo&) override { host::checks::Watchdog::Progress(); }
};

}  // namespace

int main(int argumentCount, char** arguments)
{
    GTEST_FLAG_SET(death_test_style, kDeathTestStyle);
    testing::InitGoogleTest(&argumentCount, arguments);
    testing::UnitTest::GetInstance()->listeners().Append(new Progress);
    const host::checks::Watchdog watchdog(Limit());
    return RUN_ALL_TESTS();
}
