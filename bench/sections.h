// The sections of the benchmark. Each adds its results to the table.
#pragma once

#include "bench/table.h"

namespace bench {

struct Options {
    bool isQuick = false;  // exact counts and short times only
};

void MeasureDisabledTracing(Table& table, const Options& options);
void MeasureDeliveryPath(Table& table, const Options& options);
void MeasureScaling(Table& table, const Options& options);
void MeasureComparison(Table& table, const Options& options);
void MeasureHost(Table& table, const Options& options);
void MeasureFootprint(Table& table, const Options& options);

}  // namespace bench
