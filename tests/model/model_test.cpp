// Random lives of the driver against the model within a fixed budget, and what happens when the two disagree.
#include "tests/model/run.h"

#include "host/checks/crash.h"
#include "tests/kit/death.h"
#include "tests/kit/world.h"
#include "tests/model/apart.h"
#include "tests/model/witness.h"
#include "tools/play/player.h"
#include "tools/play/reading/scenario_reader.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <thread>

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

class Lives : public OnContainer {};
FOR_ALL_CONTAINERS(Lives);

TEST_P(Lives, GoAsTheModelSays)
{
    fuzz::Totals totals;
    const auto begin = std::chrono::steady_clock::now();
    const auto finding = fuzz::Search({.seed = 2026, .lives = kLives}, GetParam().image, totals);
    const double spent = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    if (finding) {
        FAIL() << fuzz::Report(*finding) << fuzz::Scenario(*finding);
    }
    EXPECT_EQ(totals.lives, kLives);
    EXPECT_GT(totals.callbacks, 5 * kLives) << "little happens in these lives";
#ifndef ZEPN_SANITIZED
    EXPECT_GT(totals.standstills, 0u);
#endif

    std::filesystem::create_directories(ZEPN_FIGURES);
    const std::filesystem::path file = std::string(ZEPN_FIGURES) + "/model-" + GetParam().name + ".txt";
    std::ofstream(file) << fuzz::Figures(totals, spent, GetParam().name);
}

#ifndef ZEPN_SANITIZED
// Of this process's memory.
std::ptrdiff_t Mappings()
{
    std::ifstream maps("/proc/self/maps");
    return std::count(std::istreambuf_iterator<char>(maps), {}, '\n');
}

// Only a driver that stands still stays mapped; else a long search ends for lack of memory.
TEST_P(Lives, LeaveNothingMapped)
{
    constexpr std::uint64_t kFew = 200;
    const fuzz::Ending ending = fuzz::DoApart([] {
        fuzz::Totals totals;
        const std::ptrdiff_t before = Mappings();
        for (std::uint64_t number = 0; number < kFew; ++number) {
            const fuzz::Life life = fuzz::Playable(fuzz::Decode(fuzz::RandomBytes(2026, number)));
            (void)fuzz::Run(life, GetParam().image, totals);
        }
        return std::to_string(Mappings() - before);
    });
    ASSERT_EQ(ending.trouble, "");
    EXPECT_LT(std::stol(ending.result), static_cast<long>(kFew));
}
#endif

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

#ifndef ZEPN_SANITIZED
using Places = std::set<std::uintptr_t>;

// Client 0 does these; where in the image the platform calls stand that are made.
fuzz::Life LifeOf(std::initializer_list<Kind> kinds)
{
    fuzz::Life life;
    life.clients.resize(fuzz::kClients);
    for (const Kind kind : kinds) {
        life.operations.emplace_back().kind = kind;
    }
    return life;
}

Places PlacesOf(const fuzz::Life& life)
{
    Places places;
    fuzz::Totals totals;
    fuzz::onPlatformCall = [&](std::uintptr_t place) { places.insert(place); };
    EXPECT_FALSE(fuzz::Run(life, ZEPN_NATIVE_DRIVER, totals).has_value());
    fuzz::onPlatformCall = nullptr;
    return places;
}

// From here on something happens at each platform call that is made for a client that leaves, and at no other.
void WhenAClientLeaves(const std::function<void()>& what)
{
    Places leaving = PlacesOf(LifeOf({Kind::kRegister, Kind::kLeave}));
    for (const std::uintptr_t place : PlacesOf(LifeOf({Kind::kLeave, Kind::kRegister}))) {
        leaving.erase(place);
    }
    fuzz::onPlatformCall = [leaving, what](std::uintptr_t place) {
        if (leaving.contains(place)) {
            what();
        }
    };
}

// Whatever ends the process is found, shrunk, and told with its own words.
TEST(LivesThatEnd, AreFoundLikeThoseThatDiffer)
{
    const std::pair<const char*, void (*)()> ends[] = {
        {"memory fault at ", &TouchNothing},
        {"this is refused", [] { throw host::HostError("this is refused"); }},
    };
    for (const auto& [says, end] : ends) {
        WhenAClientLeaves(end);
        const fuzz::Finding finding = FindingOf(Model::Mistake::kNone);
        EXPECT_EQ(KindsOf(finding.life), (std::multiset{Kind::kRegister, Kind::kLeave})) << fuzz::Report(finding);
        EXPECT_EQ(finding.mismatch.operation, 1u);
        EXPECT_NE(finding.mismatch.text.find(says), std::string::npos) << finding.mismatch.text;
    }
    const fuzz::Life leaving = LifeOf({Kind::kRegister, Kind::kCount, Kind::kLeave});
    WhenAClientLeaves([] { std::this_thread::sleep_for(std::chrono::hours(1)); });
    const auto endless = fuzz::RunApart(leaving, ZEPN_NATIVE_DRIVER, 3);
    ASSERT_TRUE(endless.has_value());
    EXPECT_EQ(endless->text, "it went on without end\n  no progress: it waits for 3 s\n");
    EXPECT_EQ(endless->operation, 2u);

    unsigned left = 5000;  // calls, more than any life makes by itself
    fuzz::onPlatformCall = [&](std::uintptr_t) { --left == 0 ? TouchNothing() : void(); };
    const fuzz::Finding finding = FindingOf(Model::Mistake::kNone);
    EXPECT_GT(finding.number, 0u);
    EXPECT_FALSE(finding.again) << fuzz::Report(finding);
    EXPECT_NE(finding.mismatch.text.find("memory fault"), std::string::npos);

    fuzz::onPlatformCall = nullptr;
    EXPECT_FALSE(fuzz::RunApart(leaving, ZEPN_NATIVE_DRIVER, fuzz::kPatienceSeconds).has_value());
}
#endif

// Plays a life's scenario as ./zepn demo would; what was printed when it did not go as expected, else nothing.
std::string Play(const fuzz::Life& life, const std::optional<fuzz::Mismatch>& mismatch = std::nullopt)
{
    const std::string text = fuzz::Scenario(life, "A life", mismatch);
    const play::Scenario scenario = play::ParseScenario(text, "life.json");
    std::ostringstream out;
    play::Timeline timeline(out, play::Timeline::Form::kText, false);
    play::PlayOptions options;
    options.image = ZEPN_NATIVE_DRIVER;
    return play::Play(scenario, options, timeline) ? "" : text + out.str();
}

TEST(Scenarios, OfLivesPlayAsTheModelExpects)
{
    const fuzz::Finding finding = FindingOf(Model::Mistake::kTellsOfOwnStates);
    const fuzz::Ending ending = fuzz::DoApart([&] {
        unsigned standstills = 0;
        std::uint64_t number = 0;
        const host::checks::LastWords words([&] { return "life " + std::to_string(number) + " of seed 99"; });
        for (; number < 150; ++number) {
            fuzz::Patience(fuzz::kPatienceSeconds);
            fuzz::Life life = fuzz::Decode(fuzz::RandomBytes(99, number));
            life.mayStandStill = number % 10 == 0;
            life = fuzz::Playable(life);
            Model model(life);
            for (const auto& operation : life.operations) {
                standstills += model.Do(operation).standsStill ? 1 : 0;
            }
            if (const std::string wrong = Play(life); !wrong.empty()) {
                return "life " + std::to_string(number) + "\n" + wrong;
            }
        }
        return standstills == 0 ? "none stands still" : Play(finding.life, finding.mismatch);  // found: with notes
    });
    EXPECT_EQ(ending.trouble + ending.result, "");
}

TEST(Bytes, OfAnyKindAreALife)
{
    EXPECT_TRUE(fuzz::Decode({}).operations.empty());
    const std::vector<std::uint8_t> ones(5000, 0xFF);
    const fuzz::Life life = fuzz::Playable(fuzz::Decode(ones));
    EXPECT_LE(life.operations.size(), 65u);
    EXPECT_FALSE(fuzz::RunApart(life, ZEPN_NATIVE_DRIVER, fuzz::kPatienceSeconds).has_value());
    // A seed and a number name a life for good.
    EXPECT_EQ(fuzz::RandomBytes(5, 6), fuzz::RandomBytes(5, 6));
    EXPECT_NE(fuzz::RandomBytes(5, 6), fuzz::RandomBytes(5, 7));
}

}  // namespace
}  // namespace tests
