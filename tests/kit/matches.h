// What a text says in all places of one form.
#pragma once

#include <regex>
#include <set>
#include <string>

namespace tests {

// The first group of each place that the expression matches.
inline std::set<std::string> Matches(const std::string& text, const std::string& expression)
{
    std::set<std::string> found;
    const std::regex regex(expression);
    for (std::sregex_iterator at(text.begin(), text.end(), regex), end; at != end; ++at) {
        found.insert((*at)[1]);
    }
    return found;
}

}  // namespace tests
