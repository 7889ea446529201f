#include "tests/fault_injection/played.h"

#include "host/checks/crash.h"
#include "tests/fault_injection/lives.h"

#include <algorithm>

namespace sweep {
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
void Compare(const char* what, const Lines& expected, const Lines& actual, std::string& difference)
{
    if (expected == actual) {
        return;
    }
    Lines missing;
    Lines surplus = actual;
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
        // classic registration there is still the legacy route, which needs the query.
        constexpr unsigned kWriting = 1;
        constexpr unsigned kQuerying = 2;
        const bool losesQuery = fault.index == kQuerying && (fault.sticky || routes == host::TraceRoutes::kLegacy);
        const bool losesWriting = fault.index == kWriting || (fault.index < kWriting && fault.sticky);
        return losesWriting || losesQuery ? 'M' : '\0';
    }
    const bool deregisters = fault.function == "IoWMIRegistrationControl" && fault.index != 0;
    return deregisters || fault.function == "EtwUnregister" ? '\0' : 'M';
}

// What is left of the records of a life when tracing itself fails: all but the one whose write failed, or none of the
// kind that has nowhere to go.
Lines Remaining(Lines records, const Fault& fault, host::TraceRoutes routes)
{
    const char kind = KindLost(fault, routes);
    const bool writes = fault.function == "EtwWrite" || fault.function == "WmiTraceMessage";
    unsigned number = 0;
    std::erase_if(records, [&](const std::string& record) {
        return record.front() == kind && (!writes || number++ == fault.index || fault.sticky);
    });
    return records;
}

std::string FirstDifference(const Lines& expected, const Lines& actual)
{
    const auto at = std::mismatch(expected.begin(), expected.end(), actual.begin(), actual.end());
    const auto text = [](const Lines& lines, auto position) { return position == lines.end() ? "none" : *position; };
    return at.first == expected.end() && at.second == actual.end()
               ? ""
               : "  record " + std::to_string(at.first - expected.begin()) + " of " + std::to_string(expected.size()) +
                     " should be " + text(expected, at.first) + ", but is " + text(actual, at.second) + " of " +
                     std::to_string(actual.size());
}

// What unload cannot put right when tracing itself fails.
Lines TracingLeftovers(const Fault& fault, unsigned struckCount)
{
    constexpr unsigned kUnregisterLookUp = 4;  // the fifth look-up of a routine, after that of the classic route
    if (fault.function == "EtwUnregister") {
        return Lines(struckCount, "registration at unload");  // the system does not let go
    }
    if (fault.function == "MmGetSystemRoutineAddress" && fault.index == kUnregisterLookUp) {
        return {"registration at unload"};  // the classic provider cannot be given back
    }
    if (fault.function == "IoWMIRegistrationControl" && fault.index == 0 && !fault.sticky) {
        return {"trace handle"};  // deregisters, without having asked whether it was registered
    }
    if (fault.function == "IoWMIRegistrationControl" && fault.index != 0) {
        return {"registration at unload"};
    }
    return {};
}

}  // namespace

Played::Played(const tests::Container& container, const Plan& plan, std::set<Site>& sites)
    : plan_(plan), expected_(plan.records != nullptr ? std::nullopt : plan.fault),
      actual_(std::make_unique<Actual>(container,
                                       Options{.fault = plan.fault,
                                               .hideAt = plan.hideAt,
                                               .routes = plan.routes,
                                               .keepsRecords = !plan.fault || plan.records != nullptr,
                                               .onCall = [this](std::uint64_t number, const host::ObservedCall& call) {
                                                   if (KindOf(call.function) == Kind::kFallible) {
                                                       numbers.push_back(number);
                                                   }
                                                   if (plan_.onCall) {
                                                       plan_.onCall(call, actual_->machine());
                                                   }
                                               }}))
{
    const host::checks::LastWords words([this, &container] {
        return std::string("sweep on ") + container.name + ": " + plan_.Text() + "; " + Where() + ", platform call " +
               std::to_string(actual_ ? actual_->calls() : callCount);
    });
    Live(plan.life);
    CompareRecords();
    if (difference.empty() && plan.fault && !HasStruck()) {
        difference = "  the fault was never reached";
    }
    if (!plan_.fault) {
        calls = expected_.calls();
    }
    callCount = actual_->calls();
    if (difference.empty() && struckAtEnd_ && expected_.Allows(Do::kLoad)) {
        // An end that went wrong leaves nothing in the way of the next beginning.
        actual_->machine().faults().Clear();
        reloaded_ = true;
        expected_ = expected_.Again();
        Live(LegacyLife());
    }
    const std::size_t before = sites.size();
    sites.insert(actual_->sites().begin(), actual_->sites().end());
    if (sites.size() > before) {
        actual_->NoteReportsSeen();
    }
    actual_.reset();
}

void Played::Live(Life life)
{
    life_ = std::move(life);
    for (index_ = 0; index_ < life_.size() && difference.empty(); ++index_) {
        const Op& op = life_[index_];
        if (!expected_.Allows(op.what)) {
            continue;
        }
        const bool struckBefore = HasStruck();
        Step step = Run(op);
        const bool isEnd = op.what == Do::kRemove || op.what == Do::kUnload;
        struckAtEnd_ |= isEnd && !struckBefore && HasStruck();
        const bool again = (op.what == Do::kLoad || op.what == Do::kAddDevice) && expected_.Allows(op.what);
        if (again && difference.empty()) {
            step = Run(op);  // what failed once must be possible now
        }
        if (!difference.empty()) {
            difference = "  " + Where() + difference;
        }
        if (step.ends) {
            break;
        }
    }
}

std::string Played::Where() const
{
    return std::string(reloaded_ ? "after it, loaded again, " : "") +
           (index_ < life_.size() ? "operation " + std::to_string(index_) + " (" + Text(life_[index_]) + ")"
                                  : "the life's end");
}

void Played::CompareRecords()
{
    records = actual_->records();
    std::size_t lostMessages = 0;
    if (difference.empty() && plan_.records != nullptr) {
        const Lines remaining = Remaining(*plan_.records, *plan_.fault, plan_.routes);
        difference = FirstDifference(remaining, records);
        const bool areMessages = KindLost(*plan_.fault, plan_.routes) == 'M';
        lostMessages = areMessages ? plan_.records->size() - remaining.size() : 0;
    }
    // An error event stands alone only where its message was lost.
    if (difference.empty() && actual_->badRecords().size() > lostMessages) {
        difference = "  records:" + Joined(actual_->badRecords());
    }
}

Step Played::Run(const Op& op)
{
    Step expected = expected_.Run(op);
    Step actual;
    try {
        actual = actual_->Run(op);
    } catch (const host::HostError& error) {
        difference = std::string("\n    ") + error.what();
        return expected;
    }
    if (expected.status != actual.status) {
        difference += "\n    status " + expected.status + " expected, seen " + actual.status;
    }
    if (plan_.records == nullptr || reloaded_) {
        Compare("reports", expected.reports, actual.reports, difference);  // else by all records, at the end
    } else if (op.what == Do::kUnload) {
        expected.violations = TracingLeftovers(*plan_.fault, actual_->StruckCount());
    }
    Compare("callbacks", expected.callbacks, actual.callbacks, difference);
    Compare("calls", expected.calls, actual.calls, difference);
    // What is found at unload comes in the host's order.
    Lines rules[2] = {expected.violations, actual.violations};
    std::sort(rules[0].begin(), rules[0].end());
    std::sort(rules[1].begin(), rules[1].end());
    Compare("violations", rules[0], rules[1], difference);
    if (expected.ends != actual.ends) {
        difference += expected.ends ? "\n    it should stand still" : "\n    it stands still";
    }
    // Before the fault this life is the one without.
    if (!plan_.fault || reloaded_ || HasStruck()) {
        Compare("alive", expected_.Alive(), actual_->Alive(), difference);
    }
    return expected;
}

}  // namespace sweep
