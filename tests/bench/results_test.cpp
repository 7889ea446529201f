// The results that repeat exactly do not get worse: instructions and list steps of the delivery path, tests at every
// reporting site, objects for each client, subscription, state and command. Their limits are in limits.json; who
// improves a result lowers its limit there.
#include "bench/instruction_counter.h"
#include "bench/sections.h"

#include "host/checks/tool.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

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

// A function of the platform's convention that calls another one must save ten vector registers, which takes longer
// than all that these do when nothing has to be looked at.
TEST(FastCalls, CallNobodyAndSaveNoVectorRegisters)
{
    if (!bench::InstructionCounter::IsSupported()) {
        GTEST_SKIP() << "read from x86-64 code";
    }
    std::string names;
    for (const char* name : {"18CollectionGetCountEP19_WDF_DRIVER_GLOBALSP15WDFCOLLECTION__",
                             "17CollectionGetItemEP19_WDF_DRIVER_GLOBALSP15WDFCOLLECTION__j",
                             "21ObjectGetTypedContextEP19_WDF_DRIVER_GLOBALSPvPK29_WDF_OBJECT_CONTEXT_TYPE_INFO",
                             "15WaitLockAcquireEP19_WDF_DRIVER_GLOBALSP13WDFWAITLOCK__Px",
                             "15WaitLockReleaseEP19_WDF_DRIVER_GLOBALSP13WDFWAITLOCK__"}) {
        names += (names.empty() ? "" : ",") + ("_ZN4host9framework9functions" + std::string(name));
    }
    const auto code = host::checks::AskTool({"llvm-objdump-19", "--no-show-raw-insn", "--disassemble-symbols=" + names,
                                             std::filesystem::read_symlink("/proc/self/exe")},
                                            "");
    ASSERT_TRUE(code.has_value());
    std::istringstream lines(*code);
    std::size_t functions = 0;
    for (std::string line, function; std::getline(lines, line);) {
        if (line.ends_with(">:")) {
            function = line;
            ++functions;
        }
        EXPECT_FALSE(line.find("\tcall") != line.npos || line.find("%xmm") != line.npos) << function << "\n" << line;
    }
    EXPECT_EQ(functions, 5u);
}

}  // namespace
