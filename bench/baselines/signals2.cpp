#include "bench/baselines/worker_queue.h"

#include <boost/signals2.hpp>

namespace bench {
namespace {

class Signals2 final : public Baseline {
public:
    explicit Signals2(unsigned subscribers)
    {
        for (unsigned index = 0; index < subscribers; ++index) {
            signal_.connect([this, filter = Filter{kPoster, 1}](const State& state) {
                if (filter.Matches(state)) {
                    Count();
                }
            });
        }
        queue_ = std::make_unique<WorkerQueue>([this](const State& state) { signal_(state); });
    }
    ~Signals2() override { queue_.reset(); }
    void Post(const State& state) override { queue_->Push(state); }

private:
    boost::signals2::signal<void(const State&)> signal_;
    std::unique_ptr<WorkerQueue> queue_;
};

}  // namespace

std::unique_ptr<Baseline> MakeSignals2(unsigned subscribers)
{
    return std::make_unique<Signals2>(subscribers);
}

}  // namespace bench
