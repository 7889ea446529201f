// A frame that was overwritten stops the system before the function returns through it. The images' protection; the
// native driver has its compiler's own.
#include "tests/kit/driver_fixture.h"

namespace tests {
namespace {

class StackProtector : public OnDriver {};
INSTANTIATE_TEST_SUITE_P(On, StackProtector, testing::Values(Containers().back()), testing::PrintToStringParamName());

// The cookie of a loaded image, by its load configuration.
ULONG_PTR* CookieOf(const host::Driver& driver)
{
    const auto* base = static_cast<const char*>(driver.ImageBase());
    const auto read = [&]<class T>(std::uint64_t address, T) {
        T value;
        memcpy(&value, base + address, sizeof(value));
        return value;
    };
    const std::uint64_t optionalHeader = read(60, ULONG{}) + 24;
    const ULONG loadConfiguration = read(optionalHeader + 112 + 8 * 10, ULONG{});
    return reinterpret_cast<ULONG_PTR*>(read(loadConfiguration + 88, ULONG_PTR{}));
}

TEST_P(StackProtector, StopsAFunctionWhoseFrameWasOverwritten)
{
#if defined(ZEPN_SANITIZED)
    GTEST_SKIP() << "the sanitizer itself ends the process";
#endif
    Peer& subscriber = Join(1);
    Peer& target = Join(2);
    // To the function that calls back, another cookie is the same as another frame.
    subscriber.onState = [&](const ZepState&, ULONG&) { *CookieOf(*driver) ^= 1; };
    const host::Outcome outcome =
        machine.OnThread("subscriber", [&] { (void)Subscribe(subscriber, target, ZEP_STATE_ANY); });
    EXPECT_TRUE(outcome.parked);
    const auto violations = machine.violations().Take(host::checks::Rule::kBugCheck);
    ASSERT_EQ(violations.size(), 1u);
    EXPECT_EQ(violations[0].message, "bugcheck 0x139 (0x2): the end of a stack frame was overwritten");
    EXPECT_TRUE(violations[0].caller.starts_with("zepn.sys!Notifier_HelperRegisterForStateNotification+"))
        << violations[0].caller;
    Abandon();
}

}  // namespace
}  // namespace tests
