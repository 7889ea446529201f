// Random lives of the driver against the model within a fixed budget, and what happens when the two disagree.
#include "tools/fuzz/run.h"

#include "tests/support/world.h"
#include "tools/play/player.h"
#include "tools/play/reading/scenario_reader.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>

namespace tests {
namespace {

using fuzz::Kind;
using fuzz::Model;

constexpr std::uint64_t kLives =
#ifdef ZEPN_SANITIZED
    150;
#else
    1000;
#endif

// Of this process's memory.
std::ptrdiff_t Mappings()
{
    std::ifstream maps("/proc/self/maps");
    return std::count(std::istreambuf_iterator<char>(maps), {}, '\n');
}

class Lives : public OnContainer {};
FOR_ALL_CONTAINERS(Lives);

TEST_P(Lives, GoAsTheModelSays)
{
    fuzz::Totals totals;
    [[maybe_unused]] const std::ptrdiff_t mappings = Mappings();
    const auto begin = std::chrono::steady_clock::now();
    const auto finding = fuzz::Search({.seed = 2026, .lives = kLives}, GetParam().image, totals);
    const double spent = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    if (finding) {
        FAIL() << fuzz::Report(*finding) << fuzz::Scenario(finding->life, "A life that went wrong", finding->mismatch);
    }
    EXPECT_EQ(totals.lives, kLives);
    EXPECT_GT(totals.callbacks, 5 * kLives) << "little happens in these lives";
#ifndef ZEPN_SANITIZED
    // Only a driver that stands still stays; else a long search ends for lack of memory.
    EXPECT_GT(totals.standstills, 0u);
    EXPECT_LT(Mappings() - mappings, static_cast<std::ptrdiff_t>(kLives));
#endif

    std::filesystem::create_directories(ZEPN_FIGURES);
    const std::filesystem::path file = std::string(ZEPN_FIGURES) + "/model-" + GetParam().name + ".txt";
    std::ofstream(file) << fuzz::Figures(totals, spent, GetParam().name);
}

// A model that is wrong on purpose: the driver is right, so what is found, and how short it gets, is known beforehand.
fuzz::Finding FindingOf(Model::Mistake mistake)
{
    fuzz::Totals totals;
    const auto finding = fuzz::Search({.seed = 7, .lives = 500}, ZEPN_NATIVE_DRIVER, totals, mistake);
    EXPECT_TRUE(finding.has_value());
    return finding.value_or(fuzz::Finding{});
}

// In any order: some may stand either way round.
std::multiset<Kind> KindsOf(const fuzz::Life& life)
{
    std::multiset<Kind> kinds;
    for (const auto& operation : life.operations) {
        kinds.insert(operation.kind);
    }
    return kinds;
}

TEST(Shrinking, EndsAtTheShortestLife)
{
    const fuzz::Finding own = FindingOf(Model::Mistake::kTellsOfOwnStates);
    EXPECT_EQ(KindsOf(own.life), (std::multiset{Kind::kRegister, Kind::kSubscribe, Kind::kPost, Kind::kDeliver}))
        << fuzz::Report(own);
    EXPECT_EQ(own.mismatch.operation, 3u);
    for (const auto& habits : own.life.clients) {
        EXPECT_TRUE(habits.answers.empty());
        EXPECT_FALSE(habits.appsState.has_value());
    }

    // Announced by asking for descriptors, a client need not even post.
    const fuzz::Finding gone = FindingOf(Model::Mistake::kForgetsWithdrawals);
    EXPECT_EQ(KindsOf(gone.life), (std::multiset{Kind::kRegister, Kind::kDescribe, Kind::kLeave}))
        << fuzz::Report(gone);
}

// Plays a life's scenario as ./zepn demo would; what was printed when it did not go as expected.
void Play(const fuzz::Life& life, const std::optional<fuzz::Mismatch>& mismatch = std::nullopt)
{
    const std::string text = fuzz::Scenario(life, "A life", mismatch);
    const play::Scenario scenario = play::ParseScenario(text, "life.json");
    std::ostringstream out;
    play::Timeline timeline(out, play::Timeline::Form::kText, false);
    play::PlayOptions options;
    options.image = ZEPN_NATIVE_DRIVER;
    EXPECT_TRUE(play::Play(scenario, options, timeline)) << text << out.str();
}

TEST(Scenarios, OfLivesPlayAsTheModelExpects)
{
    unsigned standstills = 0;
    for (std::uint64_t number = 0; number < 150; ++number) {
        fuzz::Life life = fuzz::Decode(fuzz::RandomBytes(99, number));
        life.mayStandStill = number % 10 == 0;
        life = fuzz::Playable(life);
        Model model(life);
        for (const auto& operation : life.operations) {
            standstills += model.Do(operation).standsStill ? 1 : 0;
        }
        Play(life);
        if (HasFailure()) {
            FAIL() << "life " << number;
        }
    }
    EXPECT_GT(standstills, 0u);
    const fuzz::Finding finding = FindingOf(Model::Mistake::kTellsOfOwnStates);
    Play(finding.life, finding.mismatch);  // with what was found as notes
}

TEST(Bytes, OfAnyKindAreALife)
{
    EXPECT_TRUE(fuzz::Decode({}).operations.empty());
    const std::vector<std::uint8_t> ones(5000, 0xFF);
    const fuzz::Life life = fuzz::Playable(fuzz::Decode(ones));
    EXPECT_LE(life.operations.size(), 65u);
    fuzz::Totals totals;
    EXPECT_FALSE(fuzz::Run(life, ZEPN_NATIVE_DRIVER, totals).has_value());
    // A seed and a number name a life for good.
    EXPECT_EQ(fuzz::RandomBytes(5, 6), fuzz::RandomBytes(5, 6));
    EXPECT_NE(fuzz::RandomBytes(5, 6), fuzz::RandomBytes(5, 7));
}

}  // namespace
}  // namespace tests
