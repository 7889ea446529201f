#include "tools/play/diagram.h"

#include <algorithm>
#include <cctype>
#include <iterator>

namespace play {
namespace {

// Written where a note spans the whole width, which is known only at the end.
constexpr const char* kAcross = "<across>";

// Semicolons end a statement, and # begins an entity.
std::string Plain(const std::string& text)
{
    std::string plain;
    for (const char letter : text) {
        plain += letter == ';' ? "," : letter == '#' ? "no. " : letter == '\n' ? " " : std::string(1, letter);
    }
    return plain;
}

// From left to right: those who only call, the Notifier, the clients, the crash-dump driver.
constexpr int kLastLane = 3;
int LaneOf(const std::string& name)
{
    if (name == kSystem || name == kApplication) {
        return 0;
    }
    return name == kNotifier ? 1 : name == kCrashDump ? 3 : 2;
}

std::string OutcomeOf(const Entry& entry)
{
    return entry.outcome.empty() || entry.outcome == "STATUS_SUCCESS" ? "" : " (" + entry.outcome + ")";
}

std::string IdOf(const std::string& name)
{
    std::string id = name;
    std::replace_if(id.begin(), id.end(), [](unsigned char letter) { return std::isalnum(letter) == 0; }, '_');
    return id == "end" ? "end_" : id;  // a word of the language
}

}  // namespace

Diagram::Diagram(std::string title, std::string part)
    : title_(std::move(title)), part_(std::move(part)), drawing_(part_.empty())
{
}

std::string Diagram::Participant(const std::string& name)
{
    if (std::find(participants_.begin(), participants_.end(), name) == participants_.end()) {
        participants_.push_back(name);
    }
    return IdOf(name);
}

void Diagram::OnEntry(unsigned, const Entry& entry)
{
    if (entry.kind == EntryKind::kHeading && !part_.empty()) {
        drawing_ = entry.what.find(part_) != std::string::npos;
        partSeen_ = partSeen_ || drawing_;
    }
    if (!drawing_) {
        return;
    }
    const std::string notifier = Participant(kNotifier);
    switch (entry.kind) {
    case EntryKind::kHeading:
        lines_.push_back(kAcross + Plain(entry.what));
        return;
    case EntryKind::kCall:
        DrawCall(entry);
        return;
    case EntryKind::kCallback:
        lines_.push_back(notifier + "->>" + Participant(entry.whom) + ": " + Plain(entry.what) + OutcomeOf(entry));
        return;
    case EntryKind::kAnswer:
        lines_.push_back(Participant(entry.whom) + "-->>" + notifier + ": " + Plain(entry.what));
        return;
    case EntryKind::kReport:
        lines_.push_back("Note right of " + notifier + ": " + Plain(entry.who + ": " + entry.what));
        return;
    case EntryKind::kPrint:
    case EntryKind::kFault:
        lines_.push_back("Note over " + Participant(entry.who) + ": " + Plain(entry.what));
        return;
    case EntryKind::kFinding:
        lines_.push_back(kAcross + Plain("!! " + entry.what));
        return;
    }
}

void Diagram::OnBegin(unsigned, const Span& span)
{
    if (span.kind == Span::Kind::kCall) {
        begun_[span.who] = lines_.size();
    }
}

void Diagram::DrawCall(const Entry& entry)
{
    const std::string who = Participant(entry.who);
    const std::string whom = Participant(entry.whom);
    // Indented: the end of a call whose beginning was shown before its callbacks.
    const std::size_t begin = entry.what.find_first_not_of(' ');
    const std::string what = Plain(entry.what.substr(begin)) + OutcomeOf(entry);
    const auto begun = begun_.extract(entry.who);
    if (begin != 0) {
        lines_.push_back(whom + "-->>" + who + ": " + what);
        return;
    }
    const bool hasCallbacks = !begun.empty() && begun.mapped() < lines_.size();
    lines_.insert(hasCallbacks ? lines_.begin() + static_cast<std::ptrdiff_t>(begun.mapped()) : lines_.end(),
                  who + "->>" + whom + ": " + what);
    if (hasCallbacks) {
        lines_.push_back(whom + "-->>" + who + ": " + Plain(entry.outcome));
    }
}

void Diagram::Write(std::ostream& out) const
{
    std::vector<std::string> ordered;
    for (int lane = 0; lane <= kLastLane; ++lane) {
        std::copy_if(participants_.begin(), participants_.end(), std::back_inserter(ordered),
                     [lane](const std::string& name) { return LaneOf(name) == lane; });
    }
    out << "---\ntitle: " << Plain(title_) << "\n---\nsequenceDiagram\n";
    for (const std::string& name : ordered) {
        out << "    participant " << IdOf(name) << (IdOf(name) == name ? "" : " as " + name) << "\n";
    }
    for (const std::string& line : lines_) {
        if (!line.starts_with(kAcross)) {
            out << "    " << line << "\n";
            continue;
        }
        out << "    Note over " << IdOf(ordered.front())
            << (ordered.size() > 1 ? "," + IdOf(ordered.back()) : std::string()) << ": "
            << line.substr(std::string(kAcross).size()) << "\n";
    }
}

}  // namespace play
