// An INF as its reader on Windows takes it: sections of lines, each a key and a value.
#pragma once

#include "tests/package/assembled.h"

#include <map>
#include <vector>

namespace tests {

// Sections by name; each its lines, cut at the first '='. A line without one has an empty second half.
using Inf = std::map<std::string, std::vector<std::pair<std::string, std::string>>>;

inline Inf ReadInf(const fs::path& file)
{
    Inf inf;
    std::string section;
    for (std::string line : LinesOf(ReadAll(file))) {
        EXPECT_TRUE(line.ends_with('\r')) << file << ": " << line;
        line = Trimmed(line);
        if (line.empty() || line[0] == ';') {
            continue;
        }
        if (line[0] == '[') {
            section = line.substr(1, line.size() - 2);
            EXPECT_TRUE(inf.emplace(section, Inf::mapped_type()).second) << section << " stands twice";
            continue;
        }
        const std::size_t equals = line.find('=');
        inf[section].emplace_back(Trimmed(line.substr(0, equals)),
                                  equals == std::string::npos ? "" : Trimmed(line.substr(equals + 1)));
    }
    return inf;
}

inline std::string Value(const Inf& inf, const std::string& section, const std::string& key)
{
    if (inf.contains(section)) {
        for (const auto& [name, value] : inf.at(section)) {
            if (name == key) {
                return value;
            }
        }
    }
    ADD_FAILURE() << section << " lacks " << key;
    return {};
}

inline std::vector<std::string> Parts(const std::string& list)
{
    std::vector<std::string> parts;
    std::istringstream stream(list);
    for (std::string part; std::getline(stream, part, ',');) {
        parts.push_back(Trimmed(part));
    }
    return parts;
}

}  // namespace tests
