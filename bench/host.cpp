// The host as a tool: how many driver lives a second, and how fast it plays.
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

double RandomOperationsPerSecond(Subject subject, bool isQuick)
{
    model::Totals totals;
    const double seconds = SecondsOf([&] {
        const model::Budget budget{.seed = 1, .sequences = isQuick ? 50u : 500u};
        if (model::Search(budget, ImageOf(subject), totals)) {
            throw std::runtime_error("a random life went wrong: ./zepn fuzz --seed 1 tells more");
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
    constexpr const char* kSection = "The host as a tool";
    for (const Subject subject : kSubjects) {
        const double life =
            NanosecondsOf("life", [&] { const Fixture fixture({.subject = subject}); }, options.isQuick);
        table.Add({.section = kSection,
                   .name = "driver lives, load to unload",
                   .on = Name(subject),
                   .value = 1e9 / life,
                   .unit = "a second"});
        table.Add({.section = kSection,
                   .name = "posts, each delivered to 4 by a run of its own",
                   .on = Name(subject),
                   .value = PostsPerSecond(subject, options.isQuick),
                   .unit = "a second"});
        table.Add({.section = kSection,
                   .name = "operations in random lives, held against the model",
                   .on = Name(subject),
                   .value = RandomOperationsPerSecond(subject, options.isQuick),
                   .unit = "a second"});
    }
    table.Add({.section = kSection,
               .name = "the demo's boot scenario, start to end",
               .on = "process",
               .value = DemoSeconds() * 1000,
               .unit = "ms"});
}

}  // namespace bench
