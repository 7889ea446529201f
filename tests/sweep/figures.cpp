#include "tests/sweep/figures.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

namespace sweep {
namespace {

const host::tracing::MessageFormats& Formats()
{
    static const host::tracing::MessageFormats formats(std::string(ZEPN_ROOT) + "/out/manifest");
    return formats;
}

std::string Wish()
{
    if (const char* wish = std::getenv("ZEPN_SWEEP")) {
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

void Figures::Count(const Fault& fault, bool tracing)
{
    ++total_;
    ++byForm_[tracing ? "tracing call fails" : Name(fault.form)];
}

Lines Figures::Unreached(const std::set<Site>& reached)
{
    Lines lines;
    for (const auto& [key, format] : Formats().formats()) {
        const auto guid = host::tracing::ParseGuid(key.first);
        if (!guid || !reached.contains({guid->Data1, key.second})) {
            const std::string text = format.text.substr(format.text.starts_with("%0") ? 2 : 0);
            lines.push_back(std::to_string(key.second) + " " + format.function + ": " + text);
        }
    }
    return lines;
}

void Figures::Write(const std::string& container, const std::string& kind, const std::set<Site>& reached) const
{
    std::ostringstream text;
    text << "sweep on " << container << ", " << kind << ": " << callCount << " platform calls in a life, "
         << foreseenCallCount << " of them failed on, and " << lookupCount << " look-ups of the driver object";
    if (paths != 0) {
        text << "; " << paths << " call paths";
    }
    text << "; " << total_ << " faults (";
    const char* separator = "";
    for (const auto& [form, count] : byForm_) {
        text << separator << form << " " << count;
        separator = "; ";
    }
    const std::size_t sites = Formats().formats().size();
    const Lines unreached = Unreached(reached);
    text << "); " << sites - unreached.size() << " of " << sites << " reporting sites reached";
    constexpr std::size_t kNamed = 5;
    for (std::size_t index = 0; unreached.size() <= kNamed && index < unreached.size(); ++index) {
        text << (index == 0 ? ", not: " : "; ") << unreached[index];
    }
    text << "\n";
    std::cout << text.str();
    std::filesystem::create_directories(ZEPN_FIGURES);
    std::ofstream(std::string(ZEPN_FIGURES) + "/sweep-" + container + "-" + kind + ".txt") << text.str();
}

}  // namespace sweep
