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
    std::vector<std::string> entry;
    const auto end = [&] {
        if (entry.empty()) {
            return;
        }
        if (entry.size() < 4) {
            throw std::runtime_error("the list of equivalent mutants: an entry is file and function, source line, "
                                     "changes, reason: " +
                                     entry.front());
        }
        for (std::size_t change = 2; change + 1 < entry.size(); ++change) {
            const std::string name = entry[0] + "\n" + entry[1] + "\n" + entry[change] + "\n";
            if (!reasons_.emplace(name, entry.back()).second) {
                throw std::runtime_error("the list of equivalent mutants has this twice:\n" + name);
            }
        }
        entry.clear();
    };
    for (std::string line; std::getline(list, line);) {
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
    std::map<std::string, std::string> left = reasons_;
    for (const Mutant& mutant : all) {
        left.erase(EntryOf(mutant));
    }
    const auto entries = std::views::keys(left);
    return {entries.begin(), entries.end()};
}

}  // namespace mutation
