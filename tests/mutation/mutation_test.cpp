// The mutation run itself: which mutants a source has, what becomes of them, how the list of equivalent ones is kept.
#include "tests/mutation/native_driver.h"

#include "tests/kit/texts.h"

#include <nlohmann/json.hpp>

#include <algorithm>

namespace mutation {
namespace {

using tests::TemporaryFolder;
using Lines = std::vector<std::string>;

// A project with one source, and a build folder whose only test calls the driver's function.
struct TinyProject : TemporaryFolder {
    explicit TinyProject(const std::string& source) : TemporaryFolder("zepn mutants ")
    {
        const std::string build = (path / "build").string();
        const std::string file = (path / "driver/tiny.cpp").string();
        const std::string object = "platform/zepn_native.dir/tiny.o";
        const std::string compile = "clang++-19 -std=c++20 -O1 -g -fPIC -o " + object + " -c '" + file + "'";
        Write("driver/tiny.cpp", source);
        Write("build/tests.cpp", R"(
            #include <cstdlib>
            #include <dlfcn.h>
            #include <fstream>
            #include <iterator>
            #include <string>
            int main()
            {
                void* driver = dlopen(std::getenv("ZEPN_NATIVE_DRIVER"), RTLD_NOW);
                const auto limit = reinterpret_cast<int (*)(int)>(dlsym(driver, "Limit"));
                std::ifstream file(std::getenv("ZEPN_NATIVE_DRIVER"), std::ios::binary);
                const std::string image{std::istreambuf_iterator<char>(file), {}};
                const bool knowsItsLines = image.find(".debug_line") != std::string::npos;
                return limit(1) == 1 && limit(5) == 3 && knowsItsLines ? 0 : 1;
            }
        )");
        Write("build/compile_commands.json",
              nlohmann::json::array({{{"directory", build}, {"file", file}, {"command", compile}}}).dump());
        Write("build/build.ninja", "rule run\n command = $do\nbuild " + object + ": run\n do = " + compile +
                                       "\nbuild platform/zepn.so: run " + object +
                                       "\n do = clang++-19 -shared -o platform/zepn.so " + object + "\n");
        EXPECT_EQ(Run("cd build && mkdir -p platform/zepn_native.dir tests && ninja > log"
                      " && clang++-19 -o tests/behaviour_tests tests.cpp"
                      " && for name in model fault_injection concurrency; do ln -s /bin/true tests/${name}_tests; done")
                      .status,
                  0);
    }
};

constexpr const char* kLimit = R"(#include <cstddef>
extern "C" int Limit(int value)
{
    const int unread = 7;
    if (value > 3) {
        return 3;
    }
    return value;
}
extern "C" int Unused()
{
    return 9;
}
)";

TEST(MutationRun, KillsWhatATestSeesAndShowsWhatSurvives)
{
    const TinyProject project(kLimit);
    const NativeDriver driver(project.path, project.path / "build");
    EXPECT_NO_THROW(driver.TestUnchanged());
    const std::vector<Mutant> mutants = driver.Mutants();
    std::istringstream list("driver/tiny.cpp, Unused\nreturn 9;\n`9` -> `(9 + 1)`\nnobody calls it\n");
    Lines lines;
    const Plan plan{.seed = 1, .wanted = mutants.size(), .workers = 2};
    const std::vector<Result> results = RunCampaign(
        mutants, Equivalents(list), plan,
        [&](const Mutant& mutant, unsigned worker) { return driver.Judge(mutant, worker); },
        [&](const Result& result) { lines.push_back(LineOf(result)); });
    std::ranges::sort(lines);
    EXPECT_EQ(lines, (Lines{
                         "driver/tiny.cpp:12: constant, `9` -> `(9 + 1)`: survived, listed as equivalent\n",
                         "driver/tiny.cpp:12: dropped return, without `return 9`: does not compile\n",
                         "driver/tiny.cpp:4: constant, `7` -> `(7 + 1)`: same code\n",
                         "driver/tiny.cpp:4: dropped initialiser, `7` -> `{}`: same code\n",
                         "driver/tiny.cpp:5: comparison, `>` -> `<=`: killed by behaviour\n",
                         "driver/tiny.cpp:5: comparison, `>` -> `>=`: same code\n",    // three on both sides
                         "driver/tiny.cpp:5: constant, `3` -> `(3 + 1)`: survived\n",  // 4 is never tried
                         "driver/tiny.cpp:5: dropped branch, without `if (value > 3) { return 3; }`: killed by "
                         "behaviour\n",
                         "driver/tiny.cpp:6: constant, `3` -> `(3 + 1)`: killed by behaviour\n",
                         "driver/tiny.cpp:6: dropped return, without `return 3`: killed by behaviour\n",
                         "driver/tiny.cpp:8: dropped return, without `return value`: does not compile\n",
                     }));
    EXPECT_EQ(Summary(results, mutants.size(), plan),
              "mutants: 6 of 11, seed 1: 4 killed (behaviour 4), 1 equivalent, 1 survived; besides 2 that do not "
              "compile and 3 of the same code\n"
              "\n"
              "driver/tiny.cpp:5: constant, `3` -> `(3 + 1)`: survived\n"
              "driver/tiny.cpp, Limit\nif (value > 3) {\n`3` -> `(3 + 1)`\n");
}

TEST(MutationRun, RefusesADriverThatFailsUnchanged)
{
    const TinyProject project("extern \"C\" int Limit(int value)\n{\n    return value;\n}\n");
    EXPECT_THROW(NativeDriver(project.path, project.path / "build").TestUnchanged(), std::runtime_error);
}

// One of each operator, and what must have none: static assertions, the bodies of macros, a second instance.
TEST(Mutants, AreThoseOfTheSyntaxTree)
{
    const TinyProject project(R"(
#define FAILED(status) ((status) < 0)
#define SUCCESS (0L)
enum class Fruit { kApple, kPear };
constexpr int kLimit = sizeof(int);
static_assert(kLimit == 4);
int Take(int first, int second);
template <class Value>
Value Twice(Value value)
{
    return value + value;
}
extern "C" int Limit(int value)
{
    int sum = SUCCESS;
    for (int index = 0; index < kLimit; ++index) {
        int part = 5;
        sum += Take(part, value);
    }
    if (FAILED(sum) && value != 2) {
        (void)Take(Twice(sum), Twice('a'));
    }
    return !value ? static_cast<int>(Fruit::kPear) : Take(1, 1);
}
int Take(int first, int)
{
    return first;
}
)");
    Lines changes;
    for (const Mutant& mutant : NativeDriver(project.path, project.path / "build").Mutants()) {
        changes.push_back(std::to_string(mutant.line) + " " + mutant.kind + ": " + mutant.change);
    }
    EXPECT_EQ(changes, (Lines{
                           "5 constant: `sizeof(int)` -> `(sizeof(int) + 1)`",
                           "5 dropped initialiser: `sizeof(int)` -> `{}`",
                           "11 dropped return: without `return value + value`",
                           "11 arithmetic: `+` -> `-`",
                           "15 constant: `SUCCESS` -> `(SUCCESS + 1)`",
                           "15 dropped initialiser: `SUCCESS` -> `{}`",
                           "17 moved initialisation: `int part = 5;` before the loop",
                           "16 dropped loop: without `for (int index = 0; index < kLimit; ++index) { int part =...`",
                           "16 constant: `0` -> `(0 + 1)`",
                           "16 dropped initialiser: `0` -> `{}`",
                           "16 comparison: `<` -> `<=`",
                           "16 comparison: `<` -> `>=`",
                           "16 constant: `kLimit` -> `(kLimit + 1)`",
                           "16 arithmetic: `++` -> `--`",
                           "17 constant: `5` -> `(5 + 1)`",
                           "17 dropped initialiser: `5` -> `{}`",
                           "18 dropped assignment: without `sum += Take(part, value)`",
                           "18 arithmetic: `+=` -> `-=`",
                           "18 dropped call: `Take(part, value)` -> `{}`",
                           "18 swapped arguments: `part` <-> `value`",
                           "20 dropped branch: without `if (FAILED(sum) && value != 2) { (void)Take(Twice(sum), T...`",
                           "20 logic: without `FAILED(sum)`",
                           "20 logic: without `value != 2`",
                           "20 negated condition: `FAILED(sum) && value != 2` -> `!(FAILED(sum) && value != 2)`",
                           "20 logic: `&&` -> `||`",
                           "20 comparison: `!=` -> `==`",
                           "20 constant: `2` -> `(2 + 1)`",
                           "21 dropped call: without `(void)Take(Twice(sum), Twice('a'))`",
                           "21 dropped call: `Twice(sum)` -> `{}`",
                           "21 dropped call: `Twice('a')` -> `{}`",
                           "21 constant: `'a'` -> `('a' + 1)`",
                           "23 dropped return: without `return !value ? static_cast<int>(Fruit::kPear) : Take(1, 1)`",
                           "23 negated condition: `!value` -> `value`",
                           "23 constant: `Fruit::kPear` -> `Fruit::kApple`",
                           "23 dropped call: `Take(1, 1)` -> `{}`",
                           "23 constant: `1` -> `(1 + 1)`",
                           "23 constant: `1` -> `(1 + 1)` #2",
                           "27 dropped return: without `return first`",
                       }));
}

std::vector<Mutant> Numbered(unsigned count)
{
    std::vector<Mutant> mutants(count);
    for (unsigned number = 0; number < count; ++number) {
        mutants[number].line = number;
    }
    return mutants;
}

TEST(Campaign, DrawsTheSameMutantsBySeedHoweverManyWorkThere)
{
    // Every third does not count.
    const Judge judge = [](const Mutant& mutant, unsigned) {
        return Verdict{mutant.line % 3 == 0 ? MutantStatus::kRefused : MutantStatus::kKilled, ""};
    };
    std::istringstream none;
    const Equivalents equivalents(none);
    const auto draw = [&](std::uint64_t seed, unsigned workers) {
        std::vector<unsigned> lines;
        for (const Result& result :
             RunCampaign(Numbered(300), equivalents, {.seed = seed, .wanted = 20, .workers = workers}, judge,
                         [](const Result&) {})) {
            lines.push_back(result.mutant.line);
        }
        return lines;
    };
    const std::vector<unsigned> lines = draw(1, 1);
    EXPECT_EQ(std::ranges::count_if(lines, [](unsigned line) { return line % 3 != 0; }), 20);
    EXPECT_EQ(draw(1, 4), lines);
    EXPECT_NE(draw(2, 1), lines);
}

TEST(EquivalentMutants, AreEntriesWithAReasonThatMustNotGrowStale)
{
    Mutant mutant;
    mutant.file = "driver/a.cpp";
    mutant.function = "Do";
    mutant.lineText = "return 1;";
    mutant.change = "`1` -> `2`";
    const std::string entry = "driver/a.cpp, Do\nreturn 1;\n`1` -> `2`\n";
    std::istringstream list("# Why.\n\n" + entry +
                            "nobody asks\n\ndriver/a.cpp, Do\nreturn 0;\n`0` -> `1`\n`0` -> `2`\ngone\n");
    const Equivalents equivalents(list);
    EXPECT_EQ(equivalents.ReasonFor(mutant), "nobody asks");
    EXPECT_EQ(equivalents.Stale({mutant}),
              (Lines{"driver/a.cpp, Do\nreturn 0;\n`0` -> `1`\n", "driver/a.cpp, Do\nreturn 0;\n`0` -> `2`\n"}));
    // Listed, but a test sees it.
    EXPECT_TRUE(IsWrong({mutant, {MutantStatus::kKilled, "model"}, "nobody asks"}));
    EXPECT_FALSE(IsWrong({mutant, {MutantStatus::kSurvived, ""}, "nobody asks"}));

    std::ifstream ours(std::string(ZEPN_ROOT) + "/tests/mutation/equivalent.txt");
    ASSERT_TRUE(ours.good());
    EXPECT_NO_THROW(Equivalents{ours});
    for (const std::string& wrong : {entry, entry + "why\n\n" + entry + "why\n"}) {
        std::istringstream stream(wrong);
        EXPECT_THROW(Equivalents{stream}, std::runtime_error) << wrong;
    }
}

}  // namespace
}  // namespace mutation
