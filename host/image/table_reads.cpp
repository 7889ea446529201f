#include "host/image/table_reads.h"

#include <fxldr.h>

#include <algorithm>
#include <cstring>
#include <vector>

namespace host::image {
namespace {

constexpr char16_t kComponent[] = u"KmdfLibrary";
constexpr std::uint32_t kMajor = 1;
constexpr std::size_t kPointerBytes = 8;

std::vector<std::uint64_t> AddressesOfComponent(std::span<const std::uint8_t> image, std::uint64_t base)
{
    const auto* text = reinterpret_cast<const std::uint8_t*>(kComponent);
    std::vector<std::uint64_t> addresses;
    for (auto at = image.begin();;) {
        at = std::search(at, image.end(), text, text + sizeof(kComponent));
        if (at == image.end()) {
            return addresses;
        }
        addresses.push_back(base + static_cast<std::uint64_t>(at - image.begin()));
        ++at;
    }
}

}  // namespace

std::optional<std::uint32_t> FunctionTablePlace::EntryAt(std::int64_t bytes) const
{
    constexpr std::int64_t kEntryBytes = kPointerBytes;
    const bool isEntry = bytes >= 0 && bytes % kEntryBytes == 0 && bytes / kEntryBytes < functionCount;
    return isEntry ? std::optional(static_cast<std::uint32_t>(bytes / kEntryBytes)) : std::nullopt;
}

std::optional<FunctionTablePlace> FindFunctionTable(std::span<const std::uint8_t> image, std::uint64_t base)
{
    const std::vector<std::uint64_t> components = AddressesOfComponent(image, base);
    constexpr std::size_t kToComponent = offsetof(WDF_BIND_INFO, Component);
    if (components.empty()) {
        return std::nullopt;
    }
    for (std::size_t at = 0; at + sizeof(WDF_BIND_INFO) <= image.size(); at += kPointerBytes) {
        std::uint64_t component;
        std::memcpy(&component, image.data() + at + kToComponent, sizeof(component));
        if (std::ranges::find(components, component) == components.end()) {
            continue;
        }
        WDF_BIND_INFO info;
        std::memcpy(&info, image.data() + at, sizeof(info));
        const std::uint64_t table = reinterpret_cast<std::uint64_t>(info.FuncTable) - base;
        const FunctionTablePlace place{static_cast<std::uint32_t>(table), info.FuncCount};
        const std::uint64_t bytes = place.IsTable() ? std::uint64_t{info.FuncCount} * kPointerBytes : kPointerBytes;
        if ((info.Size == sizeof(WDF_BIND_INFO) || info.Size == sizeof(WDF_BIND_INFO2)) &&
            info.Version.Major == kMajor && table < image.size() && bytes <= image.size() - table) {
            return place;
        }
    }
    return std::nullopt;
}

}  // namespace host::image
