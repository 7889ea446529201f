// Writes for people, and for the tests, what the catalogue holds.
#pragma once

#include "driver/trace/rows.h"

#include <ostream>
#include <string>

using TextOfRow = std::string (*)(const Row& row);

// docs/reports.md: every event with its fields and places, every trace message with its text.
void WriteReportsPage(std::ostream& out, TextOfRow textOf);

// One line for each report that a run can show: "E <id> <function>: <description>", "M <set GUID> <number>".
void WriteReportList(std::ostream& out);
