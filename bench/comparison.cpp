// Comparison with other libraries: one party posts a state, and a worker delivers it to N subscribers; by the Notifier
// and by what one would use instead, in one run.
#include "bench/baselines/baseline.h"
#include "bench/sections.h"
#include "bench/fixture.h"
#include "bench/timing.h"

#include <thread>

namespace bench {
namespace {

constexpr const char* kSection = "Comparison";

void WaitFor(const std::function<bool()>& isDone)
{
    while (!isDone()) {
        std::this_thread::yield();
    }
}

constexpr std::uint64_t kBurst = 256;

// Posts in bursts and waits for the last delivery of each.
class Poster {
public:
    Poster(Subject subject, unsigned subscribers)
        : fixture_({.subject = subject,
                    .clients = subscribers,
                    .subscriptionsEach = 1,
                    .workItems = host::WorkItems::kThreads}),
          subscribers_(subscribers), wanted_(Fixture::Deliveries())
    {
    }
    void PostBurst()
    {
        for (std::uint64_t post = 0; post < kBurst; ++post) {
            fixture_.Post(fixture_.poster(), 1);
        }
        wanted_ += kBurst * subscribers_;
        WaitFor([&] { return Fixture::Deliveries() >= wanted_; });
    }

private:
    Fixture fixture_;
    const unsigned subscribers_;
    std::uint64_t wanted_;
};

// Time of one post with all its deliveries.
double TimeOfNotifier(Subject subject, unsigned subscribers, bool isQuick)
{
    Poster poster(subject, subscribers);
    return NanosecondsOf("notifier", [&] { poster.PostBurst(); }, isQuick, static_cast<double>(kBurst));
}

// How many more platform calls a delivery makes for one subscriber more.
double CallsForEach(unsigned subscribers)
{
    const auto calls = [](unsigned clients) {
        Fixture fixture({.clients = clients, .subscriptionsEach = 1});
        fixture.Post(fixture.poster(), 1);
        unsigned count = 0;
        fixture.machine.environment().SetObserver([&count](const host::ObservedCall&) { ++count; });
        fixture.machine.RunWorkItems();
        fixture.machine.environment().SetObserver(nullptr);
        return count;
    };
    return calls(subscribers + 1) - calls(subscribers);
}

// The Notifier's and a baseline's time of one post, in turns.
InTurns TimesBeside(const BaselineKind& kind, unsigned subscribers, bool isQuick)
{
    Poster poster(Subject::kNative, subscribers);
    const std::unique_ptr<Baseline> baseline = kind.make(subscribers);
    std::uint64_t wanted = baseline->Delivered();
    const InTurns bursts = NanosecondsInTurns([&] { poster.PostBurst(); },
                                              [&] {
                                                  for (std::uint64_t post = 0; post < kind.burst; ++post) {
                                                      baseline->Post({kPoster, 1});
                                                  }
                                                  wanted += kind.burst * subscribers;
                                                  WaitFor([&] { return baseline->Delivered() >= wanted; });
                                              },
                                              isQuick);
    return {bursts.first / static_cast<double>(kBurst), bursts.second / static_cast<double>(kind.burst)};
}

}  // namespace

const std::vector<BaselineKind>& Baselines()
{
    static const std::vector<BaselineKind> kinds = {
        {"Boost.Signals2 with a queue and a worker", MakeSignals2, 256, true},
        {"libsigc++ with a queue and a worker", MakeSigcpp, 256, true},
        {"ZeroMQ, in-process publish and subscribe", MakeZeroMq, 256},
        {"GLib main-context sources", MakeGlib, 256},
        {"a message bus (D-Bus), for scale", MakeMessageBus, 16, true},
    };
    return kinds;
}

void MeasureComparison(Table& table, const Options& options)
{
    for (const unsigned subscribers : {8u, 64u}) {
        const std::string who = ", " + std::to_string(subscribers) + " subscribers";
        const double ours = TimeOfNotifier(Subject::kNative, subscribers, options.isQuick);
        table.Add({.section = kSection,
                   .name = "the Notifier" + who,
                   .on = Name(Subject::kNative),
                   .value = ours,
                   .unit = "ns a post"});
        const double least = TimeOfNotifier(Subject::kMinimal, subscribers, options.isQuick);
        table.Add({.section = kSection,
                   .name = "share of the framework calls, by the minimal driver" + who,
                   .on = Name(Subject::kMinimal),
                   .value = 100 * least / ours,
                   .unit = "%",
                   .remark = std::to_string(static_cast<long>(least)) + " ns a post"});
        table.Add({.section = kSection,
                   .name = "framework calls for each further subscriber" + who,
                   .on = Name(Subject::kNative),
                   .value = CallsForEach(subscribers),
                   .unit = "calls",
                   .isExact = true});
        for (const BaselineKind& kind : Baselines()) {
            const InTurns times = TimesBeside(kind, subscribers, options.isQuick);
            table.Add({.section = kSection,
                       .name = kind.name + who,
                       .on = "",
                       .value = times.second / times.first,
                       .unit = "x ours",
                       .goal = kind.isForScale ? std::nullopt : std::optional(Goal{1.0, false}),
                       .remark = std::to_string(static_cast<long>(times.second)) + " ns a post, ours " +
                                 std::to_string(static_cast<long>(times.first))});
        }
    }
}

}  // namespace bench
