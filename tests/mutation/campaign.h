// A mutation run: mutants in an order drawn by a seed, each built and tested until so many count.
#pragma once

#include "tests/mutation/equivalent.h"
#include "tests/mutation/mutants.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace mutation {

enum class MutantStatus {
    kRefused,   // does not compile, or the build's own warnings refuse it: does not count
    kSameCode,  // the compiler makes the same code of it: does not count
    kKilled,    // a test failed
    kSurvived,  // no test failed
};

struct Verdict {
    MutantStatus status = MutantStatus::kRefused;
    std::string killedBy;  // the program of the tests
};

struct Result {
    Mutant mutant;
    Verdict verdict;
    std::string reason;  // why it is equivalent, by the list; empty: it is not listed
};

struct Plan {
    std::uint64_t seed = 0;
    std::size_t wanted = 0;  // mutants that count
    unsigned workers = 1;
};

// Builds and tests one mutant; `worker` distinguishes calls that run at the same time.
using Judge = std::function<Verdict(const Mutant& mutant, unsigned worker)>;
using OnResult = std::function<void(const Result& result)>;

// The results in the order drawn. The same mutants, seed and verdicts give the same results, however many workers there
// are. onResult is called for each as it comes, one at a time.
[[nodiscard]] std::vector<Result> RunCampaign(std::vector<Mutant> mutants, const Equivalents& equivalents,
                                              const Plan& plan, const Judge& judge, const OnResult& onResult);

// The counts and the table of survivors.
[[nodiscard]] std::string Summary(const std::vector<Result>& results, std::size_t all, const Plan& plan);

// One result, as a line.
[[nodiscard]] std::string LineOf(const Result& result);

// Whether a mutant was tested: not when it does not compile or makes the same code.
[[nodiscard]] bool Counts(const Result& result);

// Whether a survivor is not listed, or a listed mutant was killed.
[[nodiscard]] bool IsWrong(const Result& result);

}  // namespace mutation
