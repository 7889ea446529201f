// Gives mutated files of one kind to what reads them. A file must be accepted, or refused with a sentence that names
// it; all else is a failure: a sentence without the name (as a library's), a signal, an exit, an abort, no end.
#pragma once

#include "tests/fuzz/mutate.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace fuzz {

// The name of the file that is read. A refusal begins with it.
inline constexpr const char* kFileName = "fuzzed-file";

struct FileKind {
    std::string name;  // "scenarios"
    // Good files to start from.
    std::function<std::vector<std::string>()> originals;
    // Words of the format for byte-wise mutation; may be empty.
    std::vector<std::string> words{};
    // Mutation that keeps the structure of the file, taken for half of all; may be empty.
    std::function<std::string(Mutator&, const std::string& original)> mutate{};
    // Empty when the file is accepted, else the sentence of its refusal; an exception's text is such a sentence. Runs
    // in a process of its own, after other files.
    std::function<std::string(const std::string& bytes)> read;
    // What the process prints when it may end with host::checks::kMemoryFaultExit, as a scenario may whose driver
    // faults: it must contain this. Empty: it may not.
    std::string memoryFault{};
};

struct FuzzBudget {
    std::uint64_t seed = 1;
    std::uint64_t files = 0;  // 0: as many as the time allows
    double seconds = 0;       // 0: no limit
};

struct FuzzStatistics {
    std::uint64_t accepted = 0;
    std::uint64_t refused = 0;
    std::uint64_t faulted = 0;  // ended by a memory fault that is reported as the kind asks
};

struct FuzzFailure {
    std::uint64_t number = 0;  // of the file: with the seed it names the file for good
    std::string what;
    std::string bytes;  // shrunk
};

// The file of this seed and number. Number 0 to originals - 1 are the originals as they are.
[[nodiscard]] std::string MutatedFile(const FileKind& kind, const std::vector<std::string>& originals,
                                      std::uint64_t seed, std::uint64_t number);

// The first failure; empty when there is none within the budget.
[[nodiscard]] std::optional<FuzzFailure> FuzzFiles(const FileKind& kind, const FuzzBudget& budget,
                                                   FuzzStatistics& statistics);

}  // namespace fuzz
