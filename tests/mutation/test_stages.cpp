#include "tests/mutation/test_stages.h"

#include "tests/mutation/process.h"

namespace mutation {
namespace {

struct Stage {
    const char* name;
    const char* program;
    const char* cases;
    const char* options = "";
};

constexpr Stage kStages[] = {
    {"behaviour", "behaviour_tests", "*/native"},
    {"model", "model_tests", "*/native"},
    {"fault injection", "fault_injection_tests", "*/native*",
     " --gtest_break_on_failure"},  // one case injects hundreds of faults
    {"concurrency", "concurrency_tests", "*/native"},
};

// Of processor time: many times what the longest case takes between two signs of progress.
constexpr const char* kWatchdogSeconds = "10";
// Of address space: a driver that queues work without end must not take the machine's memory.
constexpr const char* kMemoryKilobytes = "8000000";

}  // namespace

std::string FirstFailure(const std::filesystem::path& buildFolder, const std::filesystem::path& driver)
{
    const std::string log = ShellWord((driver.parent_path() / "tests.log").string());
    for (const Stage& stage : kStages) {
        const std::string line = std::string("ulimit -c 0; ulimit -v ") + kMemoryKilobytes +
                                 "; ZEPN_NATIVE_DRIVER=" + ShellWord(driver.string()) +
                                 " ZEPN_WATCHDOG_SECONDS=" + kWatchdogSeconds + " tests/" + stage.program +
                                 " --gtest_filter=" + ShellWord(stage.cases) + " --gtest_fail_fast" + stage.options +
                                 " > " + log + " 2>&1";
        if (!Run(buildFolder, line)) {
            return stage.name;
        }
    }
    return "";
}

}  // namespace mutation
