#include "bench/baselines/worker_queue.h"

#include <sigc++/sigc++.h>

namespace bench {
namespace {

class Sigcpp final : public Baseline {
public:
    explicit Sigcpp(unsigned subscribers)
    {
        for (unsigned index = 0; index < subscribers; ++index) {
            signal_.connect([this, filter = Filter{kPoster, 1}](const State& state) {
                if (filter.Matches(state)) {
                    Count();
                }
            });
        }
        queue_ = std::make_unique<WorkerQueue>([this](const State& state) { signal_.emit(state); });
    }
    ~Sigcpp() override { queue_.reset(); }
    void Post(const State& state) override { queue_->Push(state); }

private:
    sigc::signal<void, const State&> signal_;
    std::unique_ptr<WorkerQueue> queue_;
};

}  // namespace

std::unique_ptr<Baseline> MakeSigcpp(unsigned subscribers)
{
    return std::make_unique<Sigcpp>(subscribers);
}

}  // namespace bench
