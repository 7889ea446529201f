// A run as a sequence diagram in Mermaid's text, which code-hosting pages draw.
#pragma once

#include "tools/play/timeline.h"

#include <map>
#include <ostream>
#include <set>
#include <string>
#include <vector>

namespace play {

class Diagram final : public Observer {
public:
    // With a part: only what happens below the notes that contain this text.
    explicit Diagram(std::string title, std::string part = "");

    void OnEntry(unsigned step, const Entry& entry) override;
    void OnBegin(unsigned step, const Span& span) override;

    // Whether any note of the run contained the part.
    [[nodiscard]] bool HasPart() const { return partSeen_; }

    void Write(std::ostream& out) const;

private:
    std::string Participant(const std::string& name);
    void DrawCall(const Entry& entry);

    const std::string title_;
    const std::string part_;
    bool drawing_;
    bool partSeen_ = false;
    std::vector<std::string> participants_;  // in order of appearance
    std::vector<std::string> lines_;
    // Where the call that is under way belongs: it is shown after its callbacks, and drawn before them.
    std::map<std::string, std::size_t> begun_;
};

}  // namespace play
