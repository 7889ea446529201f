#include "tests/fault_injection/statistics.h"

#include "tests/kit/settings.h"

#include <algorithm>
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

std::string Wish()
{
    if (const char* wish = std::getenv("ZEPN_FAULT")) {
        return wish;
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
    return Wish() == "thin" ? kThin : 1;
}

void Statistics::Count(const Fault& fault, bool tracing)
{
    ++byForm_[tracing ? "tracing call fails" : Name(fault.form)];
}

void Statistics::NoteSequence(std::size_t calls, std::size_t predicted, std::size_t lookups)
{
    for (const auto& [what, count] : {std::pair("calls", calls), {"predicted", predicted}, {"look-ups", lookups}}) {
        most_[what] = std::max(most_[what], count);
    }
}

void Statistics::NotePaths(std::size_t paths)
{
    most_["paths"] = paths;
}

// One figure a line: its kind, a number, and what is counted.
void Statistics::Save(const std::string& container, const std::string& kind, unsigned shard,
                      const std::set<Site>& reached) const
{
    const auto file = ShardFile(container, kind, shard);
    std::filesystem::create_directories(file.parent_path());
    std::ofstream out(file);
    for (const auto& [what, count] : most_) {
        out << "most " << count << " " << what << "\n";
    }
    for (const auto& [form, count] : byForm_) {
        out << "form " << count << " " << form << "\n";
    }
    for (const Site& site : reached) {
        out << "site " << site.first << " " << site.second << "\n";
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
        std::string word;
        std::size_t count = 0;
        std::string rest;
        while (in >> word >> count && std::getline(in >> std::ws, rest)) {
            if (word == "site") {
                all.reached_.emplace(static_cast<std::uint32_t>(count), static_cast<std::uint16_t>(std::stoul(rest)));
            } else if (word == "form") {
                all.byForm_[rest] += count;
            } else {
                all.most_[rest] = std::max(all.most_[rest], count);
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
    const auto most = [&](const char* what) {
        const auto found = most_.find(what);
        return found == most_.end() ? 0 : found->second;
    };
    text << "fault injection (" << container << ", " << kind << " fault): " << most("calls")
         << " platform calls in the longest sequence; " << most("predicted") << " of them fail, and "
         << most("look-ups") << " look-ups of the driver object";
    if (most("paths") != 0) {
        text << "; " << most("paths") << " call paths";
    }
    std::size_t total = 0;
    for (const auto& [form, count] : byForm_) {
        total += count;
    }
    text << "; " << total << " faults (";
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
