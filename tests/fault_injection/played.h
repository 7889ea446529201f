// A life played on both sides, the real driver and the expectation, and what tells them apart.
#pragma once

#include "tests/fault_injection/actual.h"
#include "tests/fault_injection/expected.h"

#include <memory>

namespace sweep {

struct Plan {
    [[nodiscard]] std::string Text() const { return fault ? fault->Text() : "without a fault"; }

    const Life& life;
    std::optional<Fault> fault = {};
    std::uint64_t hideAt = 0;
    host::TraceRoutes routes = host::TraceRoutes::kClassic;
    const Lines* records = nullptr;  // of the life without fault: the fault is in tracing, and only records may differ
    std::function<void(const host::ObservedCall&, host::Machine&)> onCall = {};
};

// One life, played on both sides.
class Played {
public:
    // Adds the sites that it reaches; a life that reaches new ones leaves word of its reports.
    Played(const tests::Container& container, const Plan& plan, std::set<Site>& sites);

    std::string difference;  // "" when all was as expected
    std::vector<Call> calls;  // of a life without a fault
    Lines records;
    std::vector<std::uint64_t> numbers;  // of the fallible calls among all platform calls
    std::uint64_t callCount = 0;

private:
    void Live(Life life);
    Step Run(const Op& op);
    void CompareRecords();
    [[nodiscard]] std::string Where() const;  // the operation under way
    [[nodiscard]] bool HasStruck() const
    {
        return plan_.records != nullptr ? actual_->StruckCount() != 0 : expected_.struck() != 0;
    }

    const Plan& plan_;
    Life life_;                 // under way
    std::size_t index_ = 0;     // in the life
    bool reloaded_ = false;     // the fault is over, and the image has been loaded once more
    bool struckAtEnd_ = false;  // by removal or unload
    Expected expected_;
    std::unique_ptr<Actual> actual_;  // for as long as the life lasts: one machine at a time
};

}  // namespace sweep
