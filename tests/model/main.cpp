// zepn-fuzz: the model-based test, with random operation sequences.
//
// Ends with 0 when driver and model agreed in all, 1 when a sequence failed, 2 for a wrong call.
#include "host/environment.h"
#include "tools/command_line/command_line.h"
#include "tests/kit/settings.h"
#include "tests/model/run.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>

namespace {

constexpr int kWentWrong = 1;
using tools::kBadInput;

std::filesystem::path ImagePath(const std::string& choice)
{
    if (choice == "native") {
        return ZEPN_NATIVE_DRIVER;
    }
    if (choice == "x64" || choice == "arm64") {
        return std::filesystem::path(ZEPN_ROOT) / "out" / choice / "zepn.sys";
    }
    return choice;
}

}  // namespace

int main(int argumentCount, char** arguments)
{
    std::string image = tests::kMachine;
    model::Budget budget;
    budget.seed = static_cast<std::uint64_t>(std::chrono::system_clock::now().time_since_epoch().count()) % 1000000;
    std::string scenarioFile = "fuzz.json";

    CLI::App app{"Plays random operation sequences on the driver image and on a model of it, and compares."};
    app.add_option("--seed", budget.seed, "which operation sequences (default: others each time)")
        ->check(tools::Unsigned());
    CLI::Option* seconds =
        app.add_option("--seconds", budget.seconds, "how long (default: 60)")->check(CLI::Range(0.1, 1e7));
    app.add_option("--sequences", budget.sequences, "how many sequences at most")
        ->check(CLI::Range(std::uint64_t{1}, std::uint64_t{1'000'000'000}));
    app.add_option("--image", image, "x64, arm64, native, or a path (default: " + image + ")");
    app.add_option("--scenario", scenarioFile, "where the sequence that failed is written (default: fuzz.json)")
        ->take_last();
    if (const auto status = tools::ReadCommandLine(app, argumentCount, arguments)) {
        return *status;
    }
    if (seconds->count() == 0 && budget.sequences == 0) {
        budget.seconds = 60;
    }

    try {
        // Now, and not when a search of hours has found something.
        const std::filesystem::path folder = std::filesystem::absolute(scenarioFile).parent_path();
        if (std::filesystem::is_directory(scenarioFile) || !std::filesystem::is_directory(folder)) {
            throw std::runtime_error(scenarioFile + ": cannot be written");
        }
        // Before the search: one that is stopped can be begun again.
        std::cout << "seed " << budget.seed << "; the same sequences again: ./zepn fuzz --seed " << budget.seed
                  << " --image " << image << std::endl;
        if (!std::cout) {
            return tools::EndWith(app, 0);
        }
        model::Totals totals;
        const auto begin = std::chrono::steady_clock::now();
        const auto finding = model::Search(budget, ImagePath(image), totals);
        const double spent = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
        std::cout << model::Statistics(totals, spent, image + ", seed " + std::to_string(budget.seed));
        if (!finding) {
            return tools::EndWith(app, 0);
        }
        std::ofstream out(scenarioFile);
        out << model::Scenario(*finding);
        out.close();
        if (!out) {
            std::cerr << "zepn-fuzz: " << scenarioFile << ": cannot be written\n";
        }
        std::cout << model::Report(*finding) << "again: ./zepn fuzz --seed " << finding->seed << " --sequences "
                  << finding->number + 1 << " --image " << image << "; as a scenario: ./zepn demo " << scenarioFile
                  << " --image " << image << "\n"
                  << model::kLookFor << "\n";
        return tools::EndWith(app, kWentWrong);
    } catch (const std::exception& error) {
        std::cerr << "zepn-fuzz: " << error.what() << "\n";
        return kBadInput;
    }
}
