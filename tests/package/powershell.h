// The outer form of a PowerShell script: quotes, comments and brackets. No more is to be had here: Debian has no parser
// for the language.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

namespace tests {

// What is wrong with the form, with its line; empty when nothing is. Expressions inside of quotes are looked into.
class PowerShellForm {
public:
    static std::string Fault(const std::string& text) { return PowerShellForm(text).Check(); }

private:
    explicit PowerShellForm(const std::string& text) : text_(text) {}

    std::string Check()
    {
        while (at_ < text_.size() && fault_.empty()) {
            Step();
        }
        if (fault_.empty() && !open_.empty()) {
            return std::string(1, open_.back()) + " is not closed";
        }
        return fault_;
    }

    void Step()
    {
        const char letter = text_[at_];
        line_ += letter == '\n' ? 1 : 0;
        if (!open_.empty() && open_.back() == '"') {
            InDoubleQuotes(letter);
        } else if (text_.compare(at_, 2, "<#") == 0) {
            Skip("#>");
        } else if (letter == '#') {
            at_ = std::min(text_.find('\n', at_), text_.size());
        } else if (letter == '\'') {
            Skip("'");
        } else if (letter == '`') {
            at_ += 2;
        } else {
            Bracket(letter);
            ++at_;
        }
    }

    void InDoubleQuotes(char letter)
    {
        if (letter == '`') {
            at_ += 2;
        } else if (text_.compare(at_, 2, "$(") == 0) {
            open_.push_back('(');
            at_ += 2;
        } else {
            if (letter == '"') {
                open_.pop_back();
            }
            ++at_;
        }
    }

    void Bracket(char letter)
    {
        const std::string opening = "([{";
        const std::string closing = ")]}";
        if (letter == '"' || opening.find(letter) != std::string::npos) {
            open_.push_back(letter);
        } else if (const std::size_t kind = closing.find(letter); kind != std::string::npos) {
            if (open_.empty() || open_.back() != opening[kind]) {
                fault_ = "line " + std::to_string(line_) + ": " + letter + " closes nothing";
                return;
            }
            open_.pop_back();
        }
    }

    // Past the end of what begins here.
    void Skip(const std::string& end)
    {
        const std::size_t last = text_.find(end, at_ + 1);
        if (last == std::string::npos) {
            fault_ = "line " + std::to_string(line_) + ": " + text_[at_] + " is not closed";
            return;
        }
        for (; at_ < last + end.size(); ++at_) {
            line_ += text_[at_] == '\n' ? 1 : 0;
        }
    }

    const std::string& text_;
    std::size_t at_ = 0;
    unsigned line_ = 1;
    std::vector<char> open_;
    std::string fault_;
};

}  // namespace tests
