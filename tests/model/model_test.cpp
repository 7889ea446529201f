// Random sequences of the driver against the model within a fixed budget, and what happens when the two disagree.
#include "tests/model/run.h"

#include "host/checks/child_process.h"
#include "host/checks/crash.h"
#include "tests/kit/death.h"
#include "tests/kit/driver_fixture.h"
#include "tests/kit/settings.h"
#include "tests/model/observed.h"
#include "tests/play/played.h"

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

using model::Kind;
using model::Model;

constexpr std::uint64_t kSequences =
#ifdef ZEPN_SANITIZED
    150;
#else
    1000;
#endif

class Sequences : public OnContainer {};
FOR_ALL_CONTAINERS(Sequences);

TEST_P(Sequences, GoAsTheModelSays)
{
    model::Totals totals;
    const auto begin = std::chrono::steady_clock::now();
    const auto finding = model::Search({.seed = 2026, .sequences = kSequences}, GetParam().image, totals);
    const double spent = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    if (finding) {
        FAIL() << model::Report(*finding) << model::Scenario(*finding);
    }
    EXPECT_EQ(totals.sequences, kSequences);
    EXPECT_GT(totals.callbacks, 5 * kSequences) << "little happens in these sequences";
#ifndef ZEPN_SANITIZED
    EXPECT_GT(totals.hangs, 0u);
#endif

    const std::filesystem::path folder = ResultsFolder() / "statistics";
    std::filesystem::create_directories(folder);
    std::ofstream(folder / (std::string("model-") + GetParam().name + ".txt"))
        << model::Statistics(totals, spent, GetParam().name);
}

#ifndef ZEPN_SANITIZED
// Of this process's memory.
std::ptrdiff_t Mappings()
{
    std::ifstream maps("/proc/self/maps");
    return std::count(std::istreambuf_iterator<char>(maps), {}, '\n');
}

// Only a driver that hangs stays mapped; else a long search runs out of memory.
TEST_P(Sequences, LeaveNothingMapped)
{
    constexpr std::uint64_t kFew = 200;
    const host::checks::ChildResult ending = host::checks::RunInChild([] {
        model::Totals totals;
        const std::ptrdiff_t before = Mappings();
        for (std::uint64_t number = 0; number < kFew; ++number) {
            const model::Sequence sequence = model::Playable(model::Decode(model::RandomBytes(2026, number)));
            (void)model::Run(sequence, GetParam().image, totals);
        }
        return std::to_string(Mappings() - before);
    });
    ASSERT_EQ(ending.failure, "");
    EXPECT_LT(std::stol(ending.result), static_cast<long>(kFew));
}
#endif

// A seeded model bug: the driver is right, so what is found, and how short it gets, is known beforehand.
model::Finding FindingOf(Model::ModelBug bug)
{
    model::Totals totals;
    const auto finding = model::Search({.seed = 8, .sequences = 500}, ZEPN_NATIVE_DRIVER, totals, bug);
    EXPECT_TRUE(finding.has_value());
    return finding.value_or(model::Finding{});
}

// In any order: some may come either way round.
std::multiset<Kind> KindsOf(const model::Sequence& sequence)
{
    std::multiset<Kind> kinds;
    for (const auto& operation : sequence.operations) {
        kinds.insert(operation.kind);
    }
    return kinds;
}

TEST(Shrinking, EndsAtTheShortestSequence)
{
    const model::Finding own = FindingOf(Model::ModelBug::kNotifiesOfOwnStates);
    EXPECT_EQ(KindsOf(own.sequence), (std::multiset{Kind::kRegister, Kind::kSubscribe, Kind::kPost, Kind::kDeliver}))
        << model::Report(own);
    EXPECT_EQ(own.mismatch.operation, 3u);
    for (const auto& script : own.sequence.clients) {
        EXPECT_TRUE(script.answers.empty());
        EXPECT_FALSE(script.appsState.has_value());
    }

    // Announced by asking for descriptors, a client need not even post.
    const model::Finding gone = FindingOf(Model::ModelBug::kForgetsWithdrawals);
    EXPECT_EQ(KindsOf(gone.sequence), (std::multiset{Kind::kRegister, Kind::kDescribe, Kind::kDeregister}))
        << model::Report(gone);
}

#ifndef ZEPN_SANITIZED
using Places = std::set<std::uintptr_t>;

// Client 0 does these; where in the image the platform calls stand that are made.
model::Sequence SequenceOf(std::initializer_list<Kind> kinds)
{
    model::Sequence sequence;
    sequence.clients.resize(model::kClients);
    for (const Kind kind : kinds) {
        sequence.operations.emplace_back().kind = kind;
    }
    return sequence;
}

Places PlacesOf(const model::Sequence& sequence)
{
    Places places;
    model::Totals totals;
    model::onPlatformCall = [&](std::uintptr_t place) { places.insert(place); };
    EXPECT_FALSE(model::Run(sequence, ZEPN_NATIVE_DRIVER, totals).has_value());
    model::onPlatformCall = nullptr;
    return places;
}

// Does something at each platform call that is made for a client's deregistration, from now on, and at no other.
void AtDeregistration(const std::function<void()>& what)
{
    Places leaving = PlacesOf(SequenceOf({Kind::kRegister, Kind::kDeregister}));
    for (const std::uintptr_t place : PlacesOf(SequenceOf({Kind::kDeregister, Kind::kRegister}))) {
        leaving.erase(place);
    }
    model::onPlatformCall = [leaving, what](std::uintptr_t place) {
        if (leaving.contains(place)) {
            what();
        }
    };
}

// Whatever ends the process is found, shrunk, and reported with what it printed.
TEST(SequencesThatEndTheProcess, AreFoundLikeThoseThatDiffer)
{
    const std::pair<const char*, void (*)()> ends[] = {
        {"memory fault at ", &TouchNothing},
        {"this is refused", [] { throw host::HostError("this is refused"); }},
    };
    for (const auto& [says, end] : ends) {
        AtDeregistration(end);
        const model::Finding finding = FindingOf(Model::ModelBug::kNone);
        EXPECT_EQ(KindsOf(finding.sequence), (std::multiset{Kind::kRegister, Kind::kDeregister}))
            << model::Report(finding);
        EXPECT_EQ(finding.mismatch.operation, 1u);
        EXPECT_TRUE(Has(finding.mismatch.text, says));
    }
    const model::Sequence leaving = SequenceOf({Kind::kRegister, Kind::kCount, Kind::kDeregister});
    AtDeregistration([] { std::this_thread::sleep_for(std::chrono::hours(1)); });
    const auto endless = model::RunInOwnProcess(leaving, ZEPN_NATIVE_DRIVER, 3);
    ASSERT_TRUE(endless.has_value());
    EXPECT_EQ(endless->text, "it does not end\n  no progress: it waits for 3 s\n");
    EXPECT_EQ(endless->operation, 2u);

    unsigned left = 5000;  // calls, more than any sequence makes by itself
    model::onPlatformCall = [&](std::uintptr_t) { --left == 0 ? TouchNothing() : void(); };
    const model::Finding finding = FindingOf(Model::ModelBug::kNone);
    EXPECT_GT(finding.number, 0u);
    EXPECT_FALSE(finding.again) << model::Report(finding);
    EXPECT_TRUE(Has(finding.mismatch.text, "memory fault"));

    model::onPlatformCall = nullptr;
    EXPECT_FALSE(model::RunInOwnProcess(leaving, ZEPN_NATIVE_DRIVER, model::kWatchdogSeconds).has_value());
}
#endif

// Plays a sequence's scenario as ./zepn demo would; what was printed when it did not go as expected, else nothing.
std::string Play(const model::Sequence& sequence, const std::optional<model::Mismatch>& mismatch = std::nullopt)
{
    const std::string text = model::Scenario(sequence, "A sequence", mismatch);
    const Played played = PlayWith({.image = ZEPN_NATIVE_DRIVER}, play::ParseScenario(text, "sequence.json"));
    return played.isGood ? "" : text + played.text;
}

TEST(Scenarios, OfSequencesPlayAsTheModelExpects)
{
    const model::Finding finding = FindingOf(Model::ModelBug::kNotifiesOfOwnStates);
    const host::checks::ChildResult ending = host::checks::RunInChild([&] {
        unsigned hangs = 0;
        std::uint64_t number = 0;
        const host::checks::CrashContext words([&] { return "sequence " + std::to_string(number) + " of seed 99"; });
        for (; number < 150; ++number) {
            host::checks::SetWatchdog(model::kWatchdogSeconds);
            model::Sequence sequence = model::Decode(model::RandomBytes(99, number));
            sequence.mayHang = number % 10 == 0;
            sequence = model::Playable(sequence);
            Model model(sequence);
            for (const auto& operation : sequence.operations) {
                hangs += model.Do(operation).hangs ? 1 : 0;
            }
            if (const std::string wrong = Play(sequence); !wrong.empty()) {
                return "sequence " + std::to_string(number) + "\n" + wrong;
            }
        }
        return hangs == 0 ? "no sequence hangs" : Play(finding.sequence, finding.mismatch);  // found: with notes
    });
    EXPECT_EQ(ending.failure + ending.result, "");
}

TEST(Bytes, OfAnyKindAreASequence)
{
    EXPECT_TRUE(model::Decode({}).operations.empty());
    const std::vector<std::uint8_t> ones(5000, 0xFF);
    const model::Sequence sequence = model::Playable(model::Decode(ones));
    EXPECT_LE(sequence.operations.size(), 65u);
    EXPECT_FALSE(model::RunInOwnProcess(sequence, ZEPN_NATIVE_DRIVER, model::kWatchdogSeconds).has_value());
}

}  // namespace
}  // namespace tests
