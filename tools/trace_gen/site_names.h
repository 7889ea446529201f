// The names of the reporting sites as the sources spell them, without the leading k.
#pragma once

#include "driver/trace/sites.h"

#include <array>
#include <string_view>
#include <utility>

namespace trace_gen {

// "... [kSite = Site::kDriverEntryCreate]", as the compiler names the instance.
template <Site kSite>
constexpr std::string_view SiteName()
{
    constexpr std::string_view kInstance = __PRETTY_FUNCTION__;
    constexpr std::string_view kBegin = "Site::k";
    constexpr std::size_t kAt = kInstance.rfind(kBegin);
    static_assert(kAt != std::string_view::npos && kInstance.back() == ']');
    return kInstance.substr(kAt + kBegin.size(), kInstance.size() - kAt - kBegin.size() - 1);
}

template <std::size_t... kSites>
constexpr std::array<std::string_view, sizeof...(kSites)> SiteNames(std::index_sequence<kSites...>)
{
    return {SiteName<static_cast<Site>(kSites)>()...};
}

inline constexpr auto kSiteNames = SiteNames(std::make_index_sequence<static_cast<std::size_t>(Site::kCount)>());

}  // namespace trace_gen
