// An image as a kit links it loads and runs: its bind record, what it imports for class extensions, and the C library
// of the kernel. One that needs more than there is says so, or stops at the call.
#include "host/machine.h"
#include "tests/kit/settings.h"
#include "tests/kit/texts.h"

namespace tests {
namespace {

std::filesystem::path ImageOf(const std::string& name)
{
    return std::filesystem::path(ZEPN_ROOT) / "out" / kMachine / (name + ".sys");
}

TEST(WdkImage, BindsAndUsesTheKernel)
{
    host::Machine machine;
    host::Driver& driver = machine.Boot(ImageOf("wdk_linked"), "fan");
    EXPECT_EQ(machine.DebugOutput(),
              (std::vector<std::string>{"bound: 458 functions, higher 0\n", "Fan 0 0 0 8 -10\n"}));
    driver.SurpriseRemoveDevice();
    EXPECT_FALSE(driver.RemoveDevice().parked);
    EXPECT_EQ(machine.violations().Count(), 0u);
    EXPECT_FALSE(driver.Unload().parked);
    const auto violations = machine.violations().Take();
    ASSERT_EQ(violations.size(), 1u);
    EXPECT_EQ(violations[0].rule, host::checks::Rule::kIrql);
    EXPECT_TRUE(Has(violations[0].Text(), "wdk_linked.sys!Paged"));
    EXPECT_TRUE(Has(violations[0].message, "from code that may be paged out"));
}

TEST(WdkImage, OfALaterFrameworkIsRefused)
{
    host::Machine machine({.frameworkMinor = 31});
    const host::Driver& driver = machine.Load(ImageOf("wdk_linked"), "fan");
    EXPECT_EQ(driver.EntryStatus(), STATUS_OBJECT_TYPE_MISMATCH);
    EXPECT_FALSE(driver.IsLoaded());
    EXPECT_EQ(machine.violations().Count(), 0u);
}

// What the machine says when it does not load a driver.
std::string RefusalOf(host::Machine& machine, const std::filesystem::path& driver)
{
    return Thrown([&] { machine.Load(driver, "fan"); });
}

// An import, and two entries of the framework's table.
TEST(NeedsFunctions, AreAllNamedInOneMessageBeforeAnyCodeRuns)
{
    host::Machine machine;
    EXPECT_TRUE(RefusalOf(machine, ImageOf("needs_functions"))
                    .starts_with("needs_functions.sys needs 3 functions that this host does not play: "
                                 "MmAllocateContiguousMemory, WdfDmaEnablerCreate, WdfInterruptCreate; "));
    EXPECT_TRUE(machine.DebugOutput().empty());
}

// They load all the same when that is allowed, and a call stops by the name.
TEST(NeedsFunctions, StopTheRunAtTheirCallWhenAllowed)
{
    for (const std::string missing : {"MmAllocateContiguousMemory", "WdfDmaEnablerCreate (entry 94)"}) {
        host::Machine machine({.allowMissing = true});
        machine.SetRegistryValue("fan", "CallsImport", missing.starts_with("Mm") ? 1 : 0);
        host::Driver& driver = machine.Load(ImageOf("needs_functions"), "fan");
        ASSERT_EQ(driver.EntryStatus(), STATUS_SUCCESS);
        const host::Outcome outcome = machine.OnThread("system", [&] { (void)driver.AddDevice(); });
        EXPECT_EQ(outcome.reason, "called " + missing + ", which this host does not have");
        const auto violations = machine.violations().Take();
        ASSERT_EQ(violations.size(), 1u);
        EXPECT_EQ(violations[0].rule, host::checks::Rule::kNotProvided);
        EXPECT_EQ(violations[0].function, missing);
        EXPECT_EQ(violations[0].caller.find("needs_functions.sys!EvtDeviceAdd"), 0u) << violations[0].caller;
    }
}

TEST(NativeDriver, MissingImportsAreNamedInOneMessage)
{
    {
        host::Machine machine;
        EXPECT_TRUE(
            RefusalOf(machine, ZEPN_NEEDS_MORE)
                .starts_with("needs_more.so needs 2 functions that this host does not play: NobodyHasThis, NorThis"));
    }
    host::Machine machine({.allowMissing = true});
    EXPECT_EQ(machine.Load(ZEPN_NEEDS_MORE, "fan").EntryStatus(), STATUS_SUCCESS);  // it calls neither
}

}  // namespace
}  // namespace tests
