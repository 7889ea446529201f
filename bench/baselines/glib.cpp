#include "bench/baselines/baseline.h"

#include <glib.h>

#include <thread>

namespace bench {
namespace {

// A main context on a worker: a post attaches a source for each subscriber whose filter matches.
class Glib final : public Baseline {
public:
    explicit Glib(unsigned subscribers)
        : filters_(subscribers, Filter{kPoster, 1}), context_(g_main_context_new()),
          loop_(g_main_loop_new(context_, FALSE)), thread_([this] { g_main_loop_run(loop_); })
    {
    }
    ~Glib() override
    {
        g_main_context_invoke(
            context_,
            [](gpointer loop) -> gboolean {
                g_main_loop_quit(static_cast<GMainLoop*>(loop));
                return G_SOURCE_REMOVE;
            },
            loop_);
        thread_.join();
        g_main_loop_unref(loop_);
        g_main_context_unref(context_);
    }
    void Post(const State& state) override
    {
        for (const Filter& filter : filters_) {
            if (filter.Matches(state)) {
                Attach(state);
            }
        }
    }

private:
    struct Posted {
        Glib* self;
        State state;
    };

    void Attach(const State& state)
    {
        GSource* source = g_idle_source_new();
        g_source_set_priority(source, G_PRIORITY_DEFAULT);
        g_source_set_callback(source, &Glib::Deliver, new Posted{this, state},
                              [](gpointer posted) { delete static_cast<Posted*>(posted); });
        g_source_attach(source, context_);
        g_source_unref(source);
    }

    static gboolean Deliver(gpointer posted)
    {
        static_cast<const Posted*>(posted)->self->Count();
        return G_SOURCE_REMOVE;
    }

    const std::vector<Filter> filters_;
    GMainContext* const context_;
    GMainLoop* const loop_;
    std::thread thread_;
};

}  // namespace

std::unique_ptr<Baseline> MakeGlib(unsigned subscribers)
{
    return std::make_unique<Glib>(subscribers);
}

}  // namespace bench
