// What a sweep did, in figures.
#pragma once

#include "tests/sweep/actual.h"

namespace sweep {

// 1: every call fails. ZEPN_SWEEP=thin, and sanitized builds unless it says full: every seventh, and every seventieth
// record is lost. Loaded drivers stay mapped under sanitizers, so lives get slower and slower there.
[[nodiscard]] unsigned Stride();

class Figures {
public:
    void Count(const Fault& fault, bool tracing);

    // The catalogue's sites that are missing, by the shipped format files; a site is known by its trace message.
    [[nodiscard]] static Lines Unreached(const std::set<Site>& reached);

    // Prints them and writes them to build/<preset>/figures/sweep-<container>-<kind>.txt.
    void Write(const std::string& container, const std::string& kind, const std::set<Site>& reached) const;

    std::size_t callCount = 0;          // platform calls in a whole life
    std::size_t foreseenCallCount = 0;  // of which fail for the driver to notice
    std::size_t lookupCount = 0;        // of the driver object, which takes no call and fails too
    std::size_t paths = 0;              // 0: not known on this container

private:
    std::map<std::string, unsigned> byForm_;
    unsigned total_ = 0;
};

}  // namespace sweep
