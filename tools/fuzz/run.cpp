#include "tools/fuzz/run.h"

#include "tools/fuzz/witness.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

namespace fuzz {
namespace {

constexpr std::size_t kCountEvery = 8;  // operations

std::string Difference(const std::string& expected, const std::string& seen)
{
    return "the model expects\n" + expected + "the driver does\n" + seen;
}

// Empty when all is well.
std::string CompareCounts(const Model& model, Witness& witness, Totals& totals)
{
    ++totals.counts;
    const Inner expected = model.Count();
    const Inner seen = witness.Count();
    return expected == seen ? "" : Difference(expected.Text(), seen.Text());
}

std::string Violations(Witness& witness)
{
    std::string text;
    for (const std::string& violation : witness.TakeViolations()) {
        text += "  " + violation + "\n";
    }
    return text.empty() ? "" : "the host found\n" + text;
}

// A thread that stands still as foretold waits for its own lock, and that is all that is wrong.
std::string ViolationsOfStandstill(Witness& witness)
{
    const std::vector<std::string> violations = witness.TakeViolations();
    if (violations.size() == 1 && violations.front().starts_with(host::checks::Name(host::checks::Rule::kSelfWait))) {
        return "";
    }
    std::string text = "a self-wait was foretold; the host found\n";
    for (const std::string& violation : violations) {
        text += "  " + violation + "\n";
    }
    return text;
}

}  // namespace

std::optional<Mismatch> Run(const Life& life, const std::filesystem::path& image, Totals& totals,
                            Model::Mistake mistake)
{
    ++totals.lives;
    Model model(life, mistake);
    Witness witness(life, image);
    for (std::size_t index = 0; index < life.operations.size(); ++index) {
        const Operation& operation = life.operations[index];
        ++totals.operations;
        const Outcome expected = model.Do(operation);
        const Outcome seen = witness.Do(operation);
        totals.callbacks += seen.told.size();
        std::string wrong;
        if (expected != seen) {
            wrong = Difference(expected.Text(), seen.Text());
        }
        if (expected.standsStill && wrong.empty()) {
            wrong = ViolationsOfStandstill(witness);
            if (wrong.empty()) {
                ++totals.standstills;
                return std::nullopt;  // such a driver cannot go any more
            }
        } else {
            wrong += Violations(witness);
        }
        if (wrong.empty() && ((index + 1) % kCountEvery == 0 || index + 1 == life.operations.size())) {
            wrong = CompareCounts(model, witness, totals);
        }
        if (!wrong.empty()) {
            if (!seen.standsStill) {
                (void)witness.TakeDown();
            }
            return Mismatch{index, wrong};
        }
    }
    const std::string standing = witness.TakeDown() ? "" : "the driver cannot be taken down\n";
    const std::string wrong = standing + Violations(witness);
    return wrong.empty() ? std::nullopt : std::optional(Mismatch{life.operations.size(), wrong});
}

std::optional<Finding> Search(const Budget& budget, const std::filesystem::path& image, Totals& totals,
                              Model::Mistake mistake)
{
    const auto begin = std::chrono::steady_clock::now();
    const auto spent = [&] { return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count(); };
    for (std::uint64_t number = 0;
         (budget.lives == 0 || number < budget.lives) && (budget.seconds == 0 || spent() < budget.seconds); ++number) {
        const Life life = Playable(Decode(RandomBytes(budget.seed, number)));
        if (!Run(life, image, totals, mistake)) {
            continue;
        }
        Totals ignored;
        Finding finding{budget.seed, number, {}, {}};
        finding.life =
            Shrink(life, [&](const Life& candidate) { return Run(candidate, image, ignored, mistake).has_value(); });
        finding.mismatch = Run(finding.life, image, ignored, mistake).value_or(Mismatch{0, "it does not fail again\n"});
        finding.life.operations.resize(
            std::min(finding.life.operations.size(), finding.mismatch.operation + 1));  // nothing behind it matters
        return finding;
    }
    return std::nullopt;
}

std::string Figures(const Totals& totals, double seconds, const std::string& where)
{
    char rates[80];
    std::snprintf(rates, sizeof(rates), "; %.0f lives/s, %.0f operations/s",
                  static_cast<double>(totals.lives) / seconds, static_cast<double>(totals.operations) / seconds);
    return "random lives (" + where + "): " + std::to_string(totals.lives) + " lives, " +
           std::to_string(totals.operations) + " operations, " + std::to_string(totals.callbacks) +
           " callbacks and answers, " + std::to_string(totals.counts) + " inner counts compared, " +
           std::to_string(totals.standstills) + " standstills as foretold" + rates + "\n";
}

std::string Report(const Finding& finding)
{
    std::string text = "seed " + std::to_string(finding.seed) + ", life " + std::to_string(finding.number) +
                       ", shrunk to " + std::to_string(finding.life.operations.size()) + " operations:\n";
    for (std::size_t index = 0; index < finding.life.operations.size(); ++index) {
        text += (index == finding.mismatch.operation ? "> " : "  ") + Text(finding.life.operations[index]) + "\n";
    }
    return text + finding.mismatch.text;
}

}  // namespace fuzz
