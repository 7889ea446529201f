// zepn-mutants: puts one small fault at a time into the driver's sources and sees whether a test fails.
//
// Ends with 0 when no mutant survived but those that are listed as equivalent, 1 when one did or the list is wrong, 2
// for a wrong call or a build folder that is none.
#include "tests/mutation/driver_judge.h"
#include "tools/command_line/command_line.h"

#include <algorithm>
#include <chrono>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <thread>

namespace {

using namespace mutation;
using tools::kBadInput;

constexpr int kSurvivors = 1;
constexpr std::size_t kUsual = 200;

struct Wishes {
    std::size_t wanted = kUsual;
    std::uint64_t seed = 0;
    std::string place;  // FILE or FILE:LINE
    bool lists = false;
};

bool IsAt(const Mutant& mutant, const std::string& place)
{
    return place.empty() || mutant.file == place || mutant.file + ":" + std::to_string(mutant.line) == place;
}

int RunMutants(const Wishes& wishes, const std::filesystem::path& root, const std::filesystem::path& folder)
{
    const NativeBuild build(root, folder);
    const std::vector<Mutant> all = MutantsOf(build);
    std::vector<Mutant> mutants;
    std::ranges::copy_if(all, std::back_inserter(mutants),
                         [&](const Mutant& mutant) { return IsAt(mutant, wishes.place); });
    if (mutants.empty()) {
        throw std::runtime_error("no source of the driver has mutants at " + wishes.place);
    }
    std::ifstream list(root / "tests/mutation/equivalent.txt");
    if (!list) {
        throw std::runtime_error("tests/mutation/equivalent.txt cannot be read");
    }
    const Equivalents equivalents(list);
    if (wishes.lists) {
        for (const Mutant& mutant : mutants) {
            std::cout << mutant.file << ":" << mutant.line << ": " << mutant.kind << ": " << mutant.change << "\n";
        }
        return 0;
    }

    const Plan plan{
        .seed = wishes.seed, .wanted = wishes.wanted, .workers = std::max(1u, std::thread::hardware_concurrency())};
    std::size_t counted = 0;
    const OnResult onResult = [&](const Result& result) {
        const bool counts = result.verdict.fate == Fate::kKilled || result.verdict.fate == Fate::kSurvived;
        counted += counts ? 1 : 0;
        if (result.verdict.fate == Fate::kSurvived || (counts && counted % 20 == 0)) {
            std::cerr << counted << ": " << result.mutant.file << ":" << result.mutant.line << " "
                      << result.mutant.change << (result.verdict.fate == Fate::kSurvived ? ": survived" : "") << "\n";
        }
    };
    const std::vector<Result> results = RunCampaign(mutants, equivalents, plan, DriverJudge(build, folder), onResult);

    std::cout << Text(results, mutants.size(), plan);
    const std::vector<std::string> stale = equivalents.Stale(all);
    for (const std::string& entry : stale) {
        std::cout << "\nlisted in tests/mutation/equivalent.txt, but no such mutant is there:\n" << entry;
    }
    const auto json = root / "build/results/mutants.json";
    std::filesystem::create_directories(json.parent_path());
    std::ofstream(json) << AsJson(results, mutants.size(), plan);
    return stale.empty() && std::ranges::none_of(results, IsWrong) ? 0 : kSurvivors;
}

}  // namespace

int main(int argumentCount, char** arguments)
{
    Wishes wishes;
    wishes.seed = static_cast<std::uint64_t>(std::chrono::system_clock::now().time_since_epoch().count()) % 1000000;
    CLI::App app{"Puts one small fault at a time into the native driver and sees whether a test fails."};
    app.add_option("count", wishes.wanted, "how many mutants that count (default: 200)")
        ->check(CLI::Range(std::size_t{1}, std::size_t{1'000'000}));
    app.add_option("--seed", wishes.seed, "which ones are drawn (default: others each time)");
    app.add_option("--in", wishes.place, "only those of FILE or FILE:LINE");
    app.add_flag("--list", wishes.lists, "prints them all instead of testing");
    if (const auto status = tools::ReadCommandLine(app, argumentCount, arguments)) {
        return *status;
    }
    try {
        return RunMutants(wishes, ZEPN_ROOT, ZEPN_BUILD);
    } catch (const std::exception& error) {
        std::cerr << "zepn-mutants: " << error.what() << "\n";
        return kBadInput;
    }
}
