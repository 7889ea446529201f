#include "tests/mutation/campaign.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <exception>
#include <iomanip>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <sstream>
#include <thread>

namespace mutation {
namespace {

bool Counts(const Result& result)
{
    return result.verdict.fate == Fate::kKilled || result.verdict.fate == Fate::kSurvived;
}

const char* Name(Fate fate)
{
    switch (fate) {
    case Fate::kRefused:
        return "does not compile";
    case Fate::kSameCode:
        return "same code";
    case Fate::kKilled:
        return "killed";
    case Fate::kSurvived:
        return "survived";
    }
    return "";
}

// std::shuffle may differ between libraries; this order is named by the seed for good.
void Shuffle(std::vector<Mutant>& mutants, std::uint64_t seed)
{
    std::mt19937_64 random(seed);
    for (std::size_t left = mutants.size(); left > 1; --left) {
        std::swap(mutants[left - 1], mutants[random() % left]);
    }
}

// Deals the mutants out to the workers until enough of them count.
class Dealer {
public:
    Dealer(const std::vector<Mutant>& mutants, const Equivalents& equivalents, const Plan& plan, const Judge& judge,
           const OnResult& onResult)
        : mutants_(mutants), equivalents_(equivalents), plan_(plan), judge_(judge), onResult_(onResult),
          results_(mutants.size())
    {
    }

    std::vector<Result> Run()
    {
        std::vector<std::jthread> workers;
        for (unsigned worker = 0; worker < plan_.workers; ++worker) {
            workers.emplace_back([this, worker] { Work(worker); });
        }
        workers.clear();
        if (failure_) {
            std::rethrow_exception(failure_);
        }
        std::vector<Result> results;
        std::size_t counted = 0;
        for (std::optional<Result>& result : results_) {
            if (!result || counted == plan_.wanted) {
                break;
            }
            counted += Counts(*result) ? 1 : 0;
            results.push_back(std::move(*result));
        }
        return results;
    }

private:
    void Work(unsigned worker)
    {
        std::unique_lock lock(mutex_);
        while (next_ < mutants_.size() && counted_ < plan_.wanted && !failure_) {
            const std::size_t index = next_++;
            lock.unlock();
            Result result{mutants_[index], {}, equivalents_.ReasonFor(mutants_[index])};
            std::exception_ptr failure;
            try {
                result.verdict = judge_(result.mutant, worker);
            } catch (...) {
                failure = std::current_exception();
            }
            lock.lock();
            if (failure) {
                failure_ = failure;
                return;
            }
            counted_ += Counts(result) ? 1 : 0;
            onResult_(result);
            results_[index] = std::move(result);
        }
    }

    const std::vector<Mutant>& mutants_;
    const Equivalents& equivalents_;
    const Plan plan_;
    const Judge& judge_;
    const OnResult& onResult_;
    std::mutex mutex_;
    std::size_t next_ = 0;
    std::size_t counted_ = 0;
    std::exception_ptr failure_;
    std::vector<std::optional<Result>> results_;
};

std::size_t CountOf(const std::vector<Result>& results, const std::function<bool(const Result&)>& is)
{
    return static_cast<std::size_t>(std::ranges::count_if(results, is));
}

}  // namespace

bool IsWrong(const Result& result)
{
    return (result.verdict.fate == Fate::kSurvived && result.reason.empty()) ||
           (result.verdict.fate == Fate::kKilled && !result.reason.empty());
}

std::vector<Result> RunCampaign(std::vector<Mutant> mutants, const Equivalents& equivalents, const Plan& plan,
                                const Judge& judge, const OnResult& onResult)
{
    Shuffle(mutants, plan.seed);
    return Dealer(mutants, equivalents, plan, judge, onResult).Run();
}

std::string Text(const std::vector<Result>& results, std::size_t all, const Plan& plan)
{
    const auto has = [&](Fate fate) {
        return CountOf(results, [fate](const Result& result) { return result.verdict.fate == fate; });
    };
    std::map<std::string, std::size_t> stages;
    double seconds = 0;
    for (const Result& result : results) {
        seconds += result.verdict.seconds;
        if (result.verdict.fate == Fate::kKilled) {
            ++stages[result.verdict.killedBy];
        }
    }
    const std::size_t listed = CountOf(
        results, [](const Result& result) { return result.verdict.fate == Fate::kSurvived && !result.reason.empty(); });
    const std::size_t counted = has(Fate::kKilled) + has(Fate::kSurvived);
    std::ostringstream text;
    text << "mutants: " << counted << " of " << all << ", seed " << plan.seed << ": " << has(Fate::kKilled)
         << " killed (";
    const char* separator = "";
    for (const auto& [stage, count] : stages) {
        text << separator << stage << " " << count;
        separator = ", ";
    }
    text << "), " << listed << " equivalent, " << has(Fate::kSurvived) - listed << " survived; besides "
         << has(Fate::kRefused) << " that do not compile and " << has(Fate::kSameCode) << " of the same code\n";
    if (counted != 0) {
        text << std::fixed << std::setprecision(1) << seconds / static_cast<double>(counted)
             << " seconds for each that counts, on " << plan.workers << " processors at once\n";
    }
    for (const Result& result : results) {
        if (IsWrong(result)) {
            text << "\n"
                 << (result.reason.empty() ? "survived, " : "listed as equivalent, but killed, ") << result.mutant.file
                 << ":" << result.mutant.line << ", " << result.mutant.kind << "\n"
                 << EntryOf(result.mutant);
        }
    }
    return text.str();
}

std::string AsJson(const std::vector<Result>& results, std::size_t all, const Plan& plan)
{
    nlohmann::ordered_json mutants = nlohmann::ordered_json::array();
    for (const Result& result : results) {
        nlohmann::ordered_json mutant = {{"file", result.mutant.file},         {"line", result.mutant.line},
                                         {"function", result.mutant.function}, {"text", result.mutant.lineText},
                                         {"kind", result.mutant.kind},         {"change", result.mutant.change},
                                         {"fate", Name(result.verdict.fate)},  {"seconds", result.verdict.seconds}};
        if (!result.verdict.killedBy.empty()) {
            mutant["killed by"] = result.verdict.killedBy;
        }
        if (!result.reason.empty()) {
            mutant["equivalent"] = result.reason;
        }
        mutants.push_back(std::move(mutant));
    }
    const nlohmann::ordered_json whole = {{"seed", plan.seed}, {"all", all}, {"mutants", std::move(mutants)}};
    return whole.dump(2) + "\n";
}

}  // namespace mutation
