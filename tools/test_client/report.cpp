#include "tools/test_client/report.h"

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

std::string Escaped(const std::string& text)
{
    std::string escaped;
    for (const char character : text) {
        switch (character) {
        case '&':
            escaped += "&amp;";
            break;
        case '<':
            escaped += "&lt;";
            break;
        case '>':
            escaped += "&gt;";
            break;
        case '"':
            escaped += "&quot;";
            break;
        default:
            // XML has no other control characters.
            escaped += static_cast<unsigned char>(character) >= ' ' || character == '\n' ? character : '?';
        }
    }
    return escaped;
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
    const std::string suite = Escaped(setup.ClientName());
    double seconds = 0;
    for (const Result& result : report.results) {
        seconds += result.seconds;
    }
    out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuite name=\"" << suite << "\" tests=\""
        << report.results.size() << "\" failures=\"" << FailedCount(report) << "\" time=\"" << seconds << "\">\n";
    for (const Result& result : report.results) {
        out << "  <testcase classname=\"" << suite << "." << result.group << "\" name=\"" << Escaped(result.name)
            << "\" time=\"" << result.seconds << "\"";
        if (result.findings.empty()) {
            out << "/>\n";
            continue;
        }
        out << ">\n";
        for (const Finding& finding : result.findings) {
            out << "    <failure message=\"" << Escaped(finding.text) << "\">" << Escaped(finding.during);
            for (const std::string& detail : finding.details) {
                out << "\n" << Escaped(detail);
            }
            out << "</failure>\n";
        }
        out << "  </testcase>\n";
    }
    out << "</testsuite>\n";
}

}  // namespace test_client
