// The same job done by what a C++ engineer would reach for: a state that one party posts is delivered on a worker
// thread to each of N subscribers whose filter (poster and state) it matches.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace bench {

struct State {
    std::array<std::uint8_t, 16> poster;
    std::uint32_t state;
};

struct Filter {
    std::array<std::uint8_t, 16> poster;
    std::uint32_t state;  // kAnyState: every one

    [[nodiscard]] bool Matches(const State& posted) const
    {
        return poster == posted.poster && (state == posted.state || state == kAnyState);
    }
    static constexpr std::uint32_t kAnyState = 10;
};

inline constexpr std::array<std::uint8_t, 16> kPoster = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};

class Baseline {
public:
    virtual ~Baseline() = default;
    virtual void Post(const State& state) = 0;
    // Callbacks that subscribers have had so far. Each counts one and does nothing else.
    [[nodiscard]] std::uint64_t Delivered() const { return delivered_.load(std::memory_order_acquire); }

protected:
    // Only the worker counts.
    void Count() { delivered_.store(delivered_.load(std::memory_order_relaxed) + 1, std::memory_order_release); }

private:
    std::atomic<std::uint64_t> delivered_{0};
};

struct BaselineKind {
    const char* name;
    std::unique_ptr<Baseline> (*make)(unsigned subscribers);
    std::uint64_t burst;      // posts between two waits for the last delivery
    bool isForScale = false;  // another kind of thing, a call or a process away: no goal
};

[[nodiscard]] const std::vector<BaselineKind>& Baselines();

std::unique_ptr<Baseline> MakeSignals2(unsigned subscribers);
std::unique_ptr<Baseline> MakeSigcpp(unsigned subscribers);
std::unique_ptr<Baseline> MakeZeroMq(unsigned subscribers);
std::unique_ptr<Baseline> MakeGlib(unsigned subscribers);
std::unique_ptr<Baseline> MakeMessageBus(unsigned subscribers);

}  // namespace bench
