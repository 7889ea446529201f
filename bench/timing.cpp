#include "bench/timing.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <vector>

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

// Nanoseconds of one call, of as many as fill a round.
double TimeOfRound(const std::function<void()>& call)
{
    constexpr std::chrono::milliseconds kRound{5};
    const auto begin = std::chrono::steady_clock::now();
    unsigned calls = 0;
    std::chrono::steady_clock::duration passed{};
    while (passed < kRound) {
        call();
        ++calls;
        passed = std::chrono::steady_clock::now() - begin;
    }
    return std::chrono::duration<double, std::nano>(passed).count() / calls;
}

double MedianOf(std::vector<double> times)
{
    const auto middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
    std::ranges::nth_element(times, middle);
    return *middle;
}

}  // namespace

InTurns NanosecondsInTurns(const std::function<void()>& first, const std::function<void()>& second, bool isQuick)
{
    const unsigned rounds = isQuick ? 3 : 61;
    std::vector<double> firsts;
    std::vector<double> seconds;
    for (unsigned round = 0; round < rounds; ++round) {
        firsts.push_back(TimeOfRound(first));
        seconds.push_back(TimeOfRound(second));
    }
    return {MedianOf(firsts), MedianOf(seconds)};
}

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
