// Mutated files, with a fixed seed and a fixed number of each kind; ./zepn fuzz --files gives more. And what the fuzzer
// itself finds in readers that go wrong.
#include "tests/fuzz/kinds.h"
#include "tests/kit/texts.h"

#include <algorithm>
#include <cstdlib>

namespace tests {
namespace {

#if defined(ZEPN_SANITIZED)
constexpr std::uint64_t kFiles = 300;
#else
constexpr std::uint64_t kFiles = 2000;
#endif

class MutatedFiles : public testing::TestWithParam<std::size_t> {};

TEST_P(MutatedFiles, AreAcceptedOrRefusedWithASentence)
{
    const fuzz::FileKind& kind = fuzz::FileKinds()[GetParam()];
    fuzz::FuzzStatistics statistics;
    const auto failure = fuzz::FuzzFiles(kind, {.seed = 1, .files = kFiles}, statistics);
    ASSERT_FALSE(failure) << "file " << failure->number << ": " << failure->what << "\n" << failure->bytes;
    EXPECT_EQ(statistics.accepted + statistics.refused + statistics.faulted, kFiles);
    EXPECT_GE(statistics.accepted, kFiles / 20) << "hardly a file is as the format says";
    EXPECT_GE(statistics.refused, kFiles / 20) << "hardly a file is wrong";
}

INSTANTIATE_TEST_SUITE_P(Of, MutatedFiles, testing::Range(std::size_t{0}, fuzz::FileKinds().size()),
                         [](const auto& information) { return fuzz::FileKinds()[information.param].name; });

// A reader of one-letter commands that goes wrong at one of them.
fuzz::FileKind Reader(const std::function<void(char)>& read)
{
    return {.name = "letters",
            .originals = [] { return std::vector<std::string>{"abcdefgh", "some more letters, for some more trials"}; },
            .words = {"!"},
            .read =
                [read](const std::string& bytes) {
                    std::ranges::for_each(bytes, read);
                    return std::string();
                }};
}

TEST(FileFuzzer, FindsEachWayToGoWrongAndShrinksTheFile)
{
    const std::pair<std::function<void()>, const char*> kRows[] = {
        {[] { throw std::runtime_error("stoul"); }, "refused with a sentence that does not name the file: stoul"},
        {[] { std::abort(); }, "ended by a signal: Aborted"},
        {[] { std::_Exit(0); }, "the process ended before it was done"},
        {[] { std::_Exit(2); }, "the process ended with status 2"},
    };
    for (const auto& [goWrong, what] : kRows) {
        fuzz::FuzzStatistics statistics;
        const auto failure = fuzz::FuzzFiles(Reader([&](char letter) {
                                                 if (letter == '!') {
                                                     goWrong();
                                                 }
                                             }),
                                             {.seed = 1, .files = 1000}, statistics);
        ASSERT_TRUE(failure) << what;
        EXPECT_TRUE(Has(failure->what, what));
        EXPECT_EQ(failure->bytes, "!");
    }
}

}  // namespace
}  // namespace tests
