// Writes for people, and for the tests, what the list of reports holds.
#pragma once

#include "driver/trace/report_list.h"

#include <ostream>
#include <string>

using TextOfDefinition = std::string (*)(const ReportDefinition& definition);

// docs/reports.md: every event with its fields and places, every trace message with its text.
void WriteReportsPage(std::ostream& out, TextOfDefinition textOf);

// One line for each report that a run can show: "E <id> <function>: <description>", "M <set GUID> <number>".
void WriteReportList(std::ostream& out);
