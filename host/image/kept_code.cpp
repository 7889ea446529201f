#include "host/image/kept_code.h"

#include <sys/mman.h>

#include <map>
#include <mutex>

namespace host::image {
namespace {

std::mutex g_mutex;

std::map<std::filesystem::path, Mapping>& AllKept()
{
    static auto* const all =
        new std::map<std::filesystem::path, Mapping>;  // the last machine may end after all that is static
    return *all;
}

}  // namespace

std::optional<Mapping> TakeKeptCode(const std::filesystem::path& file)
{
    const std::lock_guard lock(g_mutex);
    const auto found = AllKept().find(file);
    if (found == AllKept().end()) {
        return std::nullopt;
    }
    const Mapping kept = found->second;
    AllKept().erase(found);
    if (kept.written == std::filesystem::last_write_time(file)) {
        return kept;
    }
    munmap(kept.reserved, kept.reservedSize);
    return std::nullopt;
}

void KeepCode(const std::filesystem::path& file, const Mapping& mapping)
{
    const std::lock_guard lock(g_mutex);
    if (!AllKept().try_emplace(file, mapping).second) {
        munmap(mapping.reserved, mapping.reservedSize);
    }
}

}  // namespace host::image
