#include "tools/test_client/course.h"

#include "host/checks/child_process.h"
#include "tools/test_client/cases.h"
#include "tools/test_client/faults.h"

#include <algorithm>
#include <chrono>
#include <sstream>

namespace test_client {
namespace {

using host::checks::ChildResult;
using host::checks::RunInChild;
using host::checks::SetWatchdog;
using host::checks::Shared;

constexpr double kCaseSeconds = 20;  // of processor time, or of waiting

// ---- Findings on their way between processes ----

constexpr char kField = '\x1f';
constexpr char kFinding = '\x1e';

std::string Packed(const std::vector<Finding>& findings)
{
    std::string text;
    for (const Finding& finding : findings) {
        text += finding.during + kField + finding.text;
        for (const std::string& detail : finding.details) {
            text += kField + detail;
        }
        text += kFinding;
    }
    return text;
}

std::vector<std::string> Split(const std::string& text, char separator)
{
    std::vector<std::string> parts;
    std::istringstream input(text);
    for (std::string part; std::getline(input, part, separator);) {
        parts.push_back(part);
    }
    return parts;
}

std::vector<Finding> Unpacked(const std::string& text)
{
    std::vector<Finding> findings;
    for (const std::string& packed : Split(text, kFinding)) {
        const std::vector<std::string> fields = Split(packed, kField);
        findings.push_back({fields[0], fields[1], {fields.begin() + 2, fields.end()}});
    }
    return findings;
}

// Of a process that did not get through: what it printed last says where it was and why it ended.
Finding FindingOf(const ChildResult& child)
{
    Finding finding;
    std::vector<std::string> lines = Split(child.printed, '\n');
    const auto isCause = [](const std::string& line) {
        return line.starts_with("memory fault") || line.find("ERROR: ") != std::string::npos ||
               line.find("runtime error: ") != std::string::npos || line.starts_with("no progress") ||
               line.starts_with("host: thread");
    };
    const auto cause = std::ranges::find_if(lines, isCause);
    finding.text = cause == lines.end() ? Split(child.failure, '\n').front() : *cause;
    if (cause != lines.end()) {
        lines.erase(lines.begin(), cause + 1);
    }
    std::erase_if(lines, [&finding](const std::string& line) {
        constexpr std::string_view kWhile = "while ";
        if (line.starts_with(kWhile) && finding.during.empty()) {
            finding.during = line.substr(kWhile.size());
            return true;
        }
        return line.empty();
    });
    finding.details = lines;
    return finding;
}

// ---- Running ----

class Course {
public:
    Course(const CourseSetup& setup, const CourseOptions& options) : setup_(setup), options_(options) {}

    Report Take()
    {
        CheckImages();
        std::vector<Finding> watched = WatchClient();
        for (const Case& each : AllCases()) {
            if (IsWanted(each.name)) {
                TakeCase(each);
            }
        }
        if (options_.only.empty() && report_.seen.registeredCount == 0 && !report_.seen.attaches) {
            Add("course", "registers with the Notifier, or attaches",
                {{"the Notifier and " + setup_.ClientName() + " are up", "it does neither", {}}});
        }
        if (!watched.empty() && options_.only.empty() && IsClean()) {
            Add("course", "is watched", std::move(watched));
        }
        if (IsClean()) {
            TakeFaults(RecordAll());
        }
        return std::move(report_);
    }

private:
    // Whether the images can be loaded at all; what their code does is the cases' affair.
    void CheckImages() const
    {
        for (const std::filesystem::path& image : {setup_.notifier, setup_.client}) {
            (void)RunInChild([&] {
                SetWatchdog(kCaseSeconds);
                host::Machine machine({.allowMissing = setup_.allowMissing});
                (void)machine.Load(image, image.stem().string());
                return std::string();
            });
        }
    }

    std::vector<Finding> WatchClient()
    {
        const Shared<Seen> seen;
        std::vector<Finding> findings = InChild([&] {
            Run run(setup_, *seen);
            run.machine.environment().SetObserver([&](const host::ObservedCall& call) {
                if (std::string_view(call.function).starts_with("WdfRegistryQuery")) {
                    (*seen).parameters.Add(Text(call.detail));
                }
            });
            return FindingsOf(run, [&](Run& inner) { Watch(inner, *seen); });
        });
        report_.seen = *seen;
        if (findings.empty()) {
            CheckParameters();
        }
        return findings;
    }

    void CheckParameters() const
    {
        std::string read;
        for (const Text& parameter : report_.seen.parameters) {
            read += std::string(read.empty() ? "" : ", ") + parameter.characters;
        }
        for (const auto& [name, value] : setup_.parameters) {
            if (std::ranges::find(report_.seen.parameters, Text(name)) == report_.seen.parameters.end()) {
                throw host::HostError(setup_.ClientName() + " reads no parameter " + name + "; it reads " +
                                      (read.empty() ? "none" : read));
            }
        }
    }

    void TakeCase(const Case& each)
    {
        Begin(each.name);
        const auto work = [&] {
            Run run(setup_, report_.seen);
            return FindingsOf(run, each.run);
        };
        std::vector<Finding> findings = options_.inProcess ? work() : InChild(work);
        Add("course", each.name, std::move(findings));
    }

    // Every fault there is; none when the run without any has findings already.
    std::vector<Fault> RecordAll()
    {
        const char* const name = "all of it in one run";
        Begin(name);
        std::vector<Finding> findings;
        const ChildResult child = RunInChild([&] {
            SetWatchdog(kCaseSeconds);
            std::string lines = RecordFaults(setup_, report_.seen, findings);
            return findings.empty() ? lines : Packed(findings);
        });
        if (!child.failure.empty()) {
            findings.push_back(FindingOf(child));
        } else if (child.result.find(kFinding) != std::string::npos) {
            findings = Unpacked(child.result);
        }
        if (IsWanted(name) || !findings.empty()) {
            Add("course", name, findings);
        }
        return findings.empty() ? ReadFaults(setup_, child.result) : std::vector<Fault>();
    }

    void TakeFaults(std::vector<Fault> faults)
    {
        std::erase_if(faults, [&](const Fault& fault) { return !IsWanted(fault.name); });
        const Shared<std::size_t> next;
        while (*next < faults.size()) {
            const std::size_t first = *next;
            Begin("fault " + std::to_string(first + 1) + " of " + std::to_string(faults.size()));
            std::vector<Finding> findings =
                options_.inProcess ? FaultsFrom(faults, *next) : InChild([&] { return FaultsFrom(faults, *next); });
            const std::size_t taken = findings.empty() ? faults.size() : *next;
            for (std::size_t good = first; good < taken; ++good) {
                Add("faults", faults[good].name, {});
            }
            if (!findings.empty()) {
                Add("faults", faults[taken].name, std::move(findings));
            }
            *next = taken + 1;
        }
    }

    // Runs faults until one has findings, in one process: what loads an image has read it, and the next load is short.
    std::vector<Finding> FaultsFrom(const std::vector<Fault>& faults, std::size_t& next)
    {
        for (; next < faults.size(); ++next) {
            SetWatchdog(options_.inProcess ? 0 : kCaseSeconds);
            std::vector<Finding> findings = RunFault(setup_, report_.seen, faults[next]);
            if (!findings.empty()) {
                return findings;
            }
        }
        return {};
    }

    template <class Work>
    static std::vector<Finding> InChild(const Work& work)
    {
        const ChildResult child = RunInChild([&] {
            SetWatchdog(kCaseSeconds);
            return Packed(work());
        });
        return child.result.empty() && !child.failure.empty() ? std::vector{FindingOf(child)} : Unpacked(child.result);
    }

    void Begin(const std::string& name)
    {
        if (options_.onBegin) {
            options_.onBegin(name);
        }
        begin_ = std::chrono::steady_clock::now();
    }

    void Add(std::string group, std::string name, std::vector<Finding> findings)
    {
        const auto now = std::chrono::steady_clock::now();
        const double seconds = std::chrono::duration<double>(now - begin_).count();
        begin_ = now;
        report_.results.push_back({std::move(group), std::move(name), seconds, std::move(findings)});
    }

    [[nodiscard]] bool IsWanted(const std::string& name) const { return name.find(options_.only) != std::string::npos; }
    [[nodiscard]] bool IsClean() const
    {
        return std::ranges::all_of(report_.results, [](const Result& result) { return result.findings.empty(); });
    }

    const CourseSetup& setup_;
    const CourseOptions& options_;
    Report report_;
    std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
};

}  // namespace

Report RunCourse(const CourseSetup& setup, const CourseOptions& options)
{
    return Course(setup, options).Take();
}

}  // namespace test_client
