// The host as a tool: how many driver lives a second, and how fast it plays.
#include "bench/sections.h"
#include "bench/stage.h"
#include "bench/timing.h"

namespace bench {

void MeasureHost(Table& table, const Options& options)
{
    constexpr const char* kSection = "The host as a tool";
    for (const Subject subject : {Subject::kNative, Subject::kX64}) {
#if !defined(__x86_64__)
        if (subject == Subject::kX64) {
            continue;
        }
#endif
        const double life = NanosecondsOf(
            "life", [&] { const Stage stage({.subject = subject}); }, options.isQuick);
        table.Add({.section = kSection, .name = "driver lives, load to unload", .on = Name(subject),
                   .value = 1e9 / life, .unit = "a second"});
        Stage stage({.subject = subject, .clients = 4, .subscriptionsEach = 1});
        const double operation = NanosecondsOf(
            "operation",
            [&] {
                stage.Post(stage.poster(), 1);
                stage.machine.RunWorkItems();
            },
            options.isQuick);
        table.Add({.section = kSection, .name = "posts, each delivered to 4 by a run of its own", .on = Name(subject),
                   .value = 1e9 / operation, .unit = "a second"});
    }
}

}  // namespace bench
