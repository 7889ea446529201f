// Each platform call of a life fails once, and once more with all later ones of its function, in every form that it
// has; what the driver shows must be what the expectation says, operation by operation, to the end of the life.
#include "host/checks/call_path.h"
#include "host/checks/crash.h"
#include "tests/sweep/actual.h"
#include "tests/sweep/expected.h"
#include "tests/sweep/figures.h"
#include "tests/sweep/lives.h"
#include "tests/support/death.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

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
    std::vector<Call> calls;
    Lines records;
    std::vector<std::uint64_t> numbers;  // of the fallible calls among all platform calls
    std::uint64_t callCount = 0;

private:
    Step Run(const Op& op);
    [[nodiscard]] bool HasStruck() const
    {
        return plan_.records != nullptr ? actual_->StruckCount() != 0 : expected_.struck() != 0;
    }

    const Plan& plan_;
    Expected expected_;
    std::unique_ptr<Actual> actual_;  // for as long as the life lasts: one machine at a time
};

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
    std::size_t index = 0;
    const auto where = [&] { return "operation " + std::to_string(index) + " (" + Text(plan.life[index]) + ")"; };
    const host::checks::LastWords words([&] {
        return std::string("sweep on ") + container.name + ": " + plan.Text() + "; " +
               (index < plan.life.size() ? where() : "the life's end") + ", platform call " +
               std::to_string(actual_->calls());
    });
    for (; index < plan.life.size() && difference.empty(); ++index) {
        const Op& op = plan.life[index];
        if (!expected_.Allows(op.what)) {
            continue;
        }
        Step step = Run(op);
        const bool again = (op.what == Do::kLoad || op.what == Do::kAddDevice) && expected_.Allows(op.what);
        if (again && difference.empty()) {
            step = Run(op);  // what failed once must be possible now
        }
        if (!difference.empty()) {
            difference = "  " + where() + difference;
        }
        if (step.ends) {
            break;
        }
    }
    records = actual_->records();
    std::size_t lostMessages = 0;
    if (difference.empty() && plan.records != nullptr) {
        const Lines remaining = Remaining(*plan.records, *plan.fault, plan.routes);
        difference = FirstDifference(remaining, records);
        const bool areMessages = KindLost(*plan.fault, plan.routes) == 'M';
        lostMessages = areMessages ? plan.records->size() - remaining.size() : 0;
    }
    // An error event stands alone only where its message was lost.
    if (difference.empty() && actual_->badRecords().size() > lostMessages) {
        difference = "  records:" + Joined(actual_->badRecords());
    }
    if (difference.empty() && plan.fault && !HasStruck()) {
        difference = "  the fault was never reached";
    }
    calls = expected_.calls();
    callCount = actual_->calls();
    const std::size_t before = sites.size();
    sites.insert(actual_->sites().begin(), actual_->sites().end());
    if (sites.size() > before) {
        actual_->NoteReportsSeen();
    }
    actual_.reset();
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
    if (plan_.records == nullptr) {
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
    if (!plan_.fault || HasStruck()) {
        Compare("alive", expected_.Alive(), actual_->Alive(), difference);
    }
    return expected;
}

class Sweep : public testing::TestWithParam<tests::Container> {
protected:
    void Check(const Plan& plan)
    {
        const Played played(GetParam(), plan, sites_);
        if (plan.fault) {
            figures_.Count(*plan.fault, plan.records != nullptr);
        }
        if (!played.difference.empty() && failures_++ < kShownFailures) {
            ADD_FAILURE() << plan.Text() << "\n" << played.difference;
        }
    }

    // Every call of the life that the expectation foresees, in every form; sticky: with all later ones of its function.
    void FailEachCall(const Life& life, bool sticky);
    // Every call of the tracing runtime.
    void FailTracing(const Life& life, host::TraceRoutes routes);

    static constexpr unsigned kShownFailures = 10;
    unsigned failures_ = 0;
    unsigned turn_ = 0;
    std::set<Site> sites_;
    Figures figures_;
};
FOR_ALL_CONTAINERS(Sweep);

void Sweep::FailEachCall(const Life& life, bool sticky)
{
    const Played whole(GetParam(), {.life = life}, sites_);
    ASSERT_EQ(whole.difference, "");
    figures_.callCount = std::max(figures_.callCount, std::size_t{whole.callCount});
    figures_.foreseenCallCount = std::max(figures_.foreseenCallCount, whole.calls.size());
    std::map<std::string, unsigned> indices;
    std::size_t next = 0;  // of the calls that the host sees
    for (const Call& call : whole.calls) {
        const bool isDriver = call.function == "WdfGetDriver";
        // The driver object is looked up without a call: it is hidden from the call before the one that follows.
        const std::uint64_t hideAt = isDriver ? whole.numbers[next] - 1 : 0;
        next += isDriver ? 0 : 1;
        const unsigned index = indices[call.function]++;
        if (++turn_ % Stride() != 0) {
            continue;
        }
        for (const Form form : call.forms) {
            Check({.life = life, .fault = Fault{call.function, index, sticky, form}, .hideAt = hideAt});
        }
    }
}

void Sweep::FailTracing(const Life& life, host::TraceRoutes routes)
{
    std::map<std::string, unsigned> counts;
    const Plan plan{.life = life, .routes = routes, .onCall = [&](const host::ObservedCall& call, host::Machine&) {
                        counts[call.function] += KindOf(call.function) == Kind::kTracing ? 1 : 0;
                    }};
    const Played whole(GetParam(), plan, sites_);
    ASSERT_EQ(whole.difference, "");
    for (const auto& [function, count] : counts) {
        for (unsigned index = 0; index < count; ++index) {
            const bool writes = function == "EtwWrite" || function == "WmiTraceMessage";
            const Form form = function == "MmGetSystemRoutineAddress" ? Form::kNull : Form::kError;
            const bool isLeftOut = writes && Stride() != 1 && index % (10 * Stride()) != 0;
            if (!isLeftOut) {
                Check({.life = life,
                       .fault = Fault{function, index, false, form},
                       .routes = routes,
                       .records = &whole.records});
            }
            if (!writes || index == 0) {
                Check({.life = life,
                       .fault = Fault{function, index, true, form},
                       .routes = routes,
                       .records = &whole.records});
            }
        }
    }
}

TEST_P(Sweep, EveryCallFails)
{
    const Life whole = WholeLife();
    Lines functions;
    std::set<std::string> paths;
    const Played first(GetParam(),
                       {.life = whole,
                        .onCall =
                            [&](const host::ObservedCall& call, host::Machine& machine) {
                                EXPECT_TRUE(KindOf(call.function)) << call.function << " is in no table";
                                functions.emplace_back(call.function);
                                std::string path;
                                for (const auto& name : host::checks::CallPath(machine.environment().modules)) {
                                    path += name + " > ";
                                }
                                paths.insert(path + call.function);
                            }},
                       sites_);
    ASSERT_EQ(first.difference, "");
    figures_.paths = GetParam().name == std::string("native") ? paths.size() : 0;
    // A call is named by its number: that means the same call on all containers.
    Lines onNative;
    const Played reference(
        tests::Containers().front(),
        {.life = whole,
         .onCall = [&](const host::ObservedCall& call, host::Machine&) { onNative.emplace_back(call.function); }},
        sites_);
    EXPECT_EQ(functions, onNative);

    FailEachCall(whole, false);
    for (const Life& life : {CommandToOneself(), CommandOfTheDeparted(), CommandToTheChanged()}) {
        FailEachCall(life, false);
    }
    FailTracing(whole, host::TraceRoutes::kClassic);
    FailTracing(LegacyLife(), host::TraceRoutes::kLegacy);

    figures_.Write(GetParam().name, "once", sites_);
    if (Stride() == 1) {
        EXPECT_EQ(figures_.Unreached(sites_), Lines{}) << "reporting sites that no life reached";
    }
    EXPECT_EQ(failures_, 0u);
}

TEST_P(Sweep, EveryCallFailsForGood)
{
    FailEachCall(WholeLife(), true);
    figures_.Write(GetParam().name, "sticky", sites_);
    EXPECT_EQ(failures_, 0u);
}

TEST(SweepThatEnds, TellsWhatFailedAndWhere)
{
    GTEST_FLAG_SET(death_test_style, tests::kDeathTestStyle);
    const Life life = LegacyLife();
    const Plan plan{
        .life = life, .fault = Fault{"WdfDeviceCreate"}, .onCall = [](const host::ObservedCall& call, host::Machine&) {
            if (call.function == std::string("WdfWorkItemEnqueue")) {
                tests::TouchNothing();
            }
        }};
    std::set<Site> sites;
    EXPECT_DEATH(Played(tests::Containers().front(), plan, sites),
                 "sweep on native: WdfDeviceCreate call 0, error status; "
                 "operation 5 .post 1 3 0., platform call [0-9]+");
}

}  // namespace
}  // namespace sweep
