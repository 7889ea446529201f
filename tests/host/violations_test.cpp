// Every check of the host fires: a driver breaks one rule in a function of its own, and the report names the rule, the
// platform function, and the place in the driver.
#include "host/checks/crash.h"
#include "tests/host/faulty_driver_fixture.h"

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <regex>
#include <set>
#include <string_view>

namespace tests {
namespace {

using host::checks::CrashContext;

struct Breach {
    const char* name;
    Rule rule;
    const char* function;
    const char* message;  // part of it
    bool parks = false;
    bool guardPages = true;
    const char* thread = "peer";
    std::size_t count = 1;
    const char* scenario = nullptr;  // the function to call, when it is another
    const char* origin = nullptr;    // part of what is said of an earlier call
};

constexpr const char* kWorker = "system worker";

// Each name is that of the function that makes the wrong call.

constexpr Breach kBreaches[] = {
    {"NullHandle", Rule::kNullHandle, "WdfObjectDelete", "Object is a null handle"},
    {"WrongType", Rule::kWrongHandleType, "WdfCollectionGetCount", "is wait lock #1, not a collection"},
    {"DeadHandle", Rule::kDeadHandle, "WdfObjectReferenceActual", "was a general object (FAULTY_CONTEXT) that is gone"},
    {"ForeignHandle", Rule::kForeignHandle, "WdfObjectDelete", "was never handed out"},
    {"RequiredParameter", Rule::kRequiredParameter, "WdfObjectCreate", "Object is null"},
    {"BadParameter", Rule::kBadParameter, "ExAllocatePoolWithTag", "the pool tag is 0"},
    {"PoolOfNothing", Rule::kBadParameter, "ExAllocatePoolWithTag", "a block of 0 bytes"},
    {"DeleteNotAllowed", Rule::kDeleteNotAllowed, "WdfObjectDelete", "device #1"},
    {"ReferenceUnderflow", Rule::kReferenceUnderflow, "WdfObjectDereferenceActual", "loses its last reference"},
    {"StolenReference", Rule::kReferenceUnderflow, "WdfObjectDereferenceActual",
     "that its creation or a collection holds"},
    {"CollectionIndex", Rule::kCollectionItem, "WdfCollectionRemoveItem", "index 0 of collection #1 with 0 items"},
    {"CollectionStranger", Rule::kCollectionItem, "WdfCollectionRemove", "is not in collection #1"},
    {"LockNotOwned", Rule::kLockNotOwned, "WdfWaitLockRelease", "nobody holds it"},
    {"ReleasesForAnother", Rule::kLockNotOwned, "WdfWaitLockRelease", "is held by peer and released by system worker",
     false, true, kWorker, 1, "StrangersRelease",
     "\n  acquired by faulty.so!StrangersRelease \\(scenarios.cpp:[0-9]+\\)"},
    {"OrderInversion", Rule::kLockOrder, "WdfWaitLockAcquire",
     "wait lock #1 is taken while wait lock #3 is held; elsewhere they are taken the other way round", false, true,
     "peer", 1, nullptr,
     "\n  acquired by faulty.so!OrderInversion \\(scenarios.cpp:[0-9]+\\)"
     "\n  taken the other way round by faulty.so!OrderInversion \\(scenarios.cpp:[0-9]+\\)"},
    {"KeepsLock", Rule::kLockKept, "EvtWorkItem", "it returned holding wait lock #1", false, true, kWorker, 1,
     "LockKept",
     "^lock kept: EvtWorkItem faulty.so!KeepsLock.*\n.*\n  acquired by faulty.so!KeepsLock \\(scenarios.cpp:[0-9]+\\)"},
    {"AboveItsLevel", Rule::kIrql, "WdfDeviceSetDeviceInterfaceState", "called at IRQL 2, allowed up to 0"},
    {"SelfWait", Rule::kSelfWait, "WdfWaitLockAcquire", "peer waits for wait lock #1, which it holds itself", true},
    {"WaitsForItsDeleter", Rule::kDeadlock, "WdfWaitLockAcquire",
     "waits for wait lock #1, held by peer: nobody can ever end this wait", true, true, kWorker, 2, "Deadlock"},
    {"EnqueuesItself", Rule::kWorkItemGone, "WdfWorkItemEnqueue", "is being deleted; the enqueue is dropped", false,
     true, kWorker, 1, "WorkItemGone"},
    {"PoolWrongTag", Rule::kPoolWrongTag, "ExFreePoolWithTag", "\"Flty\" is freed with tag"},
    {"PoolDoubleFree", Rule::kPoolBadFree, "ExFreePoolWithTag", "no pool block", false, true, "peer", 1, nullptr,
     kSanitized ? nullptr : "\n  freed before by faulty.so!PoolDoubleFree \\(scenarios.cpp:[0-9]+\\)"},
    {"PoolOverrun", Rule::kPoolCorrupted, "ExFreePoolWithTag", "1 bytes after its 40 were overwritten", false, false},
    {"TraceHandle", Rule::kTraceHandle, "EtwWrite", "not registered"},
    {"TraceNull", Rule::kTraceArguments, "EtwRegister", "a required pointer is null"},
    {"CallbackStranger", Rule::kCallbackObject, "ExRegisterCallback", "no such callback object"},
    {"TraceHandleTwice", Rule::kTraceHandle, "EtwUnregister", "given back before"},
    {"NotProvided", Rule::kNotProvided, "WdfObjectQuery (entry 209)", "does not have it", true},
    {"BugCheck", Rule::kBugCheck, "KeBugCheckEx", "bugcheck 0xE2 (0x1, 0x2, 0x3, 0x4)", true},
    {"FastFail", Rule::kBugCheck, "fast fail", "bugcheck 0x139 (0x7)", true},
    {"KernelReference", Rule::kReferenceUnderflow, "ObfDereferenceObject", "more often than it was opened"},
};

TEST(Breaches, AreReportedWithPlaceAndSubject)
{
    for (const Breach& breach : kBreaches) {
        if (kSanitized && (!breach.guardPages || breach.name == std::string("FastFail"))) {
            continue;  // the sanitizer itself reports it
        }
        SCOPED_TRACE(breach.name);
        FaultyDriverFixture fixture({.guardPages = breach.guardPages});
        const host::Outcome outcome = fixture.machine.OnThread("peer", [&] {
            const host::ScopedIrql level(breach.rule == Rule::kIrql ? DISPATCH_LEVEL : PASSIVE_LEVEL);
            fixture.Call(breach.scenario != nullptr ? breach.scenario : breach.name);
        });
        EXPECT_TRUE(fixture.machine.RunWorkItems().parked.empty());

        const Violation violation = fixture.TakeFaulty(breach.rule, breach.name, breach.count);
        EXPECT_EQ(violation.function, breach.function);
        EXPECT_EQ(violation.thread, breach.thread);
        EXPECT_TRUE(Has(violation.message, breach.message));
        if (breach.origin != nullptr) {
            EXPECT_TRUE(std::regex_search(violation.FullText(), std::regex(breach.origin))) << violation.FullText();
        }
        EXPECT_EQ(outcome.parked, breach.parks) << outcome.reason;
        if (breach.rule == Rule::kDeadlock) {
            fixture.Abandon();  // its device waits for the work item
        }
    }
}

struct Leftover {
    const char* name;
    Rule rule;
    const char* message;
    const char* origin;  // what is said of the call that made it, below the text
};

constexpr Leftover kLeftovers[] = {
    {"LeavesPool", Rule::kLeak, "40 bytes of pool with tag \"Flty\"", "allocated"},
    {"LeavesRegistration", Rule::kUnloadRegistration, "\\callback\\powerstate", "registered"},
    {"LeavesReference", Rule::kReferenceLeak, "general object #1 (FAULTY_CONTEXT) was deleted, but keeps 1 reference",
     "referenced"},
    {"LeavesTracing", Rule::kUnloadRegistration, "event provider is still registered", "registered"},
};

TEST(Leftovers, AreReportedAtUnload)
{
    for (const Leftover& leftover : kLeftovers) {
        SCOPED_TRACE(leftover.name);
        FaultyDriverFixture fixture;
        fixture.OnThread("peer", [&] { fixture.Call(leftover.name); });
        ASSERT_EQ(fixture.TakeRules(), std::vector<Rule>{}) << fixture.Text();

        fixture.TakeDown();
        const Violation violation = fixture.TakeFaulty(leftover.rule, leftover.name);
        EXPECT_TRUE(Has(violation.message, leftover.message));
        const std::string expected = std::string(" at unload: .*\n  ") + leftover.origin + " by .*faulty.so!" +
                                     leftover.name + " \\(scenarios.cpp:[0-9]+\\)";
        EXPECT_TRUE(std::regex_search(violation.FullText(), std::regex(expected))) << violation.FullText();
    }
}

struct Fault {
    const char* name;
    const char* message;
    const char* below = "";  // what follows the path
};

constexpr Fault kFaults[] = {
    {"TouchesHandle", "touching 0x"},
    {"TouchesFreedContext", "touching 0x",
     "\n  in a block of 40 bytes that was freed by faulty.so!TouchesFreedContext \\(scenarios.cpp:[0-9]+\\)"},
    {"TouchesPastPool", "touching 0x"},
    {"Trap", "instruction"},
};

TEST(MemoryFaults, EndTheProcessAndNameThePlace)
{
    if (kSanitized) {
        GTEST_SKIP() << "the sanitizer itself reports the access";
    }
    for (const Fault& fault : kFaults) {
        EXPECT_EXIT(
            {
                FaultyDriverFixture fixture;
                fixture.machine.OnThread("peer", [&] { fixture.Call(fault.name); });
            },
            testing::ExitedWithCode(4),
            std::string("memory fault at faulty.so!") + fault.name + ".*" + fault.message + ".*peer.*by faulty.so!" +
                fault.name + " \\(scenarios.cpp:[0-9]+\\)" + fault.below);
    }
    if (!HasFailure()) {
        NoteFaulty(Rule::kMemoryFault);
    }
}

// It reports the access itself, and reads names and lines from the driver that was loaded.
TEST(MemoryFaults, ASanitizersReportNamesTheDriversLine)
{
    if (!kSanitized) {
        GTEST_SKIP() << "only under address sanitizer";
    }
    EXPECT_DEATH(
        {
            FaultyDriverFixture fixture;
            fixture.Call("TouchesFreedContext");
        },
        "#0 0x[0-9a-f]+ in .*TouchesFreedContext.*scenarios\\.cpp:[0-9]+");
}

// A recursion without an end that the compiler can see.
int Deep(int depth)
{
    volatile char page[4096] = {static_cast<char>(depth)};
    return depth < 0 ? 0 : Deep(depth + 1) + page[0];
}

TEST(MemoryFaults, PrintCrashContexts)
{
    if (kSanitized) {
        GTEST_SKIP() << "the sanitizer decides how the process ends";
    }
    const auto end = [](const std::function<void()>& work) {
        FaultyDriverFixture fixture;
        const CrashContext outer([] { return "outer"; });
        const CrashContext faulty([] {
            TouchNothing();
            return "never";
        });
        {
            const CrashContext over([] { return "over"; });
        }
        const CrashContext inner([] { return "inner"; });
        fixture.machine.OnThread("peer", work);
    };
    const char* printed = "inner\nanother fault while the first is reported\nouter\n$";
    EXPECT_EXIT(end(&TouchNothing), testing::ExitedWithCode(4), printed);
    EXPECT_EXIT(end([] { (void)Deep(0); }), testing::ExitedWithCode(4), printed);  // no stack left
    EXPECT_EXIT(
        {
            FaultyDriverFixture fixture;
            const CrashContext context([] { return "aborted"; });
            std::abort();
        },
        testing::KilledBySignal(SIGABRT), "aborted\n");
}

// The list that every_rule_has_a_faulty_driver holds against what was caught.
TEST(Rules, HaveNamesOfTheirOwn)
{
    std::set<std::string_view> names;
    std::ofstream list(ZEPN_RULES);
    for (int rule = 0; rule < host::checks::kRuleCount; ++rule) {
        const std::string_view name = Name(static_cast<Rule>(rule));
        EXPECT_TRUE(names.insert(name).second) << name;
        list << name << "\n";
    }
}

}  // namespace
}  // namespace tests
