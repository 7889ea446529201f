// A sequence on the model and on the driver side by side, and the search for the shortest sequence that goes wrong.
#pragma once

#include "tests/model/model.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

namespace model {

struct Mismatch {
    std::size_t operation = 0;  // index; one past the last: at the end of the sequence
    std::string text;           // what the model expected and what the driver did, or how the process ended
};

struct Totals {
    std::uint64_t sequences = 0;
    std::uint64_t operations = 0;
    std::uint64_t callbacks = 0;
    std::uint64_t hangs = 0;
    std::uint64_t states = 0;  // internal states compared
    std::size_t position = 0;  // of the sequence under way: the operation, as Mismatch counts them
};

// Runs a playable sequence on both sides. Whatever goes wrong is a mismatch, also an image that does not load.
[[nodiscard]] std::optional<Mismatch> Run(const Sequence& sequence, const std::filesystem::path& image, Totals& totals,
                                          Model::ModelBug bug = Model::ModelBug::kNone);

// In a process of its own: whatever ends that process, or keeps it for so many seconds of processor time, is a mismatch
// too. The calling thread must be the only one of its process.
[[nodiscard]] std::optional<Mismatch> RunInOwnProcess(const Sequence& sequence, const std::filesystem::path& image,
                                                      double watchdogSeconds,
                                                      Model::ModelBug bug = Model::ModelBug::kNone);

// Whether a sequence still fails.
using Fails = std::function<bool(const Sequence&)>;

// Leaves out operations and answers, and makes numbers small, as long as the sequence fails. The result is playable.
[[nodiscard]] Sequence Shrink(Sequence sequence, const Fails& fails);

// The sequence as a scenario file that ./zepn demo plays, with the statuses that the model expects.
[[nodiscard]] std::string Scenario(const Sequence& sequence, const std::string& title,
                                   const std::optional<Mismatch>& mismatch = std::nullopt);

struct Finding {
    std::uint64_t seed = 0;
    std::uint64_t number = 0;  // of the sequence
    Sequence sequence;         // shrunk
    Mismatch mismatch;
    bool again = true;  // it fails alone, too; else it is not shrunk
};

inline constexpr double kWatchdogSeconds = 60;  // with a sequence, which takes some milliseconds

struct Budget {
    std::uint64_t seed = 1;
    std::uint64_t sequences = 0;  // 0: no bound
    double seconds = 0;           // 0: no bound
};

// Runs the sequences of a seed until one fails or the budget is spent, then shrinks that one, all in child processes; a
// new process begins only where a sequence has ended the one before. Throws host::HostError when the image is refused.
[[nodiscard]] std::optional<Finding> Search(const Budget& budget, const std::filesystem::path& image, Totals& totals,
                                            Model::ModelBug bug = Model::ModelBug::kNone);

// "model-based test (x64): 1200 operation sequences, ...", one line.
[[nodiscard]] std::string Statistics(const Totals& totals, double seconds, const std::string& where);

// Seed, operations and what went wrong, for people.
[[nodiscard]] std::string Report(const Finding& finding);

// The scenario of a finding, and what whoever plays it has to know: it may end well.
[[nodiscard]] std::string Scenario(const Finding& finding);
inline constexpr const char* kLookFor =
    "The demo holds statuses against what is expected and finds violations and faults by itself. Who is notified of "
    "what, and "
    "what is queued and counted, it only shows: there it ends with 0, and the notes say what should differ.";

}  // namespace model
