#include "tests/kit/reports_seen.h"

#include "tests/kit/settings.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>

namespace tests {

void NoteReportsSeen(const host::tracing::Tracing& tracing, const host::tracing::Manifest& manifest)
{
    static std::string fileName;
    static std::set<std::string> seen;
    const testing::TestInfo* test = testing::UnitTest::GetInstance()->current_test_info();
    if (test == nullptr) {
        return;
    }
    std::string name = std::string(test->test_suite_name()) + "." + test->name();
    std::replace(name.begin(), name.end(), '/', '_');
    if (name != fileName) {
        fileName = name;
        seen.clear();
    }
    const std::size_t before = seen.size();
    for (const auto& event : tracing.Events()) {
        if (const auto decoded = manifest.Decode(event)) {
            seen.insert("E " + std::to_string(decoded->id) + " " + decoded->fields[0].text + ": " +
                        decoded->Text("Description"));
        }
    }
    for (const auto& message : tracing.Messages()) {
        const std::string set = host::tracing::GuidText(message.messageGuid);
        seen.insert("M " + set.substr(1, set.size() - 2) + " " + std::to_string(message.number));
    }
    if (seen.size() == before) {
        return;
    }
    const std::filesystem::path folder = ResultsFolder() / "reports_seen";
    std::filesystem::create_directories(folder);
    std::ofstream out(folder / name);
    out << "P " << std::filesystem::read_symlink("/proc/self/exe").string() << "\n";
    for (const std::string& line : seen) {
        out << line << "\n";
    }
}

}  // namespace tests
