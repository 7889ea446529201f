// Times by Google Benchmark: one function, run until the time is steady enough.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace bench {

// Mean time of one call in nanoseconds, by the clock on the wall; the fastest of several repetitions, since all that
// can disturb one makes it slower. `perCall` divides it: how many items one call handles.
[[nodiscard]] double NanosecondsOf(const std::string& name, const std::function<void()>& call, bool isQuick,
                                   double perCall = 1);

}  // namespace bench
