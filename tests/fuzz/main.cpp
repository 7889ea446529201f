// zepn-fuzz-files: mutated files of each kind for the programs that read them.
//
// Ends with 0 when each file was accepted or refused with a sentence, 1 when one was not, 2 for a wrong call.
#include "tests/fuzz/kinds.h"
#include "tools/command_line/command_line.h"

#include <chrono>
#include <fstream>
#include <iostream>

namespace {

constexpr int kWentWrong = 1;

// True when no file failed; writes the one that does.
bool Fuzz(const fuzz::FileKind& kind, const fuzz::FuzzBudget& budget)
{
    fuzz::FuzzStatistics statistics;
    const auto failure = fuzz::FuzzFiles(kind, budget, statistics);
    std::cout << kind.name << ", seed " << budget.seed << ": " << statistics.accepted << " accepted, "
              << statistics.refused << " refused";
    if (statistics.faulted != 0) {
        std::cout << ", " << statistics.faulted << " ended by a memory fault of the driver";
    }
    std::cout << std::endl;
    if (!failure) {
        return true;
    }
    const std::string file = "fuzz-" + kind.name;
    std::ofstream out(file, std::ios::binary);
    out << failure->bytes;
    out.close();
    std::cout << "file " << failure->number << ": " << failure->what << "\nshrunk to " << failure->bytes.size()
              << " bytes" << (out ? ", in " : ", which could not be written to ") << file
              << "; again: ./zepn fuzz --files --kind " << kind.name << " --seed " << budget.seed << " --count "
              << failure->number + 1 << std::endl;
    return false;
}

}  // namespace

int main(int argumentCount, char** arguments)
{
    std::vector<std::string> names;
    for (const fuzz::FileKind& kind : fuzz::FileKinds()) {
        names.push_back(kind.name);
    }
    fuzz::FuzzBudget budget;
    budget.seed = static_cast<std::uint64_t>(std::chrono::system_clock::now().time_since_epoch().count()) % 1000000;
    std::string chosen;

    CLI::App app{"Mutates files and gives them to the programs that read them."};
    app.add_option("--seed", budget.seed, "the row of files (default: another each time)")->check(tools::Unsigned());
    CLI::Option* seconds = app.add_option("--seconds", budget.seconds, "how long for all kinds (default: 60)")
                               ->check(CLI::Range(0.1, 1e7));
    app.add_option("--count", budget.files, "how many files of each kind at most")
        ->check(CLI::Range(std::uint64_t{1}, std::uint64_t{1'000'000'000}));
    app.add_option("--kind", chosen, "one kind only")->check(CLI::IsMember(names));
    if (const auto status = tools::ReadCommandLine(app, argumentCount, arguments)) {
        return *status;
    }
    if (seconds->count() == 0 && budget.files == 0) {
        budget.seconds = 60;
    }
    budget.seconds /= chosen.empty() ? static_cast<double>(names.size()) : 1;

    bool good = true;
    try {
        for (const fuzz::FileKind& kind : fuzz::FileKinds()) {
            if (chosen.empty() || chosen == kind.name) {
                good = Fuzz(kind, budget) && good;
            }
        }
    } catch (const std::exception& error) {
        std::cerr << "zepn-fuzz-files: " << error.what() << "\n";
        return tools::kBadInput;
    }
    return tools::EndWith(app, good ? 0 : kWentWrong);
}
