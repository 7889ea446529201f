// The reporting sites by name, and the definition of each, found at compile time.
#pragma once

#include "driver/trace/report_definitions.h"

enum class Site : USHORT {
#define REPORT(site, ...) site,
#include "driver/trace/reports.def"
    kCount
};

// Indexed by Site.
inline constexpr ReportDefinition kReportDefinitions[] = {
#define REPORT(site, ...) __VA_ARGS__,
#include "driver/trace/reports.def"
};

consteval const ReportDefinition& DefinitionOf(Site site)
{
    return kReportDefinitions[static_cast<ULONG>(site)];
}
