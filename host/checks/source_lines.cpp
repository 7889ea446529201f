#include "host/checks/source_lines.h"

#include "host/checks/tool.h"

#include <charconv>
#include <cstdio>
#include <set>
#include <sstream>
#include <utility>

namespace host::checks {
namespace {

constexpr const char* kSymbolizer = "llvm-symbolizer-19";
constexpr const char* kArrow = " \u2192 ";
constexpr std::size_t kFunctionsMaximum = 32;  // of a path; the innermost

struct SourceLine {
    std::string function;
    std::string file;  // without its folder
    unsigned line = 0;
};

// The function that the code was compiled into comes first, then what is inlined there.
using SourceLines = std::vector<SourceLine>;
using Key = std::pair<std::string, std::uint64_t>;  // file and offset

struct Known {
    std::mutex mutex;
    std::map<Key, SourceLines> lines;
    bool hasSymbolizer = true;
};

Known& TheKnown()
{
    static auto* known = new Known;  // a report may be the last act of a process
    return *known;
}

Key KeyOf(const CodePlace& place)
{
    return {place.file.string(), place.offset};
}

// "C:\src\driver\state_posting.cpp:74:0", on whatever system the image was built.
SourceLine ParsePlace(const std::string& function, const std::string& place)
{
    SourceLine line{BareName(function), "", 0};
    const std::size_t column = place.rfind(':');
    const std::size_t number = column == std::string::npos ? column : place.rfind(':', column - 1);
    if (number == std::string::npos || place.starts_with("??")) {
        return line;
    }
    const std::size_t folder = place.find_last_of("/\\", number);
    const std::size_t name = folder == std::string::npos ? 0 : folder + 1;
    line.file = place.substr(name, number - name);
    std::from_chars(place.data() + number + 1, place.data() + column, line.line);
    return line;
}

// Asks for all at once. Answers come in the order of the questions: pairs of lines, innermost function first, and an
// empty line.
void Ask(Known& known, const std::vector<CodePlace>& places)
{
    std::vector<Key> asked;
    std::string questions;
    for (const CodePlace& place : places) {
        if (known.lines.try_emplace(KeyOf(place)).second) {
            char offset[24];
            std::snprintf(offset, sizeof(offset), "0x%llx", static_cast<unsigned long long>(place.offset));
            questions += "CODE \"" + place.file.string() + "\" " + offset + "\n";
            asked.push_back(KeyOf(place));
        }
    }
    if (asked.empty() || !known.hasSymbolizer) {
        return;
    }
    const auto answers = AskTool({kSymbolizer, "--relative-address", "--functions=short", "--inlines"}, questions);
    known.hasSymbolizer = answers.has_value();
    std::istringstream stream(answers.value_or(""));
    for (const Key& key : asked) {
        SourceLines& lines = known.lines[key];
        std::string function;
        std::string place;
        while (std::getline(stream, function) && !function.empty() && std::getline(stream, place)) {
            if (const SourceLine line = ParsePlace(function, place); !line.file.empty()) {
                lines.insert(lines.begin(), line);
            }
        }
    }
}

// What the platform's headers wrap around a call of the framework says nothing that the call does not.
bool IsWrapper(const SourceLine& line)
{
    return line.function.starts_with("Wdf") && line.file.ends_with(".h");
}

void Append(const CodePlace& place, const SourceLines& lines, std::vector<std::string>& functions)
{
    if (lines.empty()) {
        functions.push_back(place.Text());
        return;
    }
    for (const SourceLine& line : lines) {
        const bool isOuter = &line == &lines.front();
        if (isOuter || !IsWrapper(line)) {
            // Debug information of lines alone has no name for it; the image's symbols do.
            const std::string& function = isOuter && !place.function.empty() ? place.function : line.function;
            functions.push_back(place.module + "!" + function + " (" + line.file +
                                (line.line != 0 ? ":" + std::to_string(line.line) : "") + ")" +
                                (place.isUnloaded ? ", which is unloaded" : ""));
        }
    }
}

}  // namespace

std::string BareName(const std::string& name)
{
    const std::string plain = name.substr(0, name.find_first_of("(<"));
    return plain.substr(plain.find_last_of(" :*&'") + 1);
}

std::string PathText(const std::vector<CodePlace>& path)
{
    Known& known = TheKnown();
    const std::lock_guard lock(known.mutex);
    const std::size_t left = path.size() - std::min(path.size(), kFunctionsMaximum);
    const std::vector<CodePlace> shown(path.begin() + static_cast<std::ptrdiff_t>(left), path.end());
    Ask(known, shown);
    std::vector<std::string> functions;
    std::set<std::string> without;
    for (const CodePlace& place : shown) {
        const SourceLines& lines = known.lines[KeyOf(place)];
        Append(place, lines, functions);
        if (lines.empty()) {
            without.insert(place.module);
        }
    }
    std::string text = left != 0 ? "..." : "";
    for (const std::string& function : functions) {
        text += (text.empty() ? "" : kArrow) + function;
    }
    if (!known.hasSymbolizer) {
        return text + " (no source lines: " + kSymbolizer + " is not installed)";
    }
    std::string modules;
    for (const std::string& module : without) {
        modules += (modules.empty() ? "" : ", ") + module;
    }
    return text + (modules.empty() ? "" : " (no source lines for lack of debug information: " + modules + ")");
}

}  // namespace host::checks
