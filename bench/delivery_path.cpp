// Delivery path: the driver's own instructions for a post and its delivery, beside those of a minimal driver that makes
// the same framework calls, and the steps that the framework's lists cost it.
#include "bench/instruction_counter.h"
#include "bench/sections.h"
#include "bench/fixture.h"

namespace bench {
namespace {

constexpr const char* kPathSection = "Delivery path";

struct DeliveryPath {
    double post;
    double delivery;
    double listSteps;
    [[nodiscard]] double Sum() const { return post + delivery; }
};

// One post and its delivery, when all has been done once before. `state` 1 matches one subscription of each client.
DeliveryPath DeliveryPathOf(Subject subject, unsigned clients, unsigned subscriptionsEach, ULONG state)
{
    Fixture fixture({.subject = subject, .clients = clients, .subscriptionsEach = subscriptionsEach});
    fixture.Post(fixture.poster(), state);
    fixture.machine.RunWorkItems();
    const std::uint64_t stepsBefore = fixture.machine.CollectionSteps();
    InstructionCounter counter(*fixture.driver);
    const std::uint64_t post = counter.Count([&] { fixture.Post(fixture.poster(), state); });
    const std::uint64_t delivery = counter.Count([&] { fixture.machine.RunWorkItems(); });
    return {static_cast<double>(post), static_cast<double>(delivery),
            static_cast<double>(fixture.machine.CollectionSteps() - stepsBefore)};
}

void Compare(Table& table, Subject subject, Subject minimal, const Options& options)
{
    const auto add = [&](const std::string& name, double ours, double least, std::optional<Goal> goal) {
        table.Add({.section = kPathSection,
                   .name = name + ": instructions",
                   .on = Name(subject),
                   .value = ours,
                   .unit = "instructions",
                   .remark = "minimal driver " + std::to_string(static_cast<long>(least)),
                   .isExact = true});
        table.Add({.section = kPathSection,
                   .name = name + ": to the minimal driver",
                   .on = Name(subject),
                   .value = ours / least,
                   .unit = "ratio",
                   .goal = goal,
                   .isExact = true});
    };
    constexpr Goal kGoal{.limit = 1.10};
    // Natively every call into the reporting's slow path costs the callers ten saved registers: the two calling
    // conventions differ, and the host's compiler cannot know that the path is rarely taken. Not so in the image.
    const std::optional<Goal> goal = subject == Subject::kX64 ? std::optional(kGoal) : std::nullopt;
    const std::vector<unsigned> sizes = options.isQuick ? std::vector{16u} : std::vector{1u, 16u, 64u};
    for (const unsigned clients : sizes) {
        const DeliveryPath ours = DeliveryPathOf(subject, clients, 1, 1);
        const DeliveryPath least = DeliveryPathOf(minimal, clients, 1, 1);
        const std::string who = std::to_string(clients) + (clients == 1 ? " client" : " clients");
        add("post, " + who, ours.post, least.post, std::nullopt);
        add("delivery, " + who, ours.delivery, least.delivery, std::nullopt);
        add("post and delivery, " + who, ours.Sum(), least.Sum(), goal);
        table.Add({.section = kPathSection,
                   .name = "post and delivery, " + who + ": steps through the framework's lists",
                   .on = Name(subject),
                   .value = ours.listSteps,
                   .unit = "steps",
                   .isExact = true});
    }
    // The slopes: what one more of each costs in the delivery run.
    constexpr unsigned kClients = 8;
    constexpr ULONG kNobodys = 99;
    const auto slopes = [&](Subject which) {
        const double none = DeliveryPathOf(which, kClients, 0, kNobodys).delivery;
        const double fewer = DeliveryPathOf(which, kClients / 2, 0, kNobodys).delivery;
        const double one = DeliveryPathOf(which, kClients, 1, kNobodys).delivery;
        const double all = DeliveryPathOf(which, kClients, 1, 1).delivery;
        return std::array{(none - fewer) / (kClients / 2), (one - none) / kClients, (all - one) / kClients};
    };
    const auto ours = slopes(subject);
    const auto least = slopes(minimal);
    constexpr const char* kNames[] = {"each client visited", "each subscription visited", "each delivery"};
    for (std::size_t index = 0; index < ours.size(); ++index) {
        add(kNames[index], ours[index], least[index], std::nullopt);
    }
}

}  // namespace

void MeasureDeliveryPath(Table& table, const Options& options)
{
    if (!InstructionCounter::IsSupported()) {
        return;
    }
    Compare(table, Subject::kX64, Subject::kMinimalX64, options);
    if (!options.isQuick) {
        Compare(table, Subject::kNative, Subject::kMinimal, options);
    }
}

}  // namespace bench
