#include "tests/model/run.h"

#include "tests/model/apart.h"
#include "tests/model/witness.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <iterator>

namespace fuzz {
namespace {

constexpr std::size_t kCountEvery = 8;  // operations

// For lives without end, each of which costs its patience.
constexpr double kShrinkPatienceSeconds = 3;
constexpr unsigned kShrinkEndless = 40;

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

std::optional<Mismatch> Live(const Life& life, const std::filesystem::path& image, Totals& totals,
                             Model::Mistake mistake)
{
    Model model(life, mistake);
    Witness witness(life, image);
    for (std::size_t index = 0; index < life.operations.size(); ++index) {
        const Operation& operation = life.operations[index];
        ++totals.operations;
        totals.position = index;
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
    totals.position = life.operations.size();
    const std::string standing = witness.TakeDown() ? "" : "the driver cannot be taken down\n";
    const std::string wrong = standing + Violations(witness);
    return wrong.empty() ? std::nullopt : std::optional(Mismatch{life.operations.size(), wrong});
}

// Throws HostError when the image is refused.
void TryImage(const std::filesystem::path& image)
{
    Life none;
    none.clients.resize(kClients);
    (void)Witness(none, image).TakeDown();
}

Life LifeOf(std::uint64_t seed, std::uint64_t number)
{
    return Playable(Decode(RandomBytes(seed, number)));
}

// What went wrong in the first life that does; empty when none did within the budget. It is the last that was begun.
std::string LiveUntilOneFails(const Budget& budget, const std::filesystem::path& image, Totals& totals,
                              Model::Mistake mistake)
{
    const auto begin = std::chrono::steady_clock::now();
    const auto spent = [&] { return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count(); };
    Patience(kPatienceSeconds);
    TryImage(image);
    for (std::uint64_t number = 0;
         (budget.lives == 0 || number < budget.lives) && (budget.seconds == 0 || spent() < budget.seconds); ++number) {
        Patience(kPatienceSeconds);
        if (const auto mismatch = Run(LifeOf(budget.seed, number), image, totals, mistake)) {
            totals.position = mismatch->operation;
            return mismatch->text;
        }
    }
    return "";
}

// Which of the lives that shrinking tries went wrong, in their order. Shrinking does the same each time, so this is all
// that another process needs to know to go on with it.
struct Verdicts {
    std::size_t count = 0;
    bool wentWrong[1 << 14];

    [[nodiscard]] bool IsFull() const { return count == std::size(wentWrong); }
};

Life ShrinkApart(const Life& life, const std::filesystem::path& image, Model::Mistake mistake)
{
    const Shared<Verdicts> shared;
    Verdicts& verdicts = *shared;
    unsigned endless = 0;
    const auto isOver = [&] { return verdicts.IsFull() || endless == kShrinkEndless; };
    const auto shrink = [&](bool goesOn) {
        Totals ignored;
        std::size_t next = 0;
        return Shrink(life, [&](const Life& candidate) {
            if (next == verdicts.count) {
                if (!goesOn || isOver()) {
                    return false;
                }
                Patience(kShrinkPatienceSeconds);
                verdicts.wentWrong[next] = Run(candidate, image, ignored, mistake).has_value();
                ++verdicts.count;
            }
            return verdicts.wentWrong[next++];
        });
    };
    while (!isOver()) {
        const Ending ending = DoApart([&] {
            (void)shrink(true);
            return "done";
        });
        if (!ending.result.empty()) {
            break;
        }
        endless += ending.isEndless ? 1 : 0;
        verdicts.wentWrong[verdicts.count++] = true;  // the one that ended the process
    }
    return shrink(false);
}

// What the work in another process found or ended in; empty when it went well.
std::optional<Mismatch> MismatchOf(const Ending& ending, const Totals& totals)
{
    const std::string& text = ending.trouble.empty() ? ending.result : ending.trouble;
    return text.empty() ? std::nullopt : std::optional(Mismatch{totals.position, text});
}

}  // namespace

std::optional<Mismatch> Run(const Life& life, const std::filesystem::path& image, Totals& totals,
                            Model::Mistake mistake)
{
    ++totals.lives;
    totals.position = 0;
    try {
        return Live(life, image, totals, mistake);
    } catch (const host::HostError& error) {
        return Mismatch{totals.position, std::string("the host refuses\n  ") + error.what() + "\n"};
    }
}

std::optional<Mismatch> RunApart(const Life& life, const std::filesystem::path& image, double patience,
                                 Model::Mistake mistake)
{
    const Shared<Totals> totals;
    const Ending ending = DoApart([&] {
        Patience(patience);
        const auto mismatch = Run(life, image, *totals, mistake);
        if (!mismatch) {
            return std::string();
        }
        (*totals).position = mismatch->operation;
        return mismatch->text;
    });
    return MismatchOf(ending, *totals);
}

std::optional<Finding> Search(const Budget& budget, const std::filesystem::path& image, Totals& totals,
                              Model::Mistake mistake)
{
    const Shared<Totals> shared;
    const Ending ending = DoApart([&] { return LiveUntilOneFails(budget, image, *shared, mistake); });
    totals = *shared;
    const auto seen = MismatchOf(ending, totals);
    if (ending.trouble.empty()) {
        std::cerr << ending.printed;
    }
    if (!seen) {
        return std::nullopt;
    }
    const std::uint64_t number = totals.lives == 0 ? 0 : totals.lives - 1;  // 0: the image itself went wrong
    Finding finding{.seed = budget.seed, .number = number, .life = LifeOf(budget.seed, number), .mismatch = *seen};
    const auto fails = [&](const Life& life) { return RunApart(life, image, kShrinkPatienceSeconds, mistake); };
    if (fails(finding.life)) {
        finding.life = ShrinkApart(finding.life, image, mistake);
        finding.mismatch = fails(finding.life).value_or(Mismatch{0, "it does not fail again\n"});
    } else {
        finding.again = false;
        finding.mismatch.text += "lived alone it does not go wrong: the lives before it matter\n";
    }
    finding.life.operations.resize(
        std::min(finding.life.operations.size(), finding.mismatch.operation + 1));  // nothing behind it matters
    return finding;
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
                       (finding.again ? ", shrunk to " : ", not shrunk: ") +
                       std::to_string(finding.life.operations.size()) + " operations:\n";
    for (std::size_t index = 0; index < finding.life.operations.size(); ++index) {
        text += (index == finding.mismatch.operation ? "> " : "  ") + Text(finding.life.operations[index]) + "\n";
    }
    if (finding.mismatch.operation == finding.life.operations.size()) {
        text += "> the driver is taken down\n";
    }
    return text + finding.mismatch.text;
}

std::string Scenario(const Finding& finding)
{
    return Scenario(finding.life,
                    "Life " + std::to_string(finding.number) + " of seed " + std::to_string(finding.seed) +
                        ", which went wrong: see its notes",
                    finding.mismatch);
}

}  // namespace fuzz
