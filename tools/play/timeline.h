// What happened in a run, entry by entry, printed as it happens: as columns for people, or as one JSON object a line.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>

namespace play {

enum class EntryKind {
    kHeading,   // a note of the scenario's
    kCall,      // somebody calls the Notifier, or the system does
    kCallback,  // the Notifier calls somebody
    kAnswer,    // what was answered to a callback
    kReport,    // an event or trace message that a session recorded
    kTrouble,   // a violation that the host found, or a thread that was set aside
};

struct Entry {
    EntryKind kind = EntryKind::kCall;
    std::string who;
    std::string whom;
    std::string what;
    std::string outcome;  // a status, or empty
    bool good = true;
};

class Timeline {
public:
    enum class Form { kText, kJson };

    Timeline(std::ostream& out, Form form, bool color) : out_(out), form_(form), color_(color) {}

    void Add(const Entry& entry);

    // The step that the entries from now on belong to; 0 before the first.
    void BeginStep(unsigned step) { step_ = step; }

    // The last line of a run.
    void Close(const std::string& summary, bool good);

private:
    void PrintText(const Entry& entry);
    void PrintJson(const Entry& entry);
    [[nodiscard]] std::string Colored(const char* code, const std::string& text) const;

    std::ostream& out_;
    Form form_;
    bool color_;
    unsigned step_ = 0;
    unsigned printedStep_ = 0;
};

}  // namespace play
