// The same driver with real worker threads and several client threads at once: nothing is lost, nothing is delivered
// twice, each poster's order is kept, and nothing is left behind.
#include "tests/support/world.h"

#include <atomic>
#include <thread>

namespace tests {
namespace {

class Threads : public OnContainer {};
FOR_ALL_CONTAINERS(Threads);

constexpr unsigned kPosters = 4;
constexpr ULONG kPostsEach = 200;

TEST_P(Threads, PostsOfManyThreadsAllArriveInEachPostersOrder)
{
    World world(GetParam(), {.machine = {.workItems = host::WorkItems::kThreads, .workerCount = 3, .guardPages = false},
                             .records = false});
    std::deque<Peer> posters;
    Peer subscriber(100);
    ASSERT_EQ(world.Register(subscriber), STATUS_SUCCESS);
    for (unsigned number = 1; number <= kPosters; ++number) {
        ASSERT_EQ(world.Register(posters.emplace_back(number)), STATUS_SUCCESS);
        ASSERT_EQ(world.Post(posters.back(), 1), STATUS_SUCCESS);
    }
    world.machine.WaitForWorkItems();
    for (Peer& poster : posters) {
        ASSERT_EQ(world.Subscribe(subscriber, poster, ZEP_STATE_ANY), STATUS_SUCCESS);
    }
    subscriber.deliveries.clear();

    std::vector<std::thread> threads;
    std::atomic<unsigned> refused{0};
    for (Peer& poster : posters) {
        threads.emplace_back([&world, &poster, &refused] {
            for (ULONG state = 100; state < 100 + kPostsEach; ++state) {
                refused += world.Post(poster, state) == STATUS_SUCCESS ? 0 : 1;
            }
        });
    }
    // Others come, subscribe and go meanwhile.
    threads.emplace_back([&world, &posters, &refused] {
        for (ULONG number = 200; number < 240; ++number) {
            Peer passing(number);
            refused += world.Register(passing) == STATUS_SUCCESS ? 0 : 1;
            refused += world.Subscribe(passing, posters.front(), 1) == STATUS_SUCCESS ? 0 : 1;
            refused += world.Leave(passing) == STATUS_SUCCESS ? 0 : 1;
        }
    });
    for (std::thread& thread : threads) {
        thread.join();
    }
    world.machine.WaitForWorkItems();
    EXPECT_EQ(refused, 0u);
    EXPECT_EQ(subscriber.deliveries.size(), std::size_t{kPosters} * kPostsEach);
    std::map<ULONG, ULONG> last;
    for (const ZepState& state : subscriber.deliveries) {
        EXPECT_GT(state.State, last[state.InterfaceGUID.Data1]);
        last[state.InterfaceGUID.Data1] = state.State;
    }
    EXPECT_EQ(world.Alive(kStateContextName), 0u);
}

}  // namespace
}  // namespace tests
