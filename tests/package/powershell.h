// The outer form of a PowerShell script: quotes, comments and brackets. No more is to be had here: Debian has no parser
// for the language.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>

namespace tests {

// What is wrong with the form, with its line; empty when nothing is. Expressions inside of quotes are looked into.
inline std::string FaultOfPowerShell(const std::string& text)
{
    constexpr std::string_view kOpening = "([{";
    constexpr std::string_view kClosing = ")]}";
    std::string open;  // what is not closed yet, the innermost last
    std::size_t at = 0;
    const auto line = [&] {
        return "line " + std::to_string(1 + std::count(text.begin(), text.begin() + std::ptrdiff_t(at), '\n')) + ": ";
    };
    while (at < text.size()) {
        const char letter = text[at];
        const bool isQuoted = open.ends_with('"');
        const bool isComment = text.compare(at, 2, "<#") == 0;
        if (letter == '`') {
            at += 2;
        } else if (letter == '"') {
            isQuoted ? open.pop_back() : open.push_back('"');
            ++at;
        } else if (isQuoted) {
            const bool isExpression = text.compare(at, 2, "$(") == 0;
            open += isExpression ? "(" : "";
            at += isExpression ? 2 : 1;
        } else if (isComment || letter == '\'') {
            const std::size_t end = text.find(isComment ? "#>" : "'", at + 1);
            if (end == std::string::npos) {
                return line() + letter + " is not closed";
            }
            at = end + (isComment ? 2 : 1);
        } else if (letter == '#') {
            at = std::min(text.find('\n', at), text.size());
        } else {
            const std::size_t kind = kClosing.find(letter);
            if (kind != std::string_view::npos && !open.ends_with(kOpening[kind])) {
                return line() + letter + " closes nothing";
            }
            if (kind != std::string_view::npos) {
                open.pop_back();
            } else if (kOpening.find(letter) != std::string_view::npos) {
                open.push_back(letter);
            }
            ++at;
        }
    }
    return open.empty() ? "" : std::string(1, open.back()) + " is not closed";
}

}  // namespace tests
