#include "bench/link_map.h"

#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>

namespace bench {

LinkMap ReadLinkMap(const std::filesystem::path& file)
{
    std::ifstream stream(file);
    if (!stream) {
        throw std::runtime_error(file.string() + ": cannot be read");
    }
    LinkMap map;
    const std::regex record(R"(struct SiteRecord const kSiteRecord<(\d+)>)");
    std::string line;
    while (std::getline(stream, line)) {
        std::uint64_t address = 0;
        std::uint64_t size = 0;
        std::istringstream fields(line);
        if (!(fields >> std::hex >> address >> size)) {
            continue;
        }
        std::smatch match;
        if (line.ends_with("struct TraceEnableWords g_TraceEnable")) {
            map.words = address;
        } else if (std::regex_search(line, match, record)) {
            map.records[address] = std::stoi(match[1]);
        } else if (line.find("/trace/") != std::string::npos && line.ends_with("(.text)")) {
            map.reporting.push_back({address, address + size});
        }
    }
    if (map.words == 0 || map.records.empty() || map.reporting.empty()) {
        throw std::runtime_error(file.string() + ": names no enable words, site records or reporting code");
    }
    return map;
}

}  // namespace bench
