#include "tests/mutation/equivalent.h"

#include <set>
#include <stdexcept>

namespace mutation {

std::string EntryOf(const Mutant& mutant)
{
    const std::string function = mutant.function.empty() ? "" : ", " + mutant.function;
    return mutant.file + function + "\n" + mutant.lineText + "\n" + mutant.change + "\n";
}

Equivalents::Equivalents(std::istream& list)
{
    std::vector<std::string> entry;
    unsigned number = 0;
    const auto refuse = [&](const std::string& why) {
        throw std::runtime_error("the list of equivalent mutants, line " + std::to_string(number) + ": " + why);
    };
    const auto end = [&] {
        if (entry.empty()) {
            return;
        }
        if (entry.size() != 4) {
            refuse("an entry is file and function, source line, change, reason");
        }
        if (!reasons_.emplace(entry[0] + "\n" + entry[1] + "\n" + entry[2] + "\n", entry[3]).second) {
            refuse("this entry is there twice");
        }
        entry.clear();
    };
    for (std::string line; std::getline(list, line);) {
        ++number;
        if (line.empty()) {
            end();
        } else if (!line.starts_with("#") || !entry.empty()) {
            entry.push_back(line);
        }
    }
    end();
}

std::string Equivalents::ReasonFor(const Mutant& mutant) const
{
    const auto found = reasons_.find(EntryOf(mutant));
    return found == reasons_.end() ? "" : found->second;
}

std::vector<std::string> Equivalents::Stale(const std::vector<Mutant>& all) const
{
    std::set<std::string> entries;
    for (const Mutant& mutant : all) {
        entries.insert(EntryOf(mutant));
    }
    std::vector<std::string> stale;
    for (const auto& [entry, reason] : reasons_) {
        if (!entries.contains(entry)) {
            stale.push_back(entry);
        }
    }
    return stale;
}

}  // namespace mutation
