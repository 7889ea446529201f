// The list of mutants that no test can tell from the driver, each with its reason (tests/mutation/equivalent.txt).
//
// Entries stand between empty lines; lines that begin with # are comments:
//
//     driver/trace/messages.cpp, DisableMessages
//     WriteULongNoFence(&control.flags, 0);
//     without `WriteULongNoFence(&control.flags, 0)`
//     `0` -> `(0 + 1)`
//     nobody reads the field
//
// file, and function if it stands in one; the source line without its indentation; one change or more, each as the run
// prints it; why nothing can notice. Line numbers take no part, so an entry lasts until its line or function changes.
#pragma once

#include "tests/mutation/mutants.h"

#include <filesystem>
#include <istream>
#include <map>

namespace mutation {

// An entry without its reason.
[[nodiscard]] std::string EntryOf(const Mutant& mutant);

class Equivalents {
public:
    // Throws std::runtime_error, with the entry, when one is not complete or is there twice.
    explicit Equivalents(std::istream& list);

    // Why the mutant is equivalent; empty when it is not listed.
    [[nodiscard]] std::string ReasonFor(const Mutant& mutant) const;

    // The entries, one for each change, that are none of these mutants: what they name has changed or gone.
    [[nodiscard]] std::vector<std::string> Stale(const std::vector<Mutant>& all) const;

private:
    std::map<std::string, std::string> reasons_;  // by entry with one change
};

}  // namespace mutation
