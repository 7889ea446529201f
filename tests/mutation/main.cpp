// zepn-mutants: puts one small fault at a time into the driver's sources and sees whether a test fails.
//
// Ends with 0 when no mutant survived but those that are listed as equivalent, 1 when one did or the list is wrong, 2
// for a wrong call or a build folder that is none.
#include "tests/mutation/native_driver.h"
#include "tools/command_line/command_line.h"

#include <algorithm>
#include <chrono>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <thread>

namespace {

using namespace mutation;

constexpr int kSurvivors = 1;
constexpr const char* kList = "tests/mutation/equivalent.txt";

// Whether a mutant is at a place: FILE, FILE:LINE, the list of equivalent mutants, or empty for anywhere.
bool IsAt(const std::string& place, const Mutant& mutant, const Equivalents& equivalents)
{
    return place.empty() || place == mutant.file || place == mutant.file + ":" + std::to_string(mutant.line) ||
           (place == kList && !equivalents.ReasonFor(mutant).empty());
}

int RunMutants(Plan plan, const std::string& place)
{
    const std::filesystem::path root = ZEPN_ROOT;
    std::ifstream list(root / kList);
    if (!list) {
        throw std::runtime_error(std::string(kList) + " cannot be read");
    }
    const Equivalents equivalents(list);
    const NativeDriver driver(root, ZEPN_BUILD);
    const std::vector<Mutant> all = driver.Mutants();
    std::vector<Mutant> mutants;
    std::ranges::copy_if(all, std::back_inserter(mutants),
                         [&](const Mutant& mutant) { return IsAt(place, mutant, equivalents); });
    if (mutants.empty()) {
        throw std::runtime_error("no source of the driver has mutants at " + place);
    }
    driver.TestUnchanged();

    std::filesystem::create_directories(root / "build/logs");
    std::ofstream log(root / "build/logs/mutants.log");
    std::size_t counted = 0;
    const OnResult onResult = [&](const Result& result) {
        log << LineOf(result) << std::flush;
        counted += Counts(result) ? 1 : 0;
        if (result.verdict.status == MutantStatus::kSurvived || (Counts(result) && counted % 20 == 0)) {
            std::cerr << counted << ": " << LineOf(result);
        }
    };
    const Judge judge = [&](const Mutant& mutant, unsigned worker) { return driver.Judge(mutant, worker); };
    const std::vector<Result> results = RunCampaign(mutants, equivalents, plan, judge, onResult);

    std::cout << Summary(results, mutants.size(), plan);
    const std::vector<std::string> stale = equivalents.Stale(all);
    for (const std::string& entry : stale) {
        std::cout << "\nlisted in " << kList << ", but no such mutant is there:\n" << entry;
    }
    return stale.empty() && std::ranges::none_of(results, IsWrong) ? 0 : kSurvivors;
}

}  // namespace

int main(int argumentCount, char** arguments)
{
    const auto now = std::chrono::system_clock::now().time_since_epoch().count();
    Plan plan{.seed = static_cast<std::uint64_t>(now) % 1000000,
              .wanted = 200,
              .workers = std::max(1u, std::thread::hardware_concurrency())};
    std::string place;
    CLI::App app{"Puts one small fault at a time into the native driver and sees whether a test fails."};
    app.add_option("count", plan.wanted, "how many mutants that count (default: 200)")
        ->check(CLI::Range(std::size_t{1}, std::size_t{1'000'000}));
    app.add_option("--seed", plan.seed, "which ones are drawn (default: others each time)")->check(tools::Unsigned());
    app.add_option("--in", place, "only those of FILE or FILE:LINE, or those that " + std::string(kList) + " lists");
    if (const auto status = tools::ReadCommandLine(app, argumentCount, arguments)) {
        return *status;
    }
    try {
        return tools::EndWith(app, RunMutants(plan, place));
    } catch (const std::exception& error) {
        std::cerr << "zepn-mutants: " << error.what() << "\n";
        return tools::kBadInput;
    }
}
