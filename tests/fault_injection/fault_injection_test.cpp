// Systematic fault injection: each platform call of a sequence fails, alone (single fault) and with all later ones of
// its function (persistent fault), in every form that it has. Operation by operation, to the end of the sequence, the
// driver must show what the reference model says.
#include "host/checks/call_path.h"
#include "tests/kit/death.h"
#include "tests/fault_injection/statistics.h"
#include "tests/fault_injection/sequences.h"
#include "tests/fault_injection/comparison.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

namespace fault_injection {
namespace {

std::string Path(const host::ObservedCall& call, host::Machine& machine)
{
    std::string path;
    const host::checks::Modules& modules = machine.environment().modules;
    for (const void* address : host::checks::CallPath(modules)) {
        path += modules.FunctionAt(address) + " > ";
    }
    return path + call.function;
}

// By which functions the sequence without the fault comes to the call that fails, or to the one after a look-up. Asks
// the native driver, which makes the same calls as the others.
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
    const Comparison comparison(tests::Containers().front(),
                                {.sequence = plan.sequence, .routes = plan.routes, .onCall = onCall}, sites);
    return path;
}

// Each container has so many cases, for processors to share; a fault belongs to one of them.
constexpr unsigned kShards = 4;

struct Shard {
    tests::Container container;
    unsigned number;
};
void PrintTo(const Shard& shard, std::ostream* out)
{
    *out << shard.container.name << "_" << shard.number;
}

std::vector<Shard> Shards()
{
    std::vector<Shard> shards;
    for (const tests::Container& container : tests::Containers()) {
        for (unsigned number = 1; number <= kShards; ++number) {
            shards.push_back({container, number});
        }
    }
    return shards;
}

class FaultInjection : public testing::TestWithParam<Shard> {
protected:
    void Check(const Plan& plan)
    {
        if (fault_++ % kShards != GetParam().number - 1) {
            return;
        }
        const Comparison comparison(GetParam().container, plan, sites_);
        if (plan.fault) {
            statistics_.Count(*plan.fault, plan.isInTracing);
        }
        if (!comparison.difference.empty() && failures_++ < kShownFailures) {
            ADD_FAILURE() << plan.Text() << (plan.fault ? PathTo(plan) : "") << "\n" << comparison.difference;
        }
    }

    // Every call of the sequence that the reference model predicts, in every form; persistent: with all later ones of
    // its function.
    void FailEachCall(const Sequence& sequence, bool persistent);
    // Every call of the tracing runtime.
    void FailTracing(const Sequence& sequence, host::TraceRoutes routes);

    static constexpr unsigned kShownFailures = 10;
    unsigned failures_ = 0;
    unsigned turn_ = 0;
    unsigned fault_ = 0;
    std::set<Site> sites_;
    Statistics statistics_;
};
INSTANTIATE_TEST_SUITE_P(On, FaultInjection, testing::ValuesIn(Shards()), testing::PrintToStringParamName());

void FaultInjection::FailEachCall(const Sequence& sequence, bool persistent)
{
    const Comparison whole(GetParam().container, {.sequence = sequence}, sites_);
    ASSERT_EQ(whole.difference, "");
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
        for (const FaultKind form : call.forms) {
            Check({.sequence = sequence,
                   .fault = Fault{call.function, index, persistent, form},
                   .hideAt = hideAt,
                   .whole = &whole});
        }
    }
}

void FaultInjection::FailTracing(const Sequence& sequence, host::TraceRoutes routes)
{
    std::map<std::string, unsigned> counts;
    const Plan plan{
        .sequence = sequence, .routes = routes, .onCall = [&](const host::ObservedCall& call, host::Machine&) {
            counts[call.function] += KindOf(call.function) == FunctionKind::kTracing ? 1 : 0;
        }};
    const Comparison whole(GetParam().container, plan, sites_);
    ASSERT_EQ(whole.difference, "");
    for (const auto& [function, count] : counts) {
        for (unsigned index = 0; index < count; ++index) {
            const bool writes = function == "EtwWrite" || function == "WmiTraceMessage";
            const FaultKind form = function == "MmGetSystemRoutineAddress" ? FaultKind::kNull : FaultKind::kError;
            const bool isLeftOut = writes && Stride() != 1 && index % (10 * Stride()) != 0;
            if (!isLeftOut) {
                Check({.sequence = sequence,
                       .fault = Fault{function, index, false, form},
                       .routes = routes,
                       .isInTracing = true,
                       .whole = &whole});
            }
            if (!writes || index == 0) {
                Check({.sequence = sequence,
                       .fault = Fault{function, index, true, form},
                       .routes = routes,
                       .isInTracing = true,
                       .whole = &whole});
            }
        }
    }
}

TEST_P(FaultInjection, EveryCallFails)
{
    const Sequence whole = WholeSequence();
    FailEachCall(whole, false);
    for (const Sequence& sequence :
         {SecondDevice(), CommandToOneself(), CommandOfADeregisteredClient(), CommandToAClientWithoutCallback()}) {
        FailEachCall(sequence, false);
    }
    FailTracing(whole, host::TraceRoutes::kClassic);
    FailTracing(ShortSequence(), host::TraceRoutes::kWmi);

    statistics_.Save(GetParam().container.name, "single", GetParam().number, sites_);
    EXPECT_EQ(failures_, 0u);
}

TEST_P(FaultInjection, EveryCallFailsFromThenOn)
{
    FailEachCall(WholeSequence(), true);
    FailEachCall(SecondDevice(), true);
    statistics_.Save(GetParam().container.name, "persistent", GetParam().number, sites_);
    EXPECT_EQ(failures_, 0u);
}

class FaultInjectionInAll : public tests::OnContainer {};
FOR_ALL_CONTAINERS(FaultInjectionInAll);

// A call is named by its number: that means the same call on all containers.
TEST_P(FaultInjectionInAll, MakesTheSameCallsOnEachContainer)
{
    const auto callsOn = [sequence = WholeSequence()](const tests::Container& container) {
        Lines functions;
        std::set<Site> sites;
        const Comparison comparison(
            container,
            {.sequence = sequence,
             .onCall = [&](const host::ObservedCall& call, host::Machine&) { functions.emplace_back(call.function); }},
            sites);
        EXPECT_EQ(comparison.difference, "");
        return functions;
    };
    EXPECT_EQ(callsOn(GetParam()), callsOn(tests::Containers().front()));
}

// Runs after the shards, which are its fixture: it reads what they left.

TEST_P(FaultInjectionInAll, ReachesEverySite)
{
    for (const std::string kind : {"single", "persistent"}) {
        const Statistics all = Statistics::OfAll(GetParam().name, kind, kShards);
        all.Write(GetParam().name, kind);
        if (kind == "single" && Stride() == 1) {
            EXPECT_EQ(all.Unreached(), Lines{}) << "reporting sites that no sequence reached";
        }
    }
}

TEST(FaultThatEndsTheProcess, IsReportedWithItsOperationAndCall)
{
    const Sequence sequence = ShortSequence();
    const Plan plan{.sequence = sequence,
                    .fault = Fault{"WdfDeviceCreate"},
                    .onCall = [](const host::ObservedCall& call, host::Machine&) {
                        if (call.function == std::string("WdfWorkItemEnqueue")) {
                            tests::TouchNothing();
                        }
                    }};
    std::set<Site> sites;
    EXPECT_DEATH(Comparison(tests::Containers().front(), plan, sites),
                 R"(fault injection on native: WdfDeviceCreate call 0, error status; )"
                 R"(operation 5 \(\{"do":"post","client":"client1","state":3\}\), platform call [0-9]+)");
}

}  // namespace
}  // namespace fault_injection
