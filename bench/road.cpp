// The road of a state: the driver's own instructions for a post and its delivery, beside the least that the same
// framework calls permit.
#include "bench/instruction_counter.h"
#include "bench/sections.h"
#include "bench/stage.h"

namespace bench {
namespace {

constexpr const char* kPathSection = "The road of a state";

struct Road {
    double post;
    double delivery;
    [[nodiscard]] double Sum() const { return post + delivery; }
};

// One post and its delivery, when all has been done once before. `state` 1 matches one subscription of each client.
Road RoadOf(Subject subject, unsigned clients, unsigned subscriptionsEach, ULONG state)
{
    Stage stage({.subject = subject, .clients = clients, .subscriptionsEach = subscriptionsEach});
    stage.Post(stage.poster(), state);
    stage.machine.RunWorkItems();
    InstructionCounter counter(*stage.driver);
    const std::uint64_t post = counter.Count([&] { stage.Post(stage.poster(), state); });
    const std::uint64_t delivery = counter.Count([&] { stage.machine.RunWorkItems(); });
    return {static_cast<double>(post), static_cast<double>(delivery)};
}

void Compare(Table& table, Subject subject, Subject bound, const Options& options)
{
    const auto add = [&](const std::string& name, double ours, double least, std::optional<Goal> goal) {
        table.Add({.section = kPathSection, .name = name + ": instructions", .on = Name(subject), .value = ours,
                   .unit = "instructions", .remark = "bound " + std::to_string(static_cast<long>(least)),
                   .isExact = true});
        table.Add({.section = kPathSection, .name = name + ": to the bound", .on = Name(subject), .value = ours / least,
                   .unit = "ratio", .goal = goal, .isExact = true});
    };
    constexpr Goal kGoal{.limit = 1.10};
    // Natively every call into the reporting's cold half costs the callers ten saved registers: the two calling
    // conventions differ, and the host's compiler cannot know that the half is cold. The image has no such seam.
    const std::optional<Goal> goal = subject == Subject::kX64 ? std::optional(kGoal) : std::nullopt;
    const std::vector<unsigned> sizes = options.isQuick ? std::vector{16u} : std::vector{1u, 16u, 64u};
    for (const unsigned clients : sizes) {
        const Road ours = RoadOf(subject, clients, 1, 1);
        const Road least = RoadOf(bound, clients, 1, 1);
        const std::string who = std::to_string(clients) + (clients == 1 ? " client" : " clients");
        add("post, " + who, ours.post, least.post, std::nullopt);
        add("delivery, " + who, ours.delivery, least.delivery, std::nullopt);
        add("post and delivery, " + who, ours.Sum(), least.Sum(), goal);
    }
    // The slopes: what one more of each costs in the delivery run.
    constexpr unsigned kClients = 8;
    constexpr ULONG kNobodys = 99;
    const auto slopes = [&](Subject which) {
        const double none = RoadOf(which, kClients, 0, kNobodys).delivery;
        const double fewer = RoadOf(which, kClients / 2, 0, kNobodys).delivery;
        const double one = RoadOf(which, kClients, 1, kNobodys).delivery;
        const double told = RoadOf(which, kClients, 1, 1).delivery;
        return std::array{(none - fewer) / (kClients / 2), (one - none) / kClients, (told - one) / kClients};
    };
    const auto ours = slopes(subject);
    const auto least = slopes(bound);
    constexpr const char* kNames[] = {"each client visited", "each subscription visited", "each delivery"};
    for (std::size_t index = 0; index < ours.size(); ++index) {
        add(kNames[index], ours[index], least[index], std::nullopt);
    }
}

}  // namespace

void MeasureRoad(Table& table, const Options& options)
{
    if (!InstructionCounter::IsSupported()) {
        return;
    }
    Compare(table, Subject::kX64, Subject::kBoundX64, options);
    if (!options.isQuick) {
        Compare(table, Subject::kNative, Subject::kBound, options);
    }
}

}  // namespace bench
