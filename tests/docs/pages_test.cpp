// The interface header, the list of reports and the pages of docs/ against one another and against what really happens:
// every status, prohibition and error event stands in docs/troubleshooting.md with a scenario that shows it.
#include "host/tracing/decode.h"
#include "tests/docs/text_files.h"
#include "tests/kit/settings.h"
#include "tests/play/played.h"
#include "tools/play/diagram.h"
#include "tools/play/perfetto.h"

#include <nlohmann/json.hpp>

#include <regex>
#include <set>
#include <sstream>

namespace tests {
namespace {

using Pairs = std::set<std::pair<std::string, std::string>>;

// What a played scenario showed.
class Shown final : public play::Observer {
public:
    void OnEntry(unsigned, const play::Entry& entry) override
    {
        if (entry.kind == play::EntryKind::kReport) {
            reports.insert(entry.who);
        }
        hasFinding = hasFinding || entry.kind == play::EntryKind::kFinding;
    }
    void OnBegin(unsigned, const play::Span& span) override { open_[span.who].push_back(span.name); }
    void OnEnd(const std::string& who, const std::string& outcome) override
    {
        statuses.insert({open_[who].back(), outcome});
        open_[who].pop_back();
    }

    std::set<std::string> reports;  // "event 12"
    Pairs statuses;                 // operation, status
    bool hasFinding = false;

private:
    std::map<std::string, std::vector<std::string>> open_;
};

const play::PlayOptions kOptions = {.image = kRoot / "out" / kMachine / "zepn.sys",
                                    .decodingFiles = kRoot / "out" / "manifest",
                                    .eventLevel = std::uint8_t{3}};

// Plays a scenario once, which must end as it expects.
const Shown& Play(const std::filesystem::path& file)
{
    static std::map<std::filesystem::path, Shown> played;
    const auto [found, isNew] = played.try_emplace(std::filesystem::canonical(file));
    if (isNew) {
        const Played run = PlayWith(kOptions, play::ReadScenario(file), &found->second);
        EXPECT_TRUE(run.isGood) << file << "\n" << run.text;
    }
    return found->second;
}

// The rows of all tables of a page, cell by cell, without back-quotes.
std::vector<std::vector<std::string>> Rows(const std::string& page)
{
    std::vector<std::vector<std::string>> rows;
    for (std::string line : LinesOf(page)) {
        if (!line.starts_with("| ")) {
            continue;
        }
        std::erase(line, '`');
        std::vector<std::string>& cells = rows.emplace_back();
        for (std::size_t at = 2; at < line.size();) {
            const std::size_t end = line.find(" |", at);
            cells.push_back(line.substr(at, end - at));
            at = end == std::string::npos ? end : end + 3;
        }
    }
    return rows;
}

const Shown& PlayLinked(const std::vector<std::string>& row)
{
    std::smatch link;
    EXPECT_TRUE(std::regex_search(row.back(), link, std::regex(R"(\]\((.*\.json)\))"))) << row[0] << ": no scenario";
    return Play(kRoot / "docs" / link[1].str());
}

// The statuses that the header names for each operation: lines "// STATUS_..." in the comment above its type.
Pairs StatusesOfHeader(const std::string& header)
{
    std::map<std::string, std::set<std::string>> byType;
    std::set<std::string> named;
    bool wasComment = false;
    std::smatch match;
    Pairs statuses;
    for (const std::string& line : LinesOf(header)) {
        const bool isComment = line.starts_with("//");
        if (isComment && !wasComment) {
            named.clear();
        }
        wasComment = isComment || (wasComment && line.empty());
        if (std::regex_search(line, match, std::regex("^// (STATUS_[A-Z_]+)"))) {
            named.insert(match[1]);
        } else if (std::regex_search(line, match, std::regex(R"(^typedef NTSTATUS\(NTAPI (\w+)\))"))) {
            byType["P" + match[1].str()] = named;
        } else if (std::regex_search(line, match, std::regex(R"(^    (P\w+) (Notifier_\w+);)"))) {
            for (const std::string& status : byType[match[1]]) {
                statuses.insert({match[2], status});
            }
        } else if (line.starts_with("#define IOCTL_")) {
            for (const std::string& status : named) {
                statuses.insert({"I/O control", status});
            }
        }
    }
    std::erase_if(statuses, [](const auto& pair) { return pair.second == "STATUS_SUCCESS"; });
    return statuses;
}

TEST(Troubleshooting, HoldsEachStatusProhibitionAndEventWithAScenarioThatShowsIt)
{
    constexpr unsigned kWarning = 3;
    const std::string header = ReadAll(kRoot / "driver/include/zepn_notifier.h");
    Pairs expected = StatusesOfHeader(header);
    EXPECT_GT(expected.size(), 40u);
    for (const std::string& prohibition : Matches(header, R"(\n//   (\[[a-z-]+\]) )")) {
        expected.insert({prohibition, ""});
    }
    EXPECT_GT(std::ranges::count(expected, "", &Pairs::value_type::second), 5);
    const host::tracing::Manifest manifest(kRoot / "out/manifest/zepn.man");
    for (const auto& [id, event] : manifest.events()) {
        if (event.level <= kWarning) {
            expected.insert({"event " + std::to_string(id), ""});
        }
    }
    Pairs found;
    for (const auto& row : Rows(ReadAll(kRoot / "docs/troubleshooting.md"))) {
        const bool isStatus = row.size() == 5 && row[1].starts_with("STATUS_");
        const bool isEvent = row[0].starts_with("event ");
        if (isStatus || isEvent || row[0].starts_with("[")) {
            const Shown& shown = PlayLinked(row);
            const auto& [what, status] = *found.insert({row[0], isStatus ? row[1] : ""}).first;
            EXPECT_TRUE(isStatus  ? shown.statuses.contains({what, status})
                        : isEvent ? shown.reports.contains(what)
                                  : shown.hasFinding)
                << what << " " << status;
        }
    }
    EXPECT_EQ(found, expected);
}

// Nothing in the page is only claimed, and no scenario lies about that no page leads to.
TEST(Troubleshooting, EachRowHasAScenarioAndEachScenarioARow)
{
    const std::string page = ReadAll(kRoot / "docs/troubleshooting.md");
    bool isInTable = false;
    for (const std::string& line : LinesOf(page)) {
        if (isInTable && line.starts_with("|")) {
            EXPECT_TRUE(Has(line, ".json) |"));
        }
        isInTable = line.starts_with("|--") || (isInTable && line.starts_with("|"));
    }
    for (const auto& entry : std::filesystem::directory_iterator(kRoot / "scenarios/misuse")) {
        const std::string link = "](../scenarios/misuse/" + entry.path().filename().string() + ")";
        EXPECT_NE(page.find(link), std::string::npos) << entry.path();
    }
}

TEST(Scenarios, AllPlayToTheEndThatTheyExpect)
{
    for (const auto& entry : std::filesystem::recursive_directory_iterator(kRoot / "scenarios")) {
        if (entry.path().extension() == ".json") {
            (void)Play(entry.path());
        }
    }
}

TEST(Pages, ReportsPageIsTheGeneratedOne)
{
    EXPECT_EQ(ReadAll(kRoot / "docs/reports.md"), ReadAll(kRoot / "out/pages/reports.md"))
        << "copy out/pages/reports.md to docs/";
    const std::string list = ReadAll(kRoot / "driver/trace/reports.def");
    const std::string count = std::to_string(CountMatches(list, R"(\nREPORT\()"));
    EXPECT_NE(ReadAll(kRoot / "README.md").find("| " + count + " of " + count + ", both images |"), std::string::npos)
        << "the README counts other reporting sites";
}

TEST(Pages, LinkOnlyToWhatIsThere)
{
    std::vector<std::filesystem::path> pages = {kRoot / "README.md", kRoot / "CONTRIBUTING.md",
                                                kRoot / "driver/wdk/README.md"};
    for (const auto& entry : std::filesystem::directory_iterator(kRoot / "docs")) {
        pages.push_back(entry.path());
    }
    for (const auto& page : pages) {
        for (const std::string& link : Matches(ReadAll(page), R"(\]\(([^)#:]+)(?:#[^)]*)?\))")) {
            EXPECT_TRUE(std::filesystem::exists(page.parent_path() / link)) << page << ": " << link;
        }
    }
}

TEST(Perfetto, HasATrackForEachAndAnArrowIntoEachDelivery)
{
    double us = 0;
    play::Perfetto picture("boot", [&us] { return us += 10; });
    ASSERT_TRUE(PlayWith(kOptions, play::ReadScenario(kRoot / "scenarios/boot.json"), &picture).isGood);
    std::ostringstream written;
    picture.Write(written);
    const auto trace = nlohmann::json::parse(written.str());

    std::map<int, std::string> tracks;
    std::vector<nlohmann::json> slices;
    std::map<int, std::vector<nlohmann::json>> arrows;  // by id: begin, end
    for (const auto& event : trace["traceEvents"]) {
        const std::string phase = event["ph"];
        if (phase == "M" && event["name"] == "thread_name") {
            tracks[event["tid"]] = event["args"]["name"];
        } else if (phase == "X") {
            slices.push_back(event);
        } else if (phase == "s" || phase == "f") {
            arrows[event["id"]].push_back(event);
        }
    }
    std::set<std::string> names;
    for (const auto& [track, name] : tracks) {
        names.insert(name);
    }
    EXPECT_EQ(names, (std::set<std::string>{"system", "application", "crash dump", "power", "modem", "audio", "sensors",
                                            "monitor", "video", "NotifierEvtWorkItemNotifyStates",
                                            "NotifierEvtWorkItemNotifyCommands", "NotifierEvtWorkItemWpcdClientAdd",
                                            "NotifierEvtWorkItemWpcdClientRemove"}));
    // Both ends of an arrow lie in slices, or viewers drop it.
    std::set<double> deliveries;
    for (const auto& [id, ends] : arrows) {
        ASSERT_EQ(ends.size(), 2u) << id;
        EXPECT_LT(ends[0]["ts"], ends[1]["ts"]);
        for (const auto& end : ends) {
            EXPECT_TRUE(std::any_of(slices.begin(), slices.end(), [&](const auto& slice) {
                return slice["tid"] == end["tid"] && slice["ts"] <= end["ts"] &&
                       end["ts"] <= slice["ts"].template get<double>() + slice["dur"].template get<double>();
            })) << end;
        }
        deliveries.insert(ends[1]["ts"].get<double>());
    }
    for (const auto& slice : slices) {
        const std::string name = slice["name"];
        if (slice["cat"] == "callback" && name.find("state none") == std::string::npos &&
            !name.starts_with("application-state")) {
            EXPECT_TRUE(deliveries.contains(slice["ts"].get<double>())) << "no arrow leads to " << name;
        }
    }
}

}  // namespace
}  // namespace tests
