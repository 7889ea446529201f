// The names of the reporting sites as the sources spell them, without the leading k.
#pragma once

#include "driver/trace/report_list.h"

#include <string_view>

namespace trace_gen {

constexpr std::string_view NameOf(Site site)
{
    constexpr std::string_view kNames[] = {
#define REPORT(site, ...) #site,
#include "driver/trace/reports.def"
    };
    return kNames[static_cast<std::size_t>(site)].substr(1);
}

}  // namespace trace_gen
