// What a sweep did, in figures.
#pragma once

#include "tests/sweep/actual.h"

namespace sweep {

// ZEPN_SWEEP=short: no sticky faults, and every tenth record lost. ZEPN_SWEEP=thin, and sanitized builds unless it says
// otherwise: of that only every seventh call. Loaded drivers stay mapped under sanitizers, so lives get slower there.
[[nodiscard]] bool IsShort();
[[nodiscard]] unsigned Stride();

class Figures {
public:
    void Count(const Fault& fault, bool tracing);

    // The catalogue's sites that are missing, by the shipped format files; a site is known by its trace message.
    [[nodiscard]] static Lines Unreached(const std::set<Site>& reached);

    // Prints them and writes them to build/<preset>/figures/sweep-<container>.txt.
    void Write(const std::string& container, const std::set<Site>& reached) const;

    std::size_t callCount = 0;          // platform calls in a whole life
    std::size_t foreseenCallCount = 0;  // of which fail for the driver to notice
    std::size_t paths = 0;              // 0: not known on this container

private:
    std::map<std::string, unsigned> byForm_;
    unsigned sticky_ = 0;
    unsigned total_ = 0;
};

}  // namespace sweep
