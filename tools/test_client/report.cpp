#include "tools/test_client/report.h"

#include <pugixml.hpp>

#include <algorithm>
#include <cstdio>
#include <ostream>

namespace test_client {
namespace {

constexpr std::size_t kShownDetails = 12;

std::string GuidText(const GUID& guid)
{
    char text[40];
    std::snprintf(text, sizeof(text), "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}",
                  static_cast<unsigned>(guid.Data1), guid.Data2, guid.Data3, guid.Data4[0], guid.Data4[1],
                  guid.Data4[2], guid.Data4[3], guid.Data4[4], guid.Data4[5], guid.Data4[6], guid.Data4[7]);
    return text;
}

// As a sentence: "Meets the Notifier's return".
std::string Capitalised(std::string text)
{
    if (!text.empty() && text[0] >= 'a' && text[0] <= 'z') {
        text[0] = static_cast<char>(text[0] - 'a' + 'A');
    }
    return text;
}

void PrintSeen(std::ostream& out, const Seen& seen)
{
    for (const OwnClient& client : seen.clients) {
        out << "  registers " << GuidText(client.identity.guid) << " as \"" << client.name.characters << "\""
            << (client.takesCommands ? ", takes commands" : "")
            << (client.wantsAppsState ? ", is notified of the sleep" : "") << "\n";
    }
    for (const Subscription& subscription : seen.subscriptions) {
        out << "  watches " << GuidText(subscription.watched.guid) << ", ";
        if (subscription.state == ZEP_STATE_ANY) {
            out << "any state\n";
        } else {
            out << "state " << subscription.state << "\n";
        }
    }
    for (const Identity& target : seen.targets) {
        out << "  commands " << GuidText(target.guid) << "\n";
    }
    if (seen.attaches) {
        out << "  attaches as the crash-dump driver\n";
    }
}

void PrintFindings(std::ostream& out, const Result& result)
{
    for (const Finding& finding : result.findings) {
        if (&finding == &result.findings.front() || finding.during != (&finding - 1)->during) {
            out << "      " << Capitalised(finding.during) << ":\n";
        }
        out << "      " << finding.text << "\n";
        const std::size_t shown = std::min(finding.details.size(), kShownDetails);
        for (std::size_t index = 0; index < shown; ++index) {
            out << "        " << finding.details[index] << "\n";
        }
    }
}

struct Colors {
    const char* good;
    const char* bad;
    const char* none;
};

// XML has no control characters but line ends, not even escaped.
std::string Printable(std::string text)
{
    std::ranges::replace_if(text, [](unsigned char letter) { return letter < ' ' && letter != '\n'; }, '?');
    return text;
}

void AddFinding(pugi::xml_node testcase, const Finding& finding)
{
    pugi::xml_node failure = testcase.append_child("failure");
    failure.append_attribute("message") = Printable(finding.text).c_str();
    std::string text = finding.during;
    for (const std::string& detail : finding.details) {
        text += "\n" + detail;
    }
    failure.text() = Printable(text).c_str();
}

}  // namespace

std::size_t FailedCount(const Report& report)
{
    return static_cast<std::size_t>(
        std::ranges::count_if(report.results, [](const Result& result) { return !result.findings.empty(); }));
}

void Print(std::ostream& out, const CourseSetup& setup, const Report& report, bool isColored)
{
    const Colors color = isColored ? Colors{"\033[32m", "\033[31m", "\033[0m"} : Colors{"", "", ""};
    out << setup.ClientName() << " beside " << setup.notifier.filename().string() << "\n";
    PrintSeen(out, report.seen);

    const auto isBad = [](const Result& result) { return !result.findings.empty(); };
    const auto first = std::ranges::find_if(report.results, isBad);
    if (first != report.results.end()) {
        out << "\n" << color.bad << "The first finding: " << first->name << color.none << "\n";
        PrintFindings(out, *first);
    }

    std::size_t faultCount = 0;
    std::size_t badFaultCount = 0;
    out << "\n";
    for (const Result& result : report.results) {
        const bool isFault = result.group == "faults";
        faultCount += isFault ? 1 : 0;
        badFaultCount += isFault && isBad(result) ? 1 : 0;
        if (isFault && !isBad(result)) {
            continue;
        }
        out << "  " << (isBad(result) ? color.bad : color.good) << (isBad(result) ? "FAILED  " : "passed  ")
            << color.none << (isFault ? "fault: " : "") << result.name << "\n";
        if (isBad(result) && &result != &*first) {
            if (result.findings.front().text == first->findings.front().text) {
                out << "      the same\n";
            } else {
                PrintFindings(out, result);
            }
        }
    }
    if (faultCount != 0) {
        out << "  " << (badFaultCount != 0 ? color.bad : color.good) << (badFaultCount != 0 ? "FAILED  " : "passed  ")
            << color.none << faultCount - badFaultCount << " of " << faultCount
            << " faults: each call that can fail did, once\n";
    } else if (first != report.results.end()) {
        out << "  no call was made to fail: that comes once all of the above passes\n";
    }
    const std::size_t failed = FailedCount(report);
    out << "\n" << report.results.size() << " tried, ";
    if (failed == 0) {
        out << color.good << "no finding" << color.none << "\n";
    } else {
        out << color.bad << failed << " with findings" << color.none << "\n";
    }
}

void WriteJUnit(std::ostream& out, const CourseSetup& setup, const Report& report)
{
    const std::string suite = Printable(setup.ClientName());
    double seconds = 0;
    for (const Result& result : report.results) {
        seconds += result.seconds;
    }
    pugi::xml_document document;
    pugi::xml_node testsuite = document.append_child("testsuite");
    testsuite.append_attribute("name") = suite.c_str();
    testsuite.append_attribute("tests") = report.results.size();
    testsuite.append_attribute("failures") = FailedCount(report);
    testsuite.append_attribute("time").set_value(seconds, 6);
    for (const Result& result : report.results) {
        pugi::xml_node testcase = testsuite.append_child("testcase");
        testcase.append_attribute("classname") = (suite + "." + result.group).c_str();
        testcase.append_attribute("name") = Printable(result.name).c_str();
        testcase.append_attribute("time").set_value(result.seconds, 6);
        for (const Finding& finding : result.findings) {
            AddFinding(testcase, finding);
        }
    }
    document.save(out, "  ");
}

}  // namespace test_client
