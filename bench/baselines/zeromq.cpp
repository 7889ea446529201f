#include "bench/baselines/baseline.h"

#include <zmq.h>

#include <cstring>
#include <stdexcept>
#include <thread>

namespace bench {
namespace {

// In-process publish and subscribe: a socket for each subscriber with the record's first bytes as its prefix filter,
// all served by one worker.
class ZeroMq final : public Baseline {
public:
    explicit ZeroMq(unsigned subscribers)
        : context_(zmq_ctx_new()), publisher_(zmq_socket(context_, ZMQ_PUB)), stop_(zmq_socket(context_, ZMQ_PAIR))
    {
        constexpr int kMoreSockets = 8192;
        zmq_ctx_set(context_, ZMQ_MAX_SOCKETS, kMoreSockets);
        const int unlimited = 0;
        zmq_setsockopt(publisher_, ZMQ_SNDHWM, &unlimited, sizeof(unlimited));
        Demand(zmq_bind(publisher_, "inproc://states") == 0);
        Demand(zmq_bind(stop_, "inproc://stop") == 0);
        std::atomic<bool> ready{false};
        thread_ = std::thread([this, subscribers, &ready] { Serve(subscribers, ready); });
        while (!ready) {
            std::this_thread::yield();
        }
        // Subscriptions reach the publisher by its own queue, which it reads when it sends.
        const State probe{kPoster, 1};
        while (Delivered() < subscribers) {
            Post(probe);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ~ZeroMq() override
    {
        zmq_send(stop_, "", 0, 0);
        thread_.join();
        zmq_close(stop_);
        zmq_close(publisher_);
        zmq_ctx_term(context_);
    }
    void Post(const State& state) override { zmq_send(publisher_, &state, sizeof(state), 0); }

private:
    static void Demand(bool fine)
    {
        if (!fine) {
            throw std::runtime_error(std::string("ZeroMQ: ") + zmq_strerror(zmq_errno()));
        }
    }

    void Serve(unsigned subscribers, std::atomic<bool>& ready)
    {
        std::vector<zmq_pollitem_t> items;
        void* stop = zmq_socket(context_, ZMQ_PAIR);
        Demand(zmq_connect(stop, "inproc://stop") == 0);
        items.push_back({stop, 0, ZMQ_POLLIN, 0});
        const State filter{kPoster, 1};
        const int unlimited = 0;
        for (unsigned index = 0; index < subscribers; ++index) {
            void* socket = zmq_socket(context_, ZMQ_SUB);
            zmq_setsockopt(socket, ZMQ_RCVHWM, &unlimited, sizeof(unlimited));
            zmq_setsockopt(socket, ZMQ_SUBSCRIBE, &filter, sizeof(filter));
            Demand(zmq_connect(socket, "inproc://states") == 0);
            items.push_back({socket, 0, ZMQ_POLLIN, 0});
        }
        ready = true;
        while ((items[0].revents & ZMQ_POLLIN) == 0) {
            zmq_poll(items.data(), static_cast<int>(items.size()), -1);
            for (std::size_t index = 1; index < items.size(); ++index) {
                State state;
                while ((items[index].revents & ZMQ_POLLIN) != 0 &&
                       zmq_recv(items[index].socket, &state, sizeof(state), ZMQ_DONTWAIT) == sizeof(state)) {
                    Count();
                }
            }
        }
        for (const zmq_pollitem_t& item : items) {
            zmq_close(item.socket);
        }
    }

    void* const context_;
    void* const publisher_;
    void* const stop_;
    std::thread thread_;
};

}  // namespace

std::unique_ptr<Baseline> MakeZeroMq(unsigned subscribers)
{
    return std::make_unique<ZeroMq>(subscribers);
}

}  // namespace bench
