// The mutants of a source: each is the source with one small fault, placed by the compiler's syntax tree.
#pragma once

#include "tests/mutation/syntax_tree.h"

namespace mutation {

struct Edit {
    Range range;
    std::string text;
    auto operator<=>(const Edit&) const = default;
};

struct Mutant {
    std::string file;  // below the project's root
    std::string function;
    unsigned line = 0;
    std::string lineText;     // without indentation
    std::string kind;         // "comparison", "dropped call", ...
    std::string change;       // what is done to the line: "`<` -> `<=`"; numbered where a line allows it several times
    std::vector<Edit> edits;  // in order, apart from one another
};

// All mutants of a source, in the order of its text.
[[nodiscard]] std::vector<Mutant> MutantsOf(const SyntaxTree& tree, const std::string& file, const std::string& text);

// The source's text with the mutant's fault.
[[nodiscard]] std::string Apply(const Mutant& mutant, const std::string& text);

}  // namespace mutation
