#include "tests/mutation/driver_judge.h"

#include "tests/mutation/test_stages.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <stdexcept>

namespace mutation {
namespace {

void CheckUnchanged(const std::filesystem::path& buildFolder, const std::filesystem::path& into)
{
    std::filesystem::create_directories(into);
    std::filesystem::copy_file(buildFolder / NativeBuild::kDriver, NativeBuild::DriverIn(into),
                               std::filesystem::copy_options::overwrite_existing);
    if (const std::string stage = FirstFailure(buildFolder, NativeBuild::DriverIn(into)); !stage.empty()) {
        throw std::runtime_error("the " + stage + " tests fail on the unchanged driver; see " +
                                 (into / "tests.log").string());
    }
}

}  // namespace

std::vector<Mutant> MutantsOf(const NativeBuild& build)
{
    std::vector<Mutant> all;
    for (const Source& source : build.sources()) {
        std::ranges::move(MutantsOf(build.TreeOf(source), source.file, source.text), std::back_inserter(all));
    }
    return all;
}

Judge DriverJudge(const NativeBuild& build, const std::filesystem::path& buildFolder)
{
    const auto work = buildFolder / "mutants";
    std::filesystem::remove_all(work);  // object files of other sources
    CheckUnchanged(buildFolder, work / "unchanged");
    return [&build, buildFolder, work](const Mutant& mutant, unsigned worker) {
        const auto begin = std::chrono::steady_clock::now();
        const auto into = work / std::to_string(worker);
        const auto source = std::ranges::find(build.sources(), mutant.file, &Source::file);
        Verdict verdict;
        switch (build.Build(*source, Apply(mutant, source->text), into)) {
        case Built::kRefused:
            verdict.fate = Fate::kRefused;
            break;
        case Built::kSameCode:
            verdict.fate = Fate::kSameCode;
            break;
        case Built::kDriver:
            verdict.killedBy = FirstFailure(buildFolder, NativeBuild::DriverIn(into));
            verdict.fate = verdict.killedBy.empty() ? Fate::kSurvived : Fate::kKilled;
            break;
        }
        verdict.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
        return verdict;
    };
}

}  // namespace mutation
