// A run as trace events in JSON, which Perfetto and Chrome's viewer open: a track for each client, each work item, the
// crash-dump driver and the system; calls, runs and callbacks as slices; arrows from what was posted to its deliveries;
// what real drivers print, on their tracks.
#pragma once

#include "tools/play/timeline.h"

#include <nlohmann/json.hpp>

#include <functional>
#include <map>
#include <ostream>
#include <string>
#include <vector>

namespace play {

class Perfetto final : public Observer {
public:
    // Microseconds since the run's begin; by default of the clock on the wall.
    using Clock = std::function<double()>;
    explicit Perfetto(std::string title, Clock clock = {});

    void OnEntry(unsigned step, const Entry& entry) override;
    void OnBegin(unsigned step, const Span& span) override;
    void OnCause(const std::string& who, const std::string& cause) override;
    void OnEnd(const std::string& who, const std::string& outcome) override;

    // Spans that are still open hang; they end with the picture.
    void Write(std::ostream& out) const;

private:
    struct Open {
        double beginUs;
        unsigned step;
        Span span;
    };
    struct Point {
        int track;
        double us;
    };
    int Track(const std::string& who);
    [[nodiscard]] nlohmann::ordered_json Slice(const Open& open, double endUs, const std::string& outcome) const;
    void Instant(unsigned step, const Entry& entry);
    void Print(unsigned step, const Entry& entry);
    [[nodiscard]] double Now();

    const std::string title_;
    const Clock clock_;
    double lastUs_ = -1;
    std::map<std::string, int> tracks_;
    std::map<std::string, std::vector<Open>> open_;  // by track; nested spans on top of one another
    std::vector<std::string> onTop_;                 // tracks of the open spans, innermost last
    std::map<std::string, Point> causes_;            // where each cause was given last
    int lastFlow_ = 0;
    nlohmann::ordered_json events_ = nlohmann::ordered_json::array();
};

}  // namespace play
