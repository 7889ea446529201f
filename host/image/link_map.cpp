#include "host/image/link_map.h"

#include <fstream>
#include <sstream>

namespace host::image {

// Columns: offset, size and alignment; then a section's name at 24, an input's at 32, or a symbol's at 40.
std::vector<LinkMapEntry> ReadLinkMap(const std::filesystem::path& file)
{
    constexpr std::size_t kFirstName = 24;
    constexpr std::size_t kNextName = 8;
    std::vector<LinkMapEntry> entries;
    std::ifstream stream(file);
    std::string line;
    while (std::getline(stream, line)) {
        std::istringstream fields(line);
        LinkMapEntry entry{};
        const std::size_t name = line.find_first_not_of(' ', kFirstName);
        if (!(fields >> std::hex >> entry.offset >> entry.sizeBytes) || name == std::string::npos ||
            (name - kFirstName) % kNextName != 0 || name > kFirstName + 2 * kNextName) {
            continue;
        }
        entry.kind = static_cast<LinkMapEntry::Kind>((name - kFirstName) / kNextName);
        entry.name = line.substr(name);
        entries.push_back(std::move(entry));
    }
    return entries;
}

}  // namespace host::image
