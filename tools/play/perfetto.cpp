#include "tools/play/perfetto.h"

#include <algorithm>
#include <chrono>

namespace play {
namespace {

constexpr int kProcess = 1;

Perfetto::Clock WallClock()
{
    const auto begin = std::chrono::steady_clock::now();
    return
        [begin] { return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - begin).count(); };
}

// From top to bottom: those who only call, the clients in order of appearance, the work items, the crash-dump driver.
int SortIndex(const std::string& who, int track)
{
    constexpr int kWorkItems = 1000;
    constexpr int kCrashDump = 2000;
    if (who == "system" || who == "application") {
        return 0;
    }
    return who == "crash dump" ? kCrashDump : who.starts_with("NotifierEvtWorkItem") ? kWorkItems + track : track;
}

}  // namespace

Perfetto::Perfetto(std::string title, Clock clock)
    : title_(std::move(title)), clock_(clock ? std::move(clock) : WallClock())
{
}

// Never twice the same, so that viewers keep the order.
double Perfetto::Now()
{
    constexpr double kStepUs = 0.001;
    lastUs_ = std::max(clock_(), lastUs_ + kStepUs);
    return lastUs_;
}

int Perfetto::Track(const std::string& who)
{
    return tracks_.emplace(who, static_cast<int>(tracks_.size()) + 1).first->second;
}

void Perfetto::OnEntry(unsigned step, const Entry& entry)
{
    if (entry.kind == EntryKind::kPrint || entry.kind == EntryKind::kFault) {
        Print(step, entry);
        return;
    }
    if (entry.kind == EntryKind::kHeading || entry.kind == EntryKind::kReport || entry.kind == EntryKind::kFinding) {
        Instant(step, entry);
        return;
    }
    // What the innermost span of that peer was about.
    const std::string& who = entry.kind == EntryKind::kCall ? entry.who : entry.whom;
    const auto open = open_.find(who);
    if (open == open_.end() || open->second.empty()) {
        return;
    }
    std::string& text = open->second.back().span.name;
    text += text.find(": ") == std::string::npos ? ": " + entry.what : "; " + entry.what;
}

void Perfetto::Instant(unsigned step, const Entry& entry)
{
    const bool global = entry.kind == EntryKind::kHeading || onTop_.empty();
    events_.push_back({{"name", entry.who.empty() ? entry.what : entry.who + ": " + entry.what},
                       {"cat", entry.kind == EntryKind::kReport    ? "report"
                               : entry.kind == EntryKind::kFinding ? "finding"
                                                                   : "note"},
                       {"ph", "i"},
                       {"s", global ? "g" : "t"},
                       {"ts", Now()},
                       {"pid", kProcess},
                       {"tid", global ? Track("system") : Track(onTop_.back())},
                       {"args", {{"step", step}}}});
}

// On the track of the driver that printed it, whoever called that.
void Perfetto::Print(unsigned step, const Entry& entry)
{
    events_.push_back({{"name", entry.what},
                       {"cat", "print"},
                       {"ph", "i"},
                       {"s", "t"},
                       {"ts", Now()},
                       {"pid", kProcess},
                       {"tid", Track(entry.who)},
                       {"args", {{"step", step}}}});
}

void Perfetto::OnBegin(unsigned step, const Span& span)
{
    const double begin = Now();
    const int track = Track(span.who);
    open_[span.who].push_back({begin, step, span});
    onTop_.push_back(span.who);
    const auto cause = causes_.find(span.causedBy);
    if (span.causedBy.empty() || cause == causes_.end()) {
        return;
    }
    // An arrow binds to the slices that lie around its two ends.
    ++lastFlow_;
    const auto end = [&](const char* phase, int tid, double us) {
        nlohmann::ordered_json arrow = {{"name", "delivery"}, {"cat", "delivery"}, {"ph", phase}, {"id", lastFlow_},
                                        {"ts", us},           {"pid", kProcess},   {"tid", tid}};
        if (phase[0] == 'f') {
            arrow["bp"] = "e";
        }
        events_.push_back(std::move(arrow));
    };
    end("s", cause->second.track, cause->second.us);
    end("f", track, begin);
}

void Perfetto::OnCause(const std::string& who, const std::string& cause)
{
    causes_[cause] = {Track(who), Now()};
}

void Perfetto::OnEnd(const std::string& who, const std::string& outcome)
{
    std::vector<Open>& open = open_[who];
    if (open.empty()) {
        return;
    }
    events_.push_back(Slice(open.back(), Now(), outcome));
    open.pop_back();
    const auto top = std::find(onTop_.rbegin(), onTop_.rend(), who);
    onTop_.erase(std::next(top).base());
}

nlohmann::ordered_json Perfetto::Slice(const Open& open, double endUs, const std::string& outcome) const
{
    constexpr const char* kCategories[] = {"call", "work item", "callback"};
    nlohmann::ordered_json slice = {{"name", open.span.name},
                                    {"cat", kCategories[static_cast<int>(open.span.kind)]},
                                    {"ph", "X"},
                                    {"ts", open.beginUs},
                                    {"dur", endUs - open.beginUs},
                                    {"pid", kProcess},
                                    {"tid", tracks_.at(open.span.who)},
                                    {"args", {{"step", open.step}}}};
    if (!outcome.empty()) {
        slice["args"]["outcome"] = outcome;
    }
    return slice;
}

void Perfetto::Write(std::ostream& out) const
{
    // One event a line: viewers do not mind, and people can search.
    const char* separator = "\n";
    const auto put = [&](const nlohmann::ordered_json& event) {
        out << separator << event.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
        separator = ",\n";
    };
    out << R"({"displayTimeUnit": "ns", "traceEvents": [)";
    const auto describe = [&](const char* what, int tid, nlohmann::ordered_json value) {
        put({{"name", what}, {"ph", "M"}, {"pid", kProcess}, {"tid", tid}, {"args", std::move(value)}});
    };
    describe("process_name", 0, {{"name", title_}});
    for (const auto& [who, track] : tracks_) {
        describe("thread_name", track, {{"name", who}});
        describe("thread_sort_index", track, {{"sort_index", SortIndex(who, track)}});
    }
    for (const nlohmann::ordered_json& event : events_) {
        put(event);
    }
    for (const auto& [who, spans] : open_) {
        for (const Open& open : spans) {
            put(Slice(open, lastUs_ + 1, "hangs"));
        }
    }
    out << "\n]}\n";
}

}  // namespace play
