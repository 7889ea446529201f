// How much fault injection did.
#pragma once

#include "tests/fault_injection/observed.h"

namespace fault_injection {

// 1: every call fails. With ZEPN_FAULT=thin, and in sanitized builds unless it says full, every seventh does, and every
// seventieth record is lost: loaded drivers stay mapped under sanitizers, so sequences get slower and slower there.
[[nodiscard]] unsigned Stride();

// Kept by each shard by itself, and added up when all have run.
class Statistics {
public:
    void Count(const Fault& fault, bool tracing) { ++byForm_[tracing ? "tracing call fails" : Name(fault.form)]; }

    // Leaves one shard's statistics in build/<preset>/statistics/shards; reads them all again. A shard that left none,
    // or left them before this program was built, throws std::runtime_error with its name.
    void Save(const std::string& container, const std::string& kind, unsigned shard,
              const std::set<Site>& reached) const;
    [[nodiscard]] static Statistics OfAll(const std::string& container, const std::string& kind, unsigned shards);

    // The reporting sites that are missing, by the shipped format files; a site is known by its trace message.
    [[nodiscard]] Lines Unreached() const;

    // Prints them and writes them to build/<preset>/statistics/fault-injection-<container>-<kind>.txt.
    void Write(const std::string& container, const std::string& kind) const;

private:
    std::map<std::string, std::size_t> byForm_;
    std::set<Site> reached_;
};

}  // namespace fault_injection
