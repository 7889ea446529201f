// Each platform call of a life fails once, and once more with all later ones of its function, in every form that it
// has; what the driver shows must be what the expectation says, operation by operation, to the end of the life.
#include "host/checks/call_path.h"
#include "tests/support/death.h"
#include "tests/sweep/figures.h"
#include "tests/sweep/lives.h"
#include "tests/sweep/played.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

namespace sweep {
namespace {

std::string Path(const host::ObservedCall& call, host::Machine& machine)
{
    std::string path;
    for (const auto& name : host::checks::CallPath(machine.environment().modules)) {
        path += name + " > ";
    }
    return path + call.function;
}

// By which functions the life without the fault comes to the call that fails, or to the one behind a look-up. The native
// driver is asked: it makes the same calls as the others.
std::string PathTo(const Plan& plan)
{
    std::string path;
    std::uint64_t number = 0;
    unsigned index = 0;
    std::set<Site> sites;
    const auto onCall = [&](const host::ObservedCall& call, host::Machine& machine) {
        const bool isIt = plan.hideAt != 0 ? ++number == plan.hideAt + 1
                                           : call.function == plan.fault->function && index++ == plan.fault->index;
        path = isIt ? ", by " + Path(call, machine) : path;
    };
    const Played played(tests::Containers().front(), {.life = plan.life, .routes = plan.routes, .onCall = onCall},
                        sites);
    return path;
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
            ADD_FAILURE() << plan.Text() << (plan.fault ? PathTo(plan) : "") << "\n" << played.difference;
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
    figures_.foreseenCallCount = std::max(figures_.foreseenCallCount, whole.numbers.size());
    figures_.lookupCount = std::max(figures_.lookupCount, whole.calls.size() - whole.numbers.size());
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
                                functions.emplace_back(call.function);
                                paths.insert(Path(call, machine));
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
