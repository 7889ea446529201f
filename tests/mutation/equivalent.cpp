#include "tests/mutation/equivalent.h"

#include <ranges>
#include <stdexcept>

namespace mutation {

std::string EntryOf(const Mutant& mutant)
{
    const std::string function = mutant.function.empty() ? "" : ", " + mutant.function;
    return mutant.file + function + "\n" + mutant.lineText + "\n" + mutant.change + "\n";
}

Equivalents::Equivalents(std::istream& list)
{
    std::string entry;
    unsigned lines = 0;  // of the entry
    const auto refuse = [&](const std::string& why) {
        throw std::runtime_error("the list of equivalent mutants: " + why + ":\n" + entry);
    };
    for (std::string line; std::getline(list, line);) {
        if (lines == 0 && (line.empty() || line.starts_with("#"))) {
            continue;
        }
        if (line.empty()) {
            refuse("an entry is file and function, source line, change, reason");
        }
        if (++lines < 4) {
            entry += line + "\n";
            continue;
        }
        if (!reasons_.emplace(entry, line).second) {
            refuse("this entry is there twice");
        }
        entry.clear();
        lines = 0;
    }
    if (lines != 0) {
        refuse("the last entry is not complete");
    }
}

std::string Equivalents::ReasonFor(const Mutant& mutant) const
{
    const auto found = reasons_.find(EntryOf(mutant));
    return found == reasons_.end() ? "" : found->second;
}

std::vector<std::string> Equivalents::Stale(const std::vector<Mutant>& all) const
{
    std::map<std::string, std::string> left = reasons_;
    for (const Mutant& mutant : all) {
        left.erase(EntryOf(mutant));
    }
    const auto entries = std::views::keys(left);
    return {entries.begin(), entries.end()};
}

}  // namespace mutation
