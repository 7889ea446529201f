// Scaling: the time of a post and of a delivery against the number of clients, of subscriptions, of queued states and
// of posting threads, as a fitted exponent: 1 is linear. The host finds an item of a collection at once, so the times
// are not the platform's: there every look-up by index walks a list. The delivery path counts those steps.
#include "bench/sections.h"
#include "bench/fixture.h"
#include "bench/timing.h"

#include <chrono>
#include <cmath>
#include <thread>

namespace bench {
namespace {

constexpr const char* kSection = "Scaling";

struct Point {
    double size;
    double nanoseconds;
};

// The slope of the line through the logarithms, by least squares.
double Exponent(const std::vector<Point>& points)
{
    double sumX = 0;
    double sumY = 0;
    double sumXX = 0;
    double sumXY = 0;
    for (const Point& point : points) {
        const double x = std::log(point.size);
        const double y = std::log(point.nanoseconds);
        sumX += x;
        sumY += y;
        sumXX += x * x;
        sumXY += x * y;
    }
    const auto count = static_cast<double>(points.size());
    return (count * sumXY - sumX * sumY) / (count * sumXX - sumX * sumX);
}

void AddCurve(Table& table, const std::string& what, const std::vector<Point>& points, const std::string& remark)
{
    for (const Point& point : {points.front(), points.back()}) {
        table.Add({.section = kSection,
                   .name = what + ": " + std::to_string(static_cast<long>(point.size)),
                   .on = Name(Subject::kNative),
                   .value = point.nanoseconds,
                   .unit = "ns"});
    }
    // Above the first points, which fixed costs flatten.
    const std::vector<Point> upper(points.begin() + static_cast<std::ptrdiff_t>(points.size() / 2 - 1), points.end());
    table.Add({.section = kSection,
               .name = what + ": exponent, upper half",
               .on = Name(Subject::kNative),
               .value = Exponent(upper),
               .unit = "",
               .remark = remark});
}

double NanosecondsSince(std::chrono::steady_clock::time_point begin)
{
    return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - begin).count();
}

// A post by the client that registered last: the look-up passes all others.
void PostByClients(Table& table, const Options& options)
{
    std::vector<Point> points;
    for (unsigned clients = 1; clients <= 1024; clients *= 4) {
        Fixture fixture({.clients = clients});
        // Posted in lots, so that the queue stays short; its drain is not timed.
        constexpr unsigned kLot = 64;
        double best = 0;
        for (unsigned round = 0; round < (options.isQuick ? 3u : 20u); ++round) {
            const auto begin = std::chrono::steady_clock::now();
            for (unsigned post = 0; post < kLot; ++post) {
                fixture.Post(fixture.poster(), 1);
            }
            const double spent = NanosecondsSince(begin) / kLot;
            best = round == 0 ? spent : std::min(best, spent);
            fixture.machine.RunWorkItems();
        }
        points.push_back({static_cast<double>(clients), best});
    }
    AddCurve(table, "post, clients before the poster", points, "the driver looks at one client after the other");
}

// Posts and deliveries in lots, so that handing the run to its thread weighs little.
double TimeOfLot(Fixture& fixture, const Options& options)
{
    constexpr unsigned kLot = 64;
    return NanosecondsOf(
        "lot",
        [&] {
            for (unsigned post = 0; post < kLot; ++post) {
                fixture.Post(fixture.poster(), 1);
            }
            fixture.machine.RunWorkItems();
        },
        options.isQuick, kLot);
}

// One state to all: cost of each delivery.
void DeliveryByClients(Table& table, const Options& options)
{
    std::vector<Point> points;
    for (unsigned clients = 1; clients <= 1024; clients *= 4) {
        Fixture fixture({.clients = clients, .subscriptionsEach = 1});
        points.push_back({static_cast<double>(clients), TimeOfLot(fixture, options)});
    }
    AddCurve(table, "post and delivery, subscribers", points, "each is called once");
}

void DeliveryBySubscriptions(Table& table, const Options& options)
{
    std::vector<Point> points;
    for (unsigned subscriptions = 1; subscriptions <= 64; subscriptions *= 2) {
        Fixture fixture({.clients = 64, .subscriptionsEach = subscriptions});
        points.push_back({static_cast<double>(subscriptions), TimeOfLot(fixture, options)});
    }
    AddCurve(table, "post and delivery to 64, subscriptions each", points, "each is compared");
}

// Time for each state of a queue filled before the run begins.
void DrainByDepth(Table& table, const Options& options)
{
    std::vector<Point> points;
    for (unsigned depth = 1; depth <= (options.isQuick ? 10000u : 100000u); depth *= 10) {
        Fixture fixture({.clients = 1, .subscriptionsEach = 1});
        double best = 0;
        for (unsigned round = 0; round < (depth >= 10000 ? 1u : 5u); ++round) {
            for (unsigned post = 0; post < depth; ++post) {
                fixture.Post(fixture.poster(), 1);
            }
            const auto begin = std::chrono::steady_clock::now();
            fixture.machine.RunWorkItems();
            const double spent = NanosecondsSince(begin) / depth;
            best = round == 0 ? spent : std::min(best, spent);
        }
        points.push_back({static_cast<double>(depth), best});
    }
    AddCurve(table, "delivery of each state, queued before:", points, "0 means that a long queue costs nothing extra");
}

void PostByThreads(Table& table, const Options& options)
{
    for (unsigned threads = 1; threads <= 8; threads *= 2) {
        Fixture fixture({.clients = threads, .workItems = host::WorkItems::kThreads, .workers = 1});
        const unsigned each = (options.isQuick ? 2000u : 20000u) / threads;
        const auto begin = std::chrono::steady_clock::now();
        std::vector<std::thread> posters;
        for (unsigned number = 1; number <= threads; ++number) {
            posters.emplace_back([&fixture, number, each] {
                for (unsigned post = 0; post < each; ++post) {
                    fixture.Post(number, 1);
                }
            });
        }
        for (std::thread& poster : posters) {
            poster.join();
        }
        fixture.machine.WaitForWorkItems();
        table.Add({.section = kSection,
                   .name = "posts and deliveries a second, posting threads: " + std::to_string(threads),
                   .on = Name(Subject::kNative),
                   .value = 1e9 * each * threads / NanosecondsSince(begin),
                   .unit = "a second"});
    }
}

}  // namespace

void MeasureScaling(Table& table, const Options& options)
{
    PostByClients(table, options);
    DeliveryByClients(table, options);
    DeliveryBySubscriptions(table, options);
    DrainByDepth(table, options);
    PostByThreads(table, options);
}

}  // namespace bench
