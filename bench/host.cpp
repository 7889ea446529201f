// Speed of the host: load-to-unload cycles, deliveries and model-based operations a second, and the demo.
#include "bench/sections.h"
#include "bench/fixture.h"
#include "bench/timing.h"
#include "tests/model/run.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <stdexcept>

namespace bench {
namespace {

#if defined(__x86_64__)
constexpr Subject kSubjects[] = {Subject::kNative, Subject::kX64};
#else
constexpr Subject kSubjects[] = {Subject::kNative};
#endif

double SecondsOf(const std::function<void()>& work)
{
    const auto begin = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

double ModelOperationsPerSecond(Subject subject, bool isQuick)
{
    model::Totals totals;
    const double seconds = SecondsOf([&] {
        const model::Budget budget{.seed = 1, .sequences = isQuick ? 50u : 500u};
        if (model::Search(budget, ImageOf(subject), totals)) {
            throw std::runtime_error("a model-based sequence failed: ./zepn fuzz --seed 1 says more");
        }
    });
    return static_cast<double>(totals.operations) / seconds;
}

// The whole process of ./zepn demo once everything is built, printing to nowhere.
double DemoSeconds()
{
    const std::string command = "'" ZEPN_PLAY "' '" ZEPN_ROOT "/scenarios/boot.json' > /dev/null";
    double fastest = 0;
    for (unsigned repetition = 0; repetition < 3; ++repetition) {
        const double seconds = SecondsOf([&] {
            if (std::system(command.c_str()) != 0) {
                throw std::runtime_error("the demo failed: " + command);
            }
        });
        fastest = repetition == 0 ? seconds : std::min(fastest, seconds);
    }
    return fastest;
}

double PostsPerSecond(Subject subject, bool isQuick)
{
    Fixture fixture({.subject = subject, .clients = 4, .subscriptionsEach = 1});
    return 1e9 / NanosecondsOf(
                     "operation",
                     [&] {
                         fixture.Post(fixture.poster(), 1);
                         fixture.machine.RunWorkItems();
                     },
                     isQuick);
}

}  // namespace

void MeasureHost(Table& table, const Options& options)
{
    constexpr const char* kSection = "Host";
    for (const Subject subject : kSubjects) {
        const double cycle =
            NanosecondsOf("cycle", [&] { const Fixture fixture({.subject = subject}); }, options.isQuick);
        table.Add({.section = kSection,
                   .name = "load-to-unload cycles of a driver",
                   .on = Name(subject),
                   .value = 1e9 / cycle,
                   .unit = "a second"});
        table.Add({.section = kSection,
                   .name = "posts, each delivered to 4 by a run of its own",
                   .on = Name(subject),
                   .value = PostsPerSecond(subject, options.isQuick),
                   .unit = "a second"});
        table.Add({.section = kSection,
                   .name = "operations of model-based sequences",
                   .on = Name(subject),
                   .value = ModelOperationsPerSecond(subject, options.isQuick),
                   .unit = "a second"});
    }
    table.Add({.section = kSection,
               .name = "the demo's boot scenario, start to end",
               .on = "process",
               .value = DemoSeconds() * 1000,
               .unit = "ms"});
}

}  // namespace bench
