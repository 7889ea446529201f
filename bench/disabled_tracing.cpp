// Disabled tracing: what a reporting site costs while no session is enabled, read from the machine code of both images
// for every site, and its share of the delivery path, counted.
#include "bench/instruction_counter.h"
#include "bench/machine_code.h"
#include "bench/sections.h"
#include "bench/fixture.h"

#include "driver/trace/report_list.h"

#include <stdexcept>

namespace bench {
namespace {

constexpr const char* kTracingSection = "Disabled tracing";

void MeasureSites(Table& table, const std::string& machine)
{
    const SiteCode code = ReadSiteCode(std::filesystem::path(ZEPN_ROOT) / "out" / machine / "zepn.sys", machine);
    unsigned untested = 0;
    unsigned unresolved = 0;
    unsigned inLine = 0;
    std::size_t longest = 0;
    std::map<int, std::set<Channel>> found;
    for (const SiteTest& test : code.tests) {
        untested += test.isTested ? 0 : 1;
        unresolved += test.isTested && test.site < 0 ? 1 : 0;
        inLine += test.isTested && !test.isColdOutOfLine ? 1 : 0;
        longest = std::max(longest, test.path.size());
        if (test.site >= 0) {
            found[test.site].insert(test.channel);
        }
    }
    unsigned complete = 0;
    std::string wrong;
    for (std::size_t site = 0; site < std::size(kReportDefinitions); ++site) {
        std::set<Channel> wanted;
        if (kReportDefinitions[site].event != 0) {
            wanted.insert(Channel::kEvents);
        }
        if (kReportDefinitions[site].message.number != 0) {
            wanted.insert(Channel::kMessages);
        }
        const auto match = found.find(static_cast<int>(site));
        if ((match == found.end() ? std::set<Channel>{} : match->second) == wanted) {
            ++complete;
        } else if (wrong.size() < 60) {
            wrong += (wrong.empty() ? "not so: site " : ", ") + std::to_string(site);
        }
    }
    const auto add = [&](const std::string& name, double value, std::optional<Goal> goal, std::string remark = {}) {
        table.Add({.section = kTracingSection,
                   .name = name,
                   .on = machine + " image",
                   .value = value,
                   .unit = "",
                   .goal = goal,
                   .remark = std::move(remark),
                   .isExact = true});
    };
    const double sites = static_cast<double>(std::size(kReportDefinitions));
    add("reporting sites", sites, std::nullopt);
    add("sites with exactly their channels' tests", complete, Goal{sites, false}, wrong);
    add("loads of an enable word", static_cast<double>(code.tests.size()), std::nullopt,
        "a site that is inlined twice counts twice");
    add("loads that no bit test with a branch follows", untested, Goal{0});
    add("tests whose site is unknown", unresolved, Goal{0});
    add("longest path of a disabled channel, instructions", static_cast<double>(longest),
        Goal{machine == "arm64" ? 2.0 : 3.0}, machine == "arm64" ? "load, test and branch" : "load, test, branch");
    add("tests that jump over the writing instead of to it", inLine, std::nullopt,
        "where a report is the last thing on a path of its own");
}

// The share of reporting in the driver's instructions for a state posted and delivered.
void MeasureShare(Table& table, const Options& options)
{
    const SiteCode code = ReadSiteCode(ImageOf(Subject::kX64), "x64");
    std::set<std::uint64_t> reporting;
    std::set<std::uint64_t> jumpsOver;
    for (const SiteTest& test : code.tests) {
        reporting.insert(test.path.begin(), test.path.end());
        if (!test.isColdOutOfLine) {
            jumpsOver.insert(test.load);
        }
    }
    const std::vector<unsigned> sizes = options.isQuick ? std::vector{16u} : std::vector{1u, 16u, 64u};
    for (const unsigned clients : sizes) {
        Fixture fixture({.subject = Subject::kX64, .clients = clients, .subscriptionsEach = 1});
        fixture.Post(fixture.poster(), 1);
        fixture.machine.RunWorkItems();
        InstructionCounter counter(*fixture.driver);
        const std::uint64_t all = counter.Count([&] {
            fixture.Post(fixture.poster(), 1);
            fixture.machine.RunWorkItems();
        });
        std::uint64_t share = 0;
        std::uint64_t jumps = 0;
        for (const auto& [offset, count] : counter.ByOffset()) {
            share += reporting.contains(offset) ? count : 0;
            jumps += jumpsOver.contains(offset) ? count : 0;
        }
        table.Add({.section = kTracingSection,
                   .name = "share of the delivery path, " + std::to_string(clients) + " subscribers",
                   .on = Name(Subject::kX64),
                   .value = 100.0 * static_cast<double>(share) / static_cast<double>(all),
                   .unit = "%",
                   .goal = Goal{5.0},
                   .remark = std::to_string(share) + " of " + std::to_string(all) + " instructions",
                   .isExact = true});
        table.Add({.section = kTracingSection,
                   .name = "tests on that path that jump over the writing, " + std::to_string(clients) + " subscribers",
                   .on = Name(Subject::kX64),
                   .value = static_cast<double>(jumps),
                   .unit = "",
                   .goal = Goal{2.0},
                   .remark = "both channels of the report that ends a run, of the empty queue",
                   .isExact = true});
    }
}

}  // namespace

void MeasureDisabledTracing(Table& table, const Options& options)
{
    for (const char* machine : {"arm64", "x64"}) {
        MeasureSites(table, machine);
    }
    if (InstructionCounter::IsSupported()) {
        MeasureShare(table, options);
    }
}

}  // namespace bench
