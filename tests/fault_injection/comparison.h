// A sequence on both sides, driver and reference model, and the first difference between them.
#pragma once

#include "tests/fault_injection/observed.h"
#include "tests/fault_injection/reference_model.h"

#include <memory>

namespace fault_injection {

class Comparison;

struct Plan {
    [[nodiscard]] std::string Text() const { return fault ? fault->Text() : "without a fault"; }

    const Sequence& sequence;
    std::optional<Fault> fault = {};
    std::uint64_t hideAt = 0;
    host::TraceRoutes routes = host::TraceRoutes::kClassic;
    bool isInTracing = false;           // the fault: only records may differ
    const Comparison* whole = nullptr;  // of the sequence without a fault; null: all of it is compared anew
    std::function<void(const host::ObservedCall&, host::Machine&)> onCall = {};
};

// Runs one sequence and compares after each operation. Up to the fault's operation a sequence goes as without the
// fault, where it has been compared: it only runs up to there.
class Comparison {
public:
    // Adds the sites that it reaches; a sequence that reaches new ones leaves its reports for the test that asks for
    // all.
    Comparison(const tests::Container& container, const Plan& plan, std::set<Site>& sites);

    std::string difference;   // "" when all was as expected
    std::vector<Call> calls;  // of a sequence without a fault
    Lines records;
    std::vector<std::uint64_t> numbers;  // of the fallible calls among all platform calls
    std::uint64_t callCount = 0;

private:
    // A sequence without a fault, before one of its operations.
    struct Start {
        bool isAllowed;
        std::uint64_t callCount;
        std::size_t recordCount;
        std::map<std::string, unsigned, std::less<>> tracingCalls;
        ReferenceModel reference;
    };

    // The operation in which a fault is injected, and how often its function is called before that.
    [[nodiscard]] std::pair<std::size_t, unsigned> PlaceOf(const Fault& fault) const;
    void RunUpToFault();
    void RunSequence();
    Step Run(const Operation& operation);
    void CompareRecords();
    [[nodiscard]] std::string Where() const;  // the operation under way
    [[nodiscard]] bool IsInjected() const
    {
        return plan_.isInTracing ? observed_->InjectedCount() != 0 : reference_.injected() != 0;
    }

    const Plan& plan_;
    Sequence sequence_;           // under way
    std::size_t index_ = 0;       // in the sequence
    bool reloaded_ = false;       // the fault is over, and the image has been loaded once more
    bool injectedAtEnd_ = false;  // by removal or unload
    ReferenceModel reference_;
    std::vector<Start> starts_;  // of a sequence without a fault, for each operation
    std::map<std::string, unsigned, std::less<>> tracingCalls_;
    std::unique_ptr<ObservedRun> observed_;  // for as long as the sequence lasts: one machine at a time
};

}  // namespace fault_injection
