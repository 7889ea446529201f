#include "tests/fault_injection/comparison.h"

#include "host/checks/crash.h"
#include "tests/fault_injection/sequences.h"

#include <algorithm>

namespace fault_injection {
namespace {

std::string Joined(const Lines& lines)
{
    std::string text;
    for (const std::string& line : lines) {
        text += "\n      " + line;
    }
    return text.empty() ? " nothing" : text;
}

// Names what one side has and the other has not.
void Compare(const char* what, const Lines& expected, const Lines& observed, std::string& difference)
{
    if (expected == observed) {
        return;
    }
    Lines missing;
    Lines surplus = observed;
    for (const std::string& line : expected) {
        const auto found = std::find(surplus.begin(), surplus.end(), line);
        if (found == surplus.end()) {
            missing.push_back(line);
        } else {
            surplus.erase(found);
        }
    }
    difference += std::string("\n    ") + what + ", missing:" + Joined(missing) +
                  "\n    instead:" + (missing.empty() && surplus.empty() ? " another order" : Joined(surplus));
}

// The kind of records that a fault in tracing costs, 'E' or 'M'; 0: none.
char KindLost(const Fault& fault, host::TraceRoutes routes)
{
    if (fault.function == "EtwWrite" || fault.function == "EtwRegister") {
        return 'E';
    }
    if (fault.function == "MmGetSystemRoutineAddress") {
        // Looked up in this order: version, writing, querying, the classic registration and its end. Without version or
        // classic registration there is still the WMI registration, which needs the query.
        constexpr unsigned kWriting = 1;
        constexpr unsigned kQuerying = 2;
        const bool losesQuery = fault.index == kQuerying && (fault.persistent || routes == host::TraceRoutes::kWmi);
        const bool losesWriting = fault.index == kWriting || (fault.index < kWriting && fault.persistent);
        return losesWriting || losesQuery ? 'M' : '\0';
    }
    const bool deregisters = fault.function == "IoWMIRegistrationControl" && fault.index != 0;
    return deregisters || fault.function == "EtwUnregister" ? '\0' : 'M';
}

// What is left of the records of a sequence when tracing itself fails: all but the one whose write failed, or none of
// the kind that has nowhere to go.
Lines Remaining(Lines records, const Fault& fault, host::TraceRoutes routes)
{
    const char kind = KindLost(fault, routes);
    const bool writes = fault.function == "EtwWrite" || fault.function == "WmiTraceMessage";
    unsigned number = 0;
    std::erase_if(records, [&](const std::string& record) {
        return record.front() == kind && (!writes || number++ == fault.index || fault.persistent);
    });
    return records;
}

std::string FirstDifference(const Lines& expected, const Lines& observed)
{
    const auto at = std::mismatch(expected.begin(), expected.end(), observed.begin(), observed.end());
    const auto text = [](const Lines& lines, auto position) { return position == lines.end() ? "none" : *position; };
    return at.first == expected.end() && at.second == observed.end()
               ? ""
               : "  record " + std::to_string(at.first - expected.begin()) + " of " + std::to_string(expected.size()) +
                     " should be " + text(expected, at.first) + ", but is " + text(observed, at.second) + " of " +
                     std::to_string(observed.size());
}

// What unload cannot put right when tracing itself fails.
Lines TracingLeftovers(const Fault& fault, unsigned injectedCount)
{
    constexpr unsigned kUnregisterLookUp = 4;  // the fifth look-up of a routine, after that of the classic route
    if (fault.function == "EtwUnregister") {
        return Lines(injectedCount, "registration at unload");  // the system keeps it
    }
    if (fault.function == "MmGetSystemRoutineAddress" && fault.index == kUnregisterLookUp) {
        return {"registration at unload"};  // the classic provider cannot be given back
    }
    if (fault.function == "IoWMIRegistrationControl" && fault.index == 0 && !fault.persistent) {
        return {"trace handle"};  // deregisters, without having asked whether it was registered
    }
    if (fault.function == "IoWMIRegistrationControl" && fault.index != 0) {
        return {"registration at unload"};
    }
    return {};
}

}  // namespace

Comparison::Comparison(const tests::Container& container, const Plan& plan, std::set<Site>& sites)
    : plan_(plan), sequence_(plan.sequence),
      reference_(plan.isInTracing ? std::nullopt : plan.fault, plan.fault ? nullptr : &calls)
{
    const host::checks::CrashContext words([this, &container] {
        return std::string("fault injection on ") + container.name + ": " + plan_.Text() + "; " + Where() +
               ", platform call " + std::to_string(observed_ ? observed_->calls() : callCount);
    });
    Options options{.fault = plan.fault,
                    .hideAt = plan.hideAt,
                    .routes = plan.routes,
                    .keepsRecords = !plan.fault || plan.isInTracing,
                    .onCall = {}};
    if (!plan.fault || plan.onCall) {
        options.onCall = [this](std::uint64_t number, const host::ObservedCall& call, FunctionKind kind) {
            if (kind == FunctionKind::kFallible) {
                numbers.push_back(number);
            } else if (kind == FunctionKind::kTracing) {
                ++tracingCalls_[call.function];
            }
            if (plan_.onCall) {
                plan_.onCall(call, observed_->machine());
            }
        };
    }
    observed_ = std::make_unique<ObservedRun>(container, std::move(options));
    RunUpToFault();
    RunSequence();
    CompareRecords();
    if (difference.empty() && plan.fault && !IsInjected()) {
        difference = "  the fault was never reached";
    }
    callCount = observed_->calls();
    if (difference.empty() && injectedAtEnd_ && reference_.Allows(Kind::kLoad)) {
        // A removal or unload that failed must not keep the image from being loaded again.
        observed_->machine().faults().Clear();
        reloaded_ = true;
        reference_ = reference_.Again();
        sequence_ = ShortSequence();
        index_ = 0;
        RunSequence();
    }
    const std::size_t before = sites.size();
    sites.insert(observed_->sites().begin(), observed_->sites().end());
    if (sites.size() > before) {
        observed_->NoteReportsSeen();
    }
    observed_.reset();
}

std::pair<std::size_t, unsigned> Comparison::PlaceOf(const Fault& fault) const
{
    const auto callsBefore = [&fault](const Start& start) {
        const auto found = start.tracingCalls.find(fault.function);
        return found != start.tracingCalls.end() ? found->second : start.reference.CallsOf(fault.function);
    };
    const auto after = std::ranges::upper_bound(starts_, fault.index, {}, callsBefore);
    return {after - starts_.begin() - 1, callsBefore(*std::prev(after))};
}

void Comparison::RunUpToFault()
{
    if (plan_.whole == nullptr) {
        observed_->Watch(0, 0);
        return;
    }
    const auto [operation, callsBefore] = plan_.whole->PlaceOf(*plan_.fault);
    const Start& start = plan_.whole->starts_[operation];
    for (; index_ < operation; ++index_) {
        if (plan_.whole->starts_[index_].isAllowed) {
            observed_->RunUnwatched(sequence_[index_]);
        }
    }
    reference_ = start.reference.With(plan_.isInTracing ? std::nullopt : plan_.fault);
    if (plan_.isInTracing) {
        const Lines& all = plan_.whole->records;
        records.assign(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(start.recordCount));
    }
    observed_->Watch(start.callCount, callsBefore);
}

void Comparison::RunSequence()
{
    for (; index_ < sequence_.size() && difference.empty(); ++index_) {
        const Operation& operation = sequence_[index_];
        const bool isAllowed = reference_.Allows(operation.kind);
        if (!plan_.fault) {
            starts_.push_back({isAllowed, observed_->calls(), observed_->records().size(), tracingCalls_,
                               reference_.With(std::nullopt)});
        }
        if (!isAllowed) {
            continue;
        }
        const bool injectedBefore = IsInjected();
        Step step = Run(operation);
        const bool isEnd = operation.kind == Kind::kRemove || operation.kind == Kind::kUnload;
        injectedAtEnd_ |= isEnd && !injectedBefore && IsInjected();
        const bool again =
            (operation.kind == Kind::kLoad || operation.kind == Kind::kAddDevice) && reference_.Allows(operation.kind);
        if (again && difference.empty()) {
            step = Run(operation);  // what failed once must be possible now
        }
        if (!difference.empty()) {
            difference = "  " + Where() + difference;
        }
        if (step.ends) {
            break;
        }
    }
}

std::string Comparison::Where() const
{
    return std::string(reloaded_ ? "after it, loaded again, " : "") +
           (index_ < sequence_.size() ? "operation " + std::to_string(index_) + " (" + Text(sequence_[index_]) + ")"
                                      : "the end of the sequence");
}

void Comparison::CompareRecords()
{
    records.insert(records.end(), observed_->records().begin(), observed_->records().end());
    std::size_t lostMessages = 0;
    if (difference.empty() && plan_.isInTracing) {
        const Lines& all = plan_.whole->records;
        const Lines remaining = Remaining(all, *plan_.fault, plan_.routes);
        difference = FirstDifference(remaining, records);
        const bool areMessages = KindLost(*plan_.fault, plan_.routes) == 'M';
        lostMessages = areMessages ? all.size() - remaining.size() : 0;
    }
    // An error event stands alone only where its message was lost.
    if (difference.empty() && observed_->badRecords().size() > lostMessages) {
        difference = "  records:" + Joined(observed_->badRecords());
    }
}

Step Comparison::Run(const Operation& operation)
{
    Step expected = reference_.Run(operation);
    // Where a platform function fails, the model knows already whether it does so in this operation.
    const bool isCompared = !plan_.fault || plan_.isInTracing || reloaded_ || IsInjected();
    Step observed;
    try {
        observed = observed_->Run(operation, isCompared);
    } catch (const host::HostError& error) {
        difference = std::string("\n    ") + error.what();
        return expected;
    }
    if (expected.status != observed.status) {
        difference += "\n    status " + expected.status + " expected, seen " + observed.status;
    }
    if (isCompared && (!plan_.isInTracing || reloaded_)) {
        Compare("reports", expected.reports, observed.reports, difference);  // else by all records, at the end
    } else if (isCompared && operation.kind == Kind::kUnload) {
        expected.violations = TracingLeftovers(*plan_.fault, observed_->InjectedCount());
    }
    Compare("callbacks", expected.callbacks, observed.callbacks, difference);
    Compare("calls", expected.calls, observed.calls, difference);
    // What is found at unload comes in the host's order.
    Lines rules[2] = {expected.violations, observed.violations};
    std::sort(rules[0].begin(), rules[0].end());
    std::sort(rules[1].begin(), rules[1].end());
    Compare("violations", rules[0], rules[1], difference);
    if (expected.ends != observed.ends) {
        difference += expected.ends ? "\n    it should hang" : "\n    it hangs";
    }
    if (!plan_.fault || reloaded_ || IsInjected()) {
        Alive expectedAlive = reference_.Alive();
        Alive observedAlive = observed_->Alive();
        if (!Alive::AreEqual(expectedAlive, observedAlive)) {
            Compare("alive", expectedAlive.Text(), observedAlive.Text(), difference);
        }
    }
    return expected;
}

}  // namespace fault_injection
