#include "bench/link_map.h"
#include "host/image/link_map.h"

#include <regex>
#include <stdexcept>
#include <string>

namespace bench {

LinkMap ReadLinkMap(const std::filesystem::path& file)
{
    using host::image::LinkMapEntry;
    LinkMap map;
    const std::regex record(R"(struct SiteRecord const kSiteRecord<(\d+)>)");
    for (const LinkMapEntry& entry : host::image::ReadLinkMap(file)) {
        std::smatch match;
        if (entry.name.ends_with("struct TraceEnableWords g_TraceEnable")) {
            map.words = entry.offset;
        } else if (std::regex_search(entry.name, match, record)) {
            map.records[entry.offset] = std::stoi(match[1]);
        } else if (entry.name.find("/trace/") != std::string::npos && entry.name.ends_with("(.text)")) {
            map.reporting.push_back({entry.offset, entry.offset + entry.sizeBytes});
        }
    }
    if (map.words == 0 || map.records.empty() || map.reporting.empty()) {
        throw std::runtime_error(file.string() + ": names no enable words, site records or reporting code");
    }
    return map;
}

}  // namespace bench
