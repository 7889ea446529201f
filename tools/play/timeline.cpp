#include "tools/play/timeline.h"

#include <nlohmann/json.hpp>

#include <iomanip>
#include <sstream>

namespace play {
namespace {

constexpr std::size_t kNameWidth = 12;
constexpr std::size_t kWhatWidth = 58;

constexpr const char* kRed = "31;1";
constexpr const char* kGreen = "32";
constexpr const char* kBold = "1";
constexpr const char* kDim = "2";
constexpr const char* kCyan = "36";

const char* KindName(EntryKind kind)
{
    constexpr const char* kNames[] = {"heading", "call", "callback", "answer", "report", "print", "fault", "finding"};
    return kNames[static_cast<int>(kind)];
}

std::string Padded(std::string text, std::size_t width)
{
    if (text.size() < width) {
        text.append(width - text.size(), ' ');
    }
    return text;
}

}  // namespace

std::string Timeline::Colored(const char* code, const std::string& text) const
{
    return color_ ? std::string("\x1b[") + code + "m" + text + "\x1b[0m" : text;
}

void Timeline::Add(const Entry& entry)
{
    if (form_ == Form::kJson) {
        PrintJson(entry);
    } else {
        PrintText(entry);
    }
    out_.flush();
    stepTexts_.push_back(entry.what);
    for (Observer* observer : observers_) {
        observer->OnEntry(step_, entry);
    }
}

void Timeline::Begin(const Span& span)
{
    for (Observer* observer : observers_) {
        observer->OnBegin(step_, span);
    }
}

void Timeline::Cause(const std::string& who, const std::string& cause)
{
    for (Observer* observer : observers_) {
        observer->OnCause(who, cause);
    }
}

void Timeline::End(const std::string& who, const std::string& outcome)
{
    for (Observer* observer : observers_) {
        observer->OnEnd(who, outcome);
    }
}

void Timeline::PrintText(const Entry& entry)
{
    if (entry.kind == EntryKind::kHeading) {
        out_ << "\n" << Colored(kBold, "     " + entry.what) << "\n";
        return;
    }
    std::ostringstream step;
    if (step_ != printedStep_ && step_ != 0) {
        step << std::setw(3) << step_;
        printedStep_ = step_;
    } else {
        step << "   ";
    }
    if (entry.kind == EntryKind::kReport || entry.kind == EntryKind::kPrint) {
        out_ << step.str() << "    " << Colored(kDim, Padded(entry.who, kNameWidth) + "  " + entry.what) << "\n";
        return;
    }
    if (entry.kind == EntryKind::kFault) {
        out_ << step.str() << "    " << Colored(kBold, Padded(entry.who, kNameWidth) + "  " + entry.what) << "\n";
        return;
    }
    if (entry.kind == EntryKind::kFinding) {
        out_ << step.str() << "  " << Colored(kRed, "!! " + entry.what) << "\n";
        std::istringstream path(entry.path);
        for (std::string pathLine; std::getline(path, pathLine);) {
            out_ << "        " << pathLine << "\n";
        }
        return;
    }
    const char* arrow = entry.kind == EntryKind::kCall ? "-->" : entry.kind == EntryKind::kCallback ? "==>" : "<==";
    const std::string indent = entry.kind == EntryKind::kCall ? "" : "   ";
    std::string line =
        indent + Padded(entry.who, kNameWidth) + " " + arrow + " " + Padded(entry.whom, kNameWidth) + " " + entry.what;
    if (!entry.outcome.empty()) {
        line = Padded(line, 2 * kNameWidth + 6 + kWhatWidth) + " ";
    }
    const std::string outcome =
        entry.good ? Colored(kGreen, entry.outcome) : Colored(kRed, entry.outcome + "  <-- not expected");
    out_ << step.str() << "  " << (entry.kind == EntryKind::kCall ? line : Colored(kCyan, line)) << outcome << "\n";
}

void Timeline::PrintJson(const Entry& entry)
{
    nlohmann::ordered_json object;
    object["step"] = step_;
    object["kind"] = KindName(entry.kind);
    object["who"] = entry.who;
    object["whom"] = entry.whom;
    object["what"] = entry.what;
    object["outcome"] = entry.outcome;
    object["good"] = entry.good;
    if (!entry.path.empty()) {
        object["path"] = entry.path;
    }
    out_ << object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << "\n";
}

void Timeline::Close(const std::string& summary, bool good)
{
    if (form_ == Form::kJson) {
        nlohmann::ordered_json object;
        object["kind"] = "end";
        object["what"] = summary;
        object["good"] = good;
        out_ << object.dump() << "\n";
        return;
    }
    out_ << "\n" << Colored(good ? kGreen : kRed, summary) << "\n";
}

}  // namespace play
