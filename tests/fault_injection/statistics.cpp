#include "tests/fault_injection/statistics.h"

#include "tests/kit/settings.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>

namespace fault_injection {
namespace {

std::filesystem::path Folder()
{
    return tests::ResultsFolder() / "statistics";
}

std::filesystem::path ShardFile(const std::string& container, const std::string& kind, unsigned shard)
{
    return Folder() / "shards" / (container + "-" + kind + "-" + std::to_string(shard));
}

std::string RequestedFaults()
{
    if (const char* requested = std::getenv("ZEPN_FAULT")) {
        return requested;
    }
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
    return "thin";
#endif
#endif
    return "full";
}

}  // namespace

unsigned Stride()
{
    constexpr unsigned kThin = 7;
    return RequestedFaults() == "thin" ? kThin : 1;
}

// One count a line: the number, and what is counted; for a site 0 and its two numbers.
void Statistics::Save(const std::string& container, const std::string& kind, unsigned shard,
                      const std::set<Site>& reached) const
{
    const auto file = ShardFile(container, kind, shard);
    std::filesystem::create_directories(file.parent_path());
    std::ofstream out(file);
    for (const auto& [form, count] : byForm_) {
        out << count << " " << form << "\n";
    }
    for (const Site& site : reached) {
        out << "0 " << site.first << " " << site.second << "\n";
    }
}

Statistics Statistics::OfAll(const std::string& container, const std::string& kind, unsigned shards)
{
    const auto built = std::filesystem::last_write_time("/proc/self/exe");
    Statistics all;
    for (unsigned shard = 1; shard <= shards; ++shard) {
        const auto file = ShardFile(container, kind, shard);
        if (!std::filesystem::exists(file) || std::filesystem::last_write_time(file) < built) {
            throw std::runtime_error("the shard " + file.filename().string() + " has not run");
        }
        std::ifstream in(file);
        std::size_t count = 0;
        std::string what;
        while (in >> count && std::getline(in >> std::ws, what)) {
            if (count != 0) {
                all.byForm_[what] += count;
            } else {
                Site site;
                std::istringstream(what) >> site.first >> site.second;
                all.reached_.insert(site);
            }
        }
    }
    return all;
}

Lines Statistics::Unreached() const
{
    Lines lines;
    for (const auto& [key, format] : tests::TheFormats().formats()) {
        const auto guid = host::tracing::ParseGuid(key.first);
        if (!guid || !reached_.contains({guid->Data1, key.second})) {
            const std::string text = format.text.substr(format.text.starts_with("%0") ? 2 : 0);
            lines.push_back(std::to_string(key.second) + " " + format.function + ": " + text);
        }
    }
    return lines;
}

void Statistics::Write(const std::string& container, const std::string& kind) const
{
    std::ostringstream text;
    std::size_t total = 0;
    for (const auto& [form, count] : byForm_) {
        total += count;
    }
    text << "fault injection (" << container << ", " << kind << " fault): " << total << " faults (";
    const char* separator = "";
    for (const auto& [form, count] : byForm_) {
        text << separator << form << " " << count;
        separator = "; ";
    }
    const std::size_t sites = tests::TheFormats().formats().size();
    const Lines unreached = Unreached();
    text << "); " << sites - unreached.size() << " of " << sites << " reporting sites reached";
    constexpr std::size_t kNamed = 5;
    for (std::size_t index = 0; unreached.size() <= kNamed && index < unreached.size(); ++index) {
        text << (index == 0 ? ", not: " : "; ") << unreached[index];
    }
    text << "\n";
    std::cout << text.str();
    std::ofstream(Folder() / ("fault-injection-" + container + "-" + kind + ".txt")) << text.str();
}

}  // namespace fault_injection
