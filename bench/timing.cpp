#include "bench/timing.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <limits>

namespace bench {
namespace {

class Collector final : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context&) override { return true; }
    void ReportRuns(const std::vector<Run>& runs) override
    {
        constexpr double kNanoseconds = 1e9;
        for (const Run& run : runs) {
            if (run.run_type == Run::RT_Iteration && run.iterations > 0) {
                fastest =
                    std::min(fastest, run.real_accumulated_time / static_cast<double>(run.iterations) * kNanoseconds);
            }
        }
    }
    double fastest = std::numeric_limits<double>::infinity();
};

}  // namespace

double NanosecondsOf(const std::string& name, const std::function<void()>& call, bool isQuick, double perCall)
{
    benchmark::ClearRegisteredBenchmarks();
    benchmark::RegisterBenchmark(name.c_str(),
                                 [&](benchmark::State& state) {
                                     for (auto _ : state) {
                                         call();
                                     }
                                 })
        ->UseRealTime()
        ->MinTime(isQuick ? 0.01 : 0.1)
        ->Repetitions(isQuick ? 1 : 3)
        ->ReportAggregatesOnly(false);
    Collector collector;
    benchmark::RunSpecifiedBenchmarks(&collector, "all");
    return collector.fastest / perCall;
}

}  // namespace bench
