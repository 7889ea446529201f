#include "tests/mutation/campaign.h"

#include <algorithm>
#include <future>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <sstream>

namespace mutation {
namespace {

// std::shuffle may differ between libraries; this order is named by the seed for good.
void Shuffle(std::vector<Mutant>& mutants, std::uint64_t seed)
{
    std::mt19937_64 random(seed);
    for (std::size_t left = mutants.size(); left > 1; --left) {
        std::swap(mutants[left - 1], mutants[random() % left]);
    }
}

}  // namespace

bool Counts(const Result& result)
{
    return result.verdict.status == MutantStatus::kKilled || result.verdict.status == MutantStatus::kSurvived;
}

std::string LineOf(const Result& result)
{
    static const std::map<MutantStatus, std::string> names = {{MutantStatus::kRefused, "does not compile"},
                                                              {MutantStatus::kSameCode, "same code"},
                                                              {MutantStatus::kKilled, "killed by "},
                                                              {MutantStatus::kSurvived, "survived"}};
    return result.mutant.file + ":" + std::to_string(result.mutant.line) + ": " + result.mutant.kind + ", " +
           result.mutant.change + ": " + names.at(result.verdict.status) + result.verdict.killedBy +
           (result.reason.empty() ? "" : ", listed as equivalent") + "\n";
}

bool IsWrong(const Result& result)
{
    return (result.verdict.status == MutantStatus::kSurvived && result.reason.empty()) ||
           (result.verdict.status == MutantStatus::kKilled && !result.reason.empty());
}

std::vector<Result> RunCampaign(std::vector<Mutant> mutants, const Equivalents& equivalents, const Plan& plan,
                                const Judge& judge, const OnResult& onResult)
{
    Shuffle(mutants, plan.seed);
    std::vector<std::optional<Result>> drawn(mutants.size());
    std::mutex mutex;
    std::size_t next = 0;
    std::size_t counted = 0;
    const auto work = [&](unsigned worker) {
        std::unique_lock lock(mutex);
        while (next < mutants.size() && counted < plan.wanted) {
            const std::size_t index = next++;
            lock.unlock();
            Result result{mutants[index], judge(mutants[index], worker), equivalents.ReasonFor(mutants[index])};
            lock.lock();
            counted += Counts(result) ? 1 : 0;
            onResult(result);
            drawn[index] = std::move(result);
        }
    };
    std::vector<std::future<void>> workers;
    for (unsigned worker = 0; worker < plan.workers; ++worker) {
        workers.push_back(std::async(std::launch::async, work, worker));
    }
    for (std::future<void>& worker : workers) {
        worker.get();
    }

    // Workers overtake one another: what comes after the last that is wanted does not belong to the run.
    std::vector<Result> results;
    counted = 0;
    for (std::size_t index = 0; index < next && counted < plan.wanted; ++index) {
        counted += Counts(*drawn[index]) ? 1 : 0;
        results.push_back(std::move(*drawn[index]));
    }
    return results;
}

std::string Summary(const std::vector<Result>& results, std::size_t all, const Plan& plan)
{
    std::map<MutantStatus, std::size_t> counts;
    std::map<std::string, std::size_t> programs;
    std::size_t listed = 0;
    for (const Result& result : results) {
        ++counts[result.verdict.status];
        if (result.verdict.status == MutantStatus::kKilled) {
            ++programs[result.verdict.killedBy];
        } else if (result.verdict.status == MutantStatus::kSurvived && !result.reason.empty()) {
            ++listed;
        }
    }
    std::ostringstream text;
    text << "mutants: " << counts[MutantStatus::kKilled] + counts[MutantStatus::kSurvived] << " of " << all << ", seed "
         << plan.seed << ": " << counts[MutantStatus::kKilled] << " killed (";
    const char* separator = "";
    for (const auto& [program, count] : programs) {
        text << separator << program << " " << count;
        separator = ", ";
    }
    text << "), " << listed << " equivalent, " << counts[MutantStatus::kSurvived] - listed << " survived; besides "
         << counts[MutantStatus::kRefused] << " that do not compile and " << counts[MutantStatus::kSameCode]
         << " of the same code\n";
    for (const Result& result : results) {
        if (IsWrong(result)) {
            text << "\n" << LineOf(result) << EntryOf(result.mutant);
        }
    }
    return text.str();
}

}  // namespace mutation
