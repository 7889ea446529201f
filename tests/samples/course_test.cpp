// The course for client drivers: the samples pass it, and a client's mistakes are found.
#include "tests/faulty_drivers/faulty_client.h"
#include "tests/kit/driver_fixture.h"
#include "tools/test_client/possible_faults.h"
#include "tools/test_client/report.h"

#include <algorithm>
#include <set>
#include <sstream>
#include <string_view>

namespace {

using test_client::CourseSetup;
using test_client::Report;

CourseSetup SetupOf(const std::filesystem::path& notifier, const std::filesystem::path& client, const char* parameter,
                    const std::string& value)
{
    return {.notifier = notifier,
            .client = client,
            .parameters = {{parameter, value}},
            .states = {1, 2, 3},
            .commands = {1, 2}};
}

std::string Printed(const CourseSetup& setup, const Report& report)
{
    std::ostringstream text;
    Print(text, setup, report, false);
    return text.str();
}

std::size_t FaultCount(const Report& report)
{
    return static_cast<std::size_t>(std::ranges::count(report.results, "faults", &test_client::Result::group));
}

class Course : public tests::OnContainer {};
FOR_ALL_CONTAINERS(Course);

TEST_P(Course, SamplesPass)
{
    CourseSetup client =
        SetupOf(GetParam().image, tests::SampleImage(GetParam().image, "zepn_client"), "Supervises", "1");
    Report report = RunCourse(client, {});
    EXPECT_EQ(FailedCount(report), 0u) << Printed(client, report);
    EXPECT_GT(FaultCount(report), 40u);
    EXPECT_EQ(report.seen.clients.size(), 1u);
    EXPECT_EQ(report.seen.targets.size(), 1u);

    CourseSetup crashDump{.notifier = GetParam().image,
                          .client = tests::SampleImage(GetParam().image, "zepn_crashdump"),
                          .parameters = {},
                          .states = {1},
                          .commands = {1}};
    report = RunCourse(crashDump, {});
    EXPECT_EQ(FailedCount(report), 0u) << Printed(crashDump, report);
    EXPECT_GT(FaultCount(report), 15u);
    EXPECT_TRUE(report.seen.attaches);
}

// A platform function that the host plays since, and whose failure nobody thought of, is missing here.
TEST(PossibleFaults, AreKnownOfEveryFunctionThatReturnsAStatusOrAPointer)
{
    const host::Machine machine;
    std::set<std::string_view> known;
    for (const auto& functions : {test_client::FunctionsThatCanFail(), test_client::FunctionsThatCannotFail()}) {
        for (const std::string_view function : functions) {
            known.insert(function);
        }
    }
    std::set<std::string_view> returning;
    const std::vector<std::string> functions = machine.FunctionsWithResult();
    for (const std::string& function : functions) {
        // The C library's returns are no statuses.
        if (function[0] >= 'A' && function[0] <= 'Z') {
            returning.insert(function);
        }
    }
    EXPECT_EQ(known, returning);
    for (const std::string_view function : test_client::FunctionsThatCannotFail()) {
        EXPECT_TRUE(test_client::FaultsOf(function, "timeout").empty()) << function;
    }
    EXPECT_TRUE(test_client::FaultsOf("WdfWaitLockAcquire", "").empty());
}

// Each is found, and the finding names it. What shows only in a fault's run is found there.
TEST(CourseOfAFaultyClient, FindsEachMistake)
{
    struct Row {
        Mistake mistake;
        const char* result;              // in the name of the first result with findings
        std::vector<const char*> parts;  // of what is printed of it
    };
    const Row rows[] = {
        {Mistake::kPostsInCallback,
         "takes states and commands",
         {"A client that it watches posts", "self-wait", "faulty_client.so!OnState"}},
        {Mistake::kNeverDeregisters,
         "starts before the Notifier",
         {"its driver unloaded", "would call unmapped code", "registered by faulty_client.so!",
          "!Connect (faulty_client.cpp:"}},
        {Mistake::kUsesFreedMemory,
         "takes states and commands",
         {"It is sent command 1", "ReadFreedBlock", "that was freed by ", "!OnCommand (faulty_client.cpp:"}},
        {Mistake::kLeaks,
         "takes states and commands",
         {"its driver unloaded", "leak at unload: ", "allocated by ", "!OnCommand (faulty_client.cpp:"}},
        {Mistake::kCallsAtDispatchLevel,
         "starts before the Notifier",
         {"IRQL: WdfWaitLockAcquire", "faulty_client.so!Connect"}},
        {Mistake::kPostsInTimer,
         "takes states and commands",
         {"Time passes", "IRQL: WdfWaitLockAcquire", "faulty_client.so!OnTimer"}},
        {Mistake::kLeavesTimerRunning, "and is unloaded last", {"Time passes", "ReadFreedBlock"}},
        {Mistake::kCreatesWithoutEnd,
         "takes them again and again",
         {"Its peers do the same", "it holds more after every round: ", " x general object after the first", "made by ",
          "!CreateForCommand (faulty_client.cpp:"}},
        {Mistake::kCallsAfterClosing,
         "starts before the Notifier",
         {"its driver unloaded", "dead handle: Notifier_HelperSendState", "has closed the Notifier's device",
          "!Post (faulty_client.cpp:"}},
        {Mistake::kWorksAfterLeaving,
         "is removed while work is queued",
         {"It is sent states, and removed", "dead handle: Notifier_HelperSendState", "!OnWork (faulty_client.cpp:"}},
        {Mistake::kTrustsAllocation, "ExAllocatePoolWithTag (non-paged), call 1, by ", {"FillNewBlock"}},
        {Mistake::kForgetsFailedStart,
         "Notifier_HelperRegisterForStateNotification, call 1: ",
         {"is still registered"}},
    };
    for (const Row& row : rows) {
        const std::string number = std::to_string(static_cast<unsigned>(row.mistake));
        SCOPED_TRACE("mistake " + number);
        const CourseSetup setup = SetupOf(ZEPN_NATIVE_DRIVER, ZEPN_FAULTY_CLIENT, "Mistake", number);
        const Report report = RunCourse(setup, {});
        const std::string text = Printed(setup, report);
        const auto first =
            std::ranges::find_if(report.results, [](const auto& each) { return !each.findings.empty(); });
        ASSERT_NE(first, report.results.end()) << text;
        EXPECT_NE(first->name.find(row.result), std::string::npos) << text;
        const std::size_t begin = text.find("The first finding: " + first->name);
        const std::string part = text.substr(begin, text.find("\n\n", begin) - begin);
#if defined(ZEPN_SANITIZED)
        continue;  // the words for a memory fault are the sanitizer's
#endif
        for (const char* expected : row.parts) {
            EXPECT_NE(part.find(expected), std::string::npos) << expected << " is missing in\n" << text;
        }
        std::ostringstream junit;
        WriteJUnit(junit, setup, report);
        EXPECT_NE(junit.str().find("<failure message="), std::string::npos);
    }
    const CourseSetup good = SetupOf(ZEPN_NATIVE_DRIVER, ZEPN_FAULTY_CLIENT, "Mistake", "0");
    const Report report = RunCourse(good, {});
    EXPECT_EQ(FailedCount(report), 0u) << Printed(good, report);
    EXPECT_THROW((void)RunCourse(SetupOf(ZEPN_NATIVE_DRIVER, ZEPN_FAULTY_CLIENT, "Mistaek", "0"), {}), host::HostError);
}

}  // namespace
