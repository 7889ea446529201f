// What happened in a run, entry by entry, printed as it happens: as columns for people, or as one JSON object a line.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace play {

// How those are called on the timeline who are no clients of the scenario's.
inline constexpr const char* kNotifier = "notifier";
inline constexpr const char* kSystem = "system";
inline constexpr const char* kCrashDump = "crash dump";
inline constexpr const char* kApplication = "application";

enum class EntryKind {
    kHeading,   // a note of the scenario's
    kCall,      // somebody calls the Notifier, or the system does
    kCallback,  // the Notifier calls somebody
    kAnswer,    // what was answered to a callback
    kReport,    // an event or trace message that a session recorded
    kPrint,     // what a driver printed for the debugger
    kFault,     // a platform call that fails because the scenario says so
    kFinding,   // a violation that the host found, or a thread that was set aside
};

struct Entry {
    EntryKind kind = EntryKind::kCall;
    std::string who;
    std::string whom;
    std::string what;
    std::string outcome;  // a status, or empty
    bool good = true;
    std::string path = {};  // of a finding: lines, by which functions of the drivers it came
};

// A span of work on somebody's thread: a call into the Notifier, a run of a work item, a callback.
struct Span {
    enum class Kind { kCall, kWorkItem, kCallback };

    Kind kind = Kind::kCall;
    std::string who;       // whose thread, or whose callback; of a work item its routine
    std::string name;      // operation or callback
    std::string causedBy;  // what was passed on to a callback ("state power 3"); empty when nothing was
};

// Sees a run as it happens, beside what is printed.
class Observer {
public:
    virtual ~Observer() = default;
    virtual void OnEntry(unsigned step, const Entry& entry) = 0;
    virtual void OnBegin(unsigned step, const Span& span) { (void)step, (void)span; }
    // The innermost open span of `who` gives something to be passed on.
    virtual void OnCause(const std::string& who, const std::string& cause) { (void)who, (void)cause; }
    // The innermost open span of `who` ends. That of a thread that hangs never does.
    virtual void OnEnd(const std::string& who, const std::string& outcome) { (void)who, (void)outcome; }
};

class Timeline {
public:
    enum class Form { kText, kJson };

    Timeline(std::ostream& out, Form form, bool color) : out_(out), form_(form), color_(color) {}

    void Add(const Entry& entry);

    // Observers see everything from now on, and must outlive the run.
    void AddObserver(Observer& observer) { observers_.push_back(&observer); }
    void Begin(const Span& span);
    void Cause(const std::string& who, const std::string& cause);
    void End(const std::string& who, const std::string& outcome = "");

    // The step that the entries from now on belong to; 0 before the first.
    void BeginStep(unsigned step)
    {
        step_ = step;
        stepTexts_.clear();
    }
    // What all its entries said, in their order.
    [[nodiscard]] const std::vector<std::string>& StepTexts() const { return stepTexts_; }

    // The last line of a run.
    void Close(const std::string& summary, bool good);

private:
    void PrintText(const Entry& entry);
    void PrintJson(const Entry& entry);
    [[nodiscard]] std::string Colored(const char* code, const std::string& text) const;

    std::vector<Observer*> observers_;
    std::ostream& out_;
    Form form_;
    bool color_;
    unsigned step_ = 0;
    unsigned printedStep_ = 0;
    std::vector<std::string> stepTexts_;
};

}  // namespace play
