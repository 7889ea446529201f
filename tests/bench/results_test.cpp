// The results that repeat exactly do not get worse: instructions and list steps of the delivery path, tests at every
// reporting site, objects for each client, subscription, state and command. Their limits are in limits.json; who improves
// a result lowers its limit there.
#include "bench/instruction_counter.h"
#include "bench/sections.h"

#include <gtest/gtest.h>

#include <fstream>

namespace {

TEST(Results, AreWithinTheirLimitsAndGoals)
{
    bench::Table table;
    bench::MeasureDisabledTracing(table, {.isQuick = true});
    bench::MeasureDeliveryPath(table, {.isQuick = true});
    bench::MeasureFootprint(table, {.isQuick = true});
    const auto limits = nlohmann::json::parse(std::ifstream(ZEPN_LIMITS));

    std::size_t held = 0;
    for (const bench::Row& row : table.rows()) {
        EXPECT_TRUE(row.MeetsGoal()) << row.section << ": " << row.name << ", " << row.on << ": " << row.value;
        const std::string name = row.name + (row.on.empty() ? "" : ", " + row.on);
        if (limits.contains(name)) {
            ++held;
            EXPECT_LE(row.value, limits[name].get<double>()) << name;
        }
    }
    if (bench::InstructionCounter::IsSupported()) {
        EXPECT_EQ(held, limits.size()) << "a limit names no result";
    }
}

}  // namespace
