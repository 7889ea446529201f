// Times: of one function by Google Benchmark, run until the time is steady enough, and of two that take turns.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace bench {

// Mean time of one call in nanoseconds, by the clock on the wall; the fastest of several repetitions, since all that
// can disturb one makes it slower. `perCall` divides it: how many items one call handles.
[[nodiscard]] double NanosecondsOf(const std::string& name, const std::function<void()>& call, bool isQuick,
                                   double perCall = 1);

// The median times of one call of each, by the clock on the wall, over many short rounds in which both take their turn:
// what changes for both while they are measured, as the way between two virtual processors does, leaves the ratio.
struct InTurns {
    double first;
    double second;
};
[[nodiscard]] InTurns NanosecondsInTurns(const std::function<void()>& first, const std::function<void()>& second,
                                         bool isQuick);

}  // namespace bench
