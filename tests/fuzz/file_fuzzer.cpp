#include "tests/fuzz/file_fuzzer.h"

#include "host/checks/child_process.h"
#include "host/checks/crash.h"

#include <algorithm>
#include <chrono>

namespace fuzz {
namespace {

constexpr std::uint64_t kBatch = 256;  // files that one process reads
constexpr double kFileSeconds = 20;    // of processor time; a file of kSizeMaximum takes less than one
constexpr unsigned kShrinkTrials = 400;

// What a batch's process leaves behind, whichever way it ends.
struct BatchProgress {
    std::uint64_t done = 0;
    std::uint64_t accepted = 0;
    std::uint64_t refused = 0;
};

// What a process answers that came to its end with nothing wrong.
constexpr const char* kGood = "good";

// kGood when the file is accepted or refused as it should be, else what is wrong with it.
std::string ReadOne(const FileKind& kind, const std::string& bytes, BatchProgress& progress)
{
    std::string sentence;
    try {
        sentence = kind.read(bytes);
        if (sentence.empty()) {
            ++progress.accepted;
            return kGood;
        }
    } catch (const std::exception& error) {
        sentence = error.what();
    }
    ++progress.refused;
    return sentence.starts_with(kFileName) ? kGood : "refused with a sentence that does not name the file: " + sentence;
}

bool IsReportedFault(const FileKind& kind, const host::checks::ChildResult& result)
{
    const std::string exit = "status " + std::to_string(host::checks::kMemoryFaultExit) + "\n";
    return !kind.memoryFault.empty() && result.failure.find(exit) != std::string::npos &&
           result.printed.find(kind.memoryFault) != std::string::npos;
}

// Empty when the process came to its end with nothing wrong, or to one that the kind allows.
std::string Wrong(const FileKind& kind, const host::checks::ChildResult& result)
{
    if (result.result == kGood || IsReportedFault(kind, result)) {
        return {};
    }
    const std::string& wrong = result.result.empty() ? result.failure : result.result;
    return wrong.empty() ? "the process ended before it was done" : wrong;
}

// What is wrong when this file alone is read by a process of its own; empty when nothing is.
std::string TryAlone(const FileKind& kind, const std::string& bytes)
{
    return Wrong(kind, host::checks::RunInChild([&] {
                     host::checks::SetWatchdog(kFileSeconds);
                     BatchProgress progress;
                     return ReadOne(kind, bytes, progress);
                 }));
}

// Ever smaller pieces are left out while the file fails still, in whichever way.
void Shrink(const FileKind& kind, FuzzFailure& failure)
{
    unsigned trials = 0;
    for (std::size_t piece = (failure.bytes.size() + 1) / 2; piece > 0; piece /= 2) {
        for (std::size_t at = 0; at < failure.bytes.size() && trials < kShrinkTrials;) {
            std::string less = failure.bytes;
            less.erase(at, piece);
            ++trials;
            std::string what = TryAlone(kind, less);
            if (what.empty()) {
                at += piece;
            } else {
                failure.bytes = std::move(less);
                failure.what = std::move(what);
            }
        }
    }
}

FuzzFailure Failure(const FileKind& kind, std::uint64_t number, std::string bytes, std::string what)
{
    FuzzFailure failure{.number = number, .what = std::move(what), .bytes = std::move(bytes)};
    // A failure that needs the files before it stays as it is.
    if (!TryAlone(kind, failure.bytes).empty()) {
        Shrink(kind, failure);
    }
    return failure;
}

}  // namespace

std::string MutatedFile(const FileKind& kind, const std::vector<std::string>& originals, std::uint64_t seed,
                        std::uint64_t number)
{
    if (number < originals.size()) {
        return originals[number];
    }
    Mutator mutator(seed * 0x9E3779B97F4A7C15u + number);
    const std::string& original = mutator.OneOf(originals);
    if (!kind.mutate || mutator.OneIn(2)) {
        return mutator.MutateBytes(original, kind.words);
    }
    return kind.mutate(mutator, original);
}

std::optional<FuzzFailure> FuzzFiles(const FileKind& kind, const FuzzBudget& budget, FuzzStatistics& statistics)
{
    const auto begin = std::chrono::steady_clock::now();
    const auto isOver = [&] {
        return budget.seconds != 0 &&
               std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count() >= budget.seconds;
    };
    const std::vector<std::string> originals = kind.originals();
    const host::checks::Shared<BatchProgress> progress;
    for (std::uint64_t number = 0; (budget.files == 0 || number < budget.files) && !isOver();) {
        const std::uint64_t count = std::min(kBatch, budget.files == 0 ? kBatch : budget.files - number);
        *progress = {};
        const host::checks::ChildResult result = host::checks::RunInChild([&] {
            for (; (*progress).done < count && !isOver(); ++(*progress).done) {
                host::checks::SetWatchdog(kFileSeconds);
                const std::string bytes = MutatedFile(kind, originals, budget.seed, number + (*progress).done);
                std::string wrong = ReadOne(kind, bytes, *progress);
                if (wrong != kGood) {
                    return wrong;
                }
            }
            return std::string(kGood);
        });
        statistics.accepted += (*progress).accepted;
        statistics.refused += (*progress).refused;
        number += (*progress).done;
        if (std::string wrong = Wrong(kind, result); !wrong.empty()) {
            return Failure(kind, number, MutatedFile(kind, originals, budget.seed, number), std::move(wrong));
        }
        if (result.result != kGood) {
            ++statistics.faulted;
            ++number;
        }
    }
    return std::nullopt;
}

}  // namespace fuzz
