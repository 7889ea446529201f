#include "tests/model/run.h"

#include "host/checks/child_process.h"
#include "tests/model/observed.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <iterator>

namespace model {
namespace {

using host::checks::ChildResult;
using host::checks::RunInChild;
using host::checks::SetWatchdog;
using host::checks::Shared;

constexpr std::size_t kCompareStateEvery = 8;  // operations

// For endless sequences, each of which costs the watchdog's time.
constexpr double kShrinkWatchdogSeconds = 3;
constexpr unsigned kShrinkEndless = 40;
constexpr const char* kEndless = "it does not end\n";

std::string Difference(const std::string& expected, const std::string& seen)
{
    return "the model expects\n" + expected + "the driver does\n" + seen;
}

// Empty when all is well.
std::string CompareInternalState(const Model& model, ObservedRun& observed, Totals& totals)
{
    ++totals.states;
    const std::string expected = model.Internal().Text();
    const std::string seen = observed.State().Text();
    return expected == seen ? "" : Difference(expected, seen);
}

// When the model predicts a hang, a self-wait must be the only one.
std::string Violations(ObservedRun& observed, bool hangs = false)
{
    const std::vector<std::string> violations = observed.TakeViolations();
    const std::string_view selfWait = host::checks::Name(host::checks::Rule::kSelfWait);
    if (hangs ? violations.size() == 1 && violations.front().starts_with(selfWait) : violations.empty()) {
        return "";
    }
    std::string text = std::string(hangs ? "the model predicts a self-wait; " : "") + "the host found\n";
    for (const std::string& violation : violations) {
        text += "  " + violation + "\n";
    }
    return text;
}

std::optional<Mismatch> RunSequence(const Sequence& sequence, const std::filesystem::path& image, Totals& totals,
                                    Model::ModelBug bug)
{
    Model model(sequence, bug);
    ObservedRun observed(sequence, image);
    for (std::size_t index = 0; index < sequence.operations.size(); ++index) {
        const Operation& operation = sequence.operations[index];
        ++totals.operations;
        totals.position = index;
        const Outcome expected = model.Do(operation);
        const Outcome seen = observed.Do(operation);
        totals.callbacks += seen.called.size();
        std::string wrong;
        if (expected != seen) {
            wrong = Difference(expected.Text(), seen.Text());
        }
        if (expected.hangs && wrong.empty()) {
            wrong = Violations(observed, true);
            if (wrong.empty()) {
                ++totals.hangs;
                return std::nullopt;  // such a driver cannot go any more
            }
        } else {
            wrong += Violations(observed);
        }
        if (wrong.empty() && ((index + 1) % kCompareStateEvery == 0 || index + 1 == sequence.operations.size())) {
            wrong = CompareInternalState(model, observed, totals);
        }
        if (!wrong.empty()) {
            if (!seen.hangs) {
                (void)observed.TakeDown();
            }
            return Mismatch{index, wrong};
        }
    }
    totals.position = sequence.operations.size();
    const std::string stuck = observed.TakeDown() ? "" : "the driver cannot be taken down\n";
    const std::string wrong = stuck + Violations(observed);
    return wrong.empty() ? std::nullopt : std::optional(Mismatch{sequence.operations.size(), wrong});
}

// Throws HostError when the image is refused.
void TryImage(const std::filesystem::path& image)
{
    Sequence none;
    none.clients.resize(kClients);
    (void)ObservedRun(none, image).TakeDown();
}

Sequence SequenceOf(std::uint64_t seed, std::uint64_t number)
{
    return Playable(Decode(RandomBytes(seed, number)));
}

// The mismatch of the first sequence that has one, which is the last that was begun; empty when none has.
std::string RunUntilOneFails(const Budget& budget, const std::filesystem::path& image, Totals& totals,
                             Model::ModelBug bug)
{
    const auto begin = std::chrono::steady_clock::now();
    const auto spent = [&] { return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count(); };
    SetWatchdog(kWatchdogSeconds);
    TryImage(image);
    for (std::uint64_t number = 0;
         (budget.sequences == 0 || number < budget.sequences) && (budget.seconds == 0 || spent() < budget.seconds);
         ++number) {
        SetWatchdog(kWatchdogSeconds);
        if (const auto mismatch = Run(SequenceOf(budget.seed, number), image, totals, bug)) {
            totals.position = mismatch->operation;
            return mismatch->text;
        }
    }
    return "";
}

// What the work in another process found or ended in; empty when it went well.
std::optional<Mismatch> MismatchOf(const ChildResult& ending, const Totals& totals)
{
    const std::string& text = ending.failure.empty() ? ending.result : ending.failure;
    return text.empty() ? std::nullopt : std::optional(Mismatch{totals.position, text});
}

}  // namespace

std::optional<Mismatch> Run(const Sequence& sequence, const std::filesystem::path& image, Totals& totals,
                            Model::ModelBug bug)
{
    ++totals.sequences;
    totals.position = 0;
    try {
        return RunSequence(sequence, image, totals, bug);
    } catch (const host::HostError& error) {
        return Mismatch{totals.position, std::string("the host refuses\n  ") + error.what() + "\n"};
    }
}

std::optional<Mismatch> RunInOwnProcess(const Sequence& sequence, const std::filesystem::path& image,
                                        double watchdogSeconds, Model::ModelBug bug)
{
    const Shared<Totals> totals;
    const ChildResult ending = RunInChild([&] {
        SetWatchdog(watchdogSeconds);
        const auto mismatch = Run(sequence, image, *totals, bug);
        if (!mismatch) {
            return std::string();
        }
        (*totals).position = mismatch->operation;
        return mismatch->text;
    });
    return MismatchOf(ending, *totals);
}

std::optional<Finding> Search(const Budget& budget, const std::filesystem::path& image, Totals& totals,
                              Model::ModelBug bug)
{
    const Shared<Totals> shared;
    const ChildResult ending = RunInChild([&] { return RunUntilOneFails(budget, image, *shared, bug); });
    totals = *shared;
    const auto seen = MismatchOf(ending, totals);
    if (ending.failure.empty()) {
        std::cerr << ending.printed;
    }
    if (!seen) {
        return std::nullopt;
    }
    const std::uint64_t number = totals.sequences == 0 ? 0 : totals.sequences - 1;  // 0: the image itself went wrong
    Finding finding{
        .seed = budget.seed, .number = number, .sequence = SequenceOf(budget.seed, number), .mismatch = *seen};
    const auto fails = [&](const Sequence& sequence) {
        return RunInOwnProcess(sequence, image, kShrinkWatchdogSeconds, bug);
    };
    if (fails(finding.sequence)) {
        unsigned endless = 0;
        finding.sequence = Shrink(finding.sequence, [&](const Sequence& candidate) {
            const auto mismatch = endless < kShrinkEndless ? fails(candidate) : std::nullopt;
            endless += mismatch && mismatch->text.starts_with(kEndless) ? 1 : 0;
            return mismatch.has_value();
        });
        finding.mismatch = fails(finding.sequence).value_or(Mismatch{0, "it does not fail again\n"});
    } else {
        finding.again = false;
        finding.mismatch.text += "alone it does not fail: the sequences before it matter\n";
    }
    finding.sequence.operations.resize(
        std::min(finding.sequence.operations.size(), finding.mismatch.operation + 1));  // what follows does not matter
    return finding;
}

std::string Statistics(const Totals& totals, double seconds, const std::string& where)
{
    char rates[80];
    std::snprintf(rates, sizeof(rates), "; %.0f sequences/s, %.0f operations/s",
                  static_cast<double>(totals.sequences) / seconds, static_cast<double>(totals.operations) / seconds);
    return "model-based test (" + where + "): " + std::to_string(totals.sequences) + " operation sequences, " +
           std::to_string(totals.operations) + " operations, " + std::to_string(totals.callbacks) +
           " callbacks and answers, " + std::to_string(totals.states) + " internal states compared, " +
           std::to_string(totals.hangs) + " hangs as predicted" + rates + "\n";
}

std::string Report(const Finding& finding)
{
    std::string text = "seed " + std::to_string(finding.seed) + ", sequence " + std::to_string(finding.number) +
                       (finding.again ? ", shrunk to " : ", not shrunk: ") +
                       std::to_string(finding.sequence.operations.size()) + " operations:\n";
    for (std::size_t index = 0; index < finding.sequence.operations.size(); ++index) {
        text += (index == finding.mismatch.operation ? "> " : "  ") + Text(finding.sequence.operations[index]) + "\n";
    }
    if (finding.mismatch.operation == finding.sequence.operations.size()) {
        text += "> the driver is taken down\n";
    }
    return text + finding.mismatch.text;
}

std::string Scenario(const Finding& finding)
{
    return Scenario(finding.sequence,
                    "Sequence " + std::to_string(finding.number) + " of seed " + std::to_string(finding.seed) +
                        ", which went wrong: see its notes",
                    finding.mismatch);
}

}  // namespace model
