// An image as a kit links it loads and runs: its bind record, what it imports for class extensions, and the C library of
// the kernel. One that needs more than there is says so, or stops at the call.
#include "host/machine.h"
#include "tests/image/damage.h"
#include "tests/kit/death.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>

namespace tests {
namespace {

#if defined(__x86_64__)
constexpr const char* kMachine = "x64";
#else
constexpr const char* kMachine = "arm64";
#endif

std::filesystem::path WdkImage()
{
    return std::filesystem::path(ZEPN_ROOT) / "out" / kMachine / "wdk_linked.sys";
}

TEST(WdkImage, BindsAndUsesTheKernel)
{
    host::Machine machine;
    host::Driver& driver = machine.Boot(WdkImage(), "fan");
    EXPECT_EQ(machine.DebugOutput(),
              (std::vector<std::string>{"bound: 458 functions, higher 0\n", "Fan 0 0 0 8 -10\n"}));
    driver.SurpriseRemoveDevice();
    EXPECT_FALSE(driver.RemoveDevice().parked);
    EXPECT_EQ(machine.violations().Count(), 0u);
    EXPECT_FALSE(driver.Unload().parked);
    const auto violations = machine.violations().Take();
    ASSERT_EQ(violations.size(), 1u);
    EXPECT_EQ(violations[0].rule, host::checks::Rule::kIrql);
    EXPECT_NE(violations[0].Text().find("wdk_linked.sys!Paged"), std::string::npos) << violations[0].Text();
    EXPECT_NE(violations[0].message.find("from code that may be paged out"), std::string::npos);
}

TEST(WdkImage, OfALaterFrameworkIsRefused)
{
    host::Machine machine({.frameworkMinor = 31});
    EXPECT_EQ(machine.Load(WdkImage(), "fan").EntryStatus(), STATUS_OBJECT_TYPE_MISMATCH);
}

// An image whose first imports have other names.
class MissingImports : public testing::Test {
protected:
    MissingImports()
    {
        Bytes bytes = PeReader::FromFile(WdkImage()).bytes();
        for (const std::string name : {"KeSetEvent", "WdfVersionBindClass"}) {
            const auto at = std::search(bytes.begin(), bytes.end(), name.begin(), name.end() + 1);  // with its end
            EXPECT_NE(at, bytes.end()) << name;
            *at = 'X';
        }
        MendChecksum(bytes);
        std::ofstream(file, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    }
    ~MissingImports() override { std::filesystem::remove(file); }

    const std::filesystem::path file =
        std::filesystem::temp_directory_path() / ("missing-" + std::to_string(getpid()) + ".sys");
};

TEST_F(MissingImports, AreNamedInOneMessage)
{
    host::Machine machine;
    try {
        machine.Load(file, "fan");
        FAIL();
    } catch (const host::HostError& error) {
        const std::string text = error.what();
        EXPECT_NE(text.find(".sys needs 2 functions that this host does not play: "), std::string::npos) << text;
        EXPECT_NE(text.find("XeSetEvent"), std::string::npos) << text;
        EXPECT_NE(text.find("XdfVersionBindClass"), std::string::npos) << text;
    }
}

TEST(NativeDriver, MissingImportsAreNamedInOneMessage)
{
    {
        host::Machine machine;
        try {
            machine.Load(ZEPN_NEEDS_MORE, "fan");
            FAIL();
        } catch (const host::HostError& error) {
            EXPECT_EQ(std::string(error.what())
                          .find("needs_more.so needs 2 functions that this host does not play: "
                                "NobodyHasThis, NorThis"),
                      0u)
                << error.what();
        }
    }
    host::Machine machine({.allowMissing = true});
    EXPECT_EQ(machine.Load(ZEPN_NEEDS_MORE, "fan").EntryStatus(), STATUS_SUCCESS);  // it calls neither
}

TEST_F(MissingImports, StopTheRunAtTheirCallWhenAllowed)
{
    host::Machine machine({.allowMissing = true});
    host::Driver& driver = machine.Load(file, "fan");
    ASSERT_EQ(driver.EntryStatus(), STATUS_SUCCESS);  // it is never called there
    const host::Outcome outcome = machine.OnThread("system", [&] { (void)driver.AddDevice(); });
    EXPECT_EQ(outcome.reason, "called XeSetEvent, which this host does not have");
    const auto violations = machine.violations().Take();
    ASSERT_EQ(violations.size(), 1u);
    EXPECT_EQ(violations[0].rule, host::checks::Rule::kNotProvided);
    EXPECT_EQ(violations[0].function, "XeSetEvent");
    EXPECT_NE(violations[0].caller.find(".sys"), std::string::npos) << violations[0].caller;
}

}  // namespace
}  // namespace tests
