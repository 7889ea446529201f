// The sections of the benchmark, each adding its rows to the table.
#pragma once

#include "bench/table.h"

namespace bench {

struct Options {
    bool isQuick = false;  // exact figures and short times only
};

void MeasureSilentReporting(Table& table, const Options& options);
void MeasureRoad(Table& table, const Options& options);
void MeasureGrowth(Table& table, const Options& options);
void MeasureSideBySide(Table& table, const Options& options);
void MeasureHost(Table& table, const Options& options);
void MeasureFootprint(Table& table, const Options& options);

}  // namespace bench
