#include "bench/table.h"

#include <cmath>
#include <cstdio>

namespace bench {
namespace {

std::string Text(double value)
{
    char text[40];
    if (value == std::floor(value) && std::fabs(value) < 1e15) {
        std::snprintf(text, sizeof(text), "%.0f", value);
    } else {
        std::snprintf(text, sizeof(text), std::fabs(value) < 100 ? "%.2f" : "%.0f", value);
    }
    return text;
}

std::string Text(const Row& row)
{
    char line[256];
    std::snprintf(line, sizeof(line), "  %-58s %-16s %12s %-14s", row.name.c_str(), row.on.c_str(),
                  Text(row.value).c_str(), row.unit.c_str());
    std::string text = line;
    if (row.goal) {
        text += std::string(row.goal->isUpper ? " goal <= " : " goal >= ") + Text(row.goal->limit) +
                (row.MeetsGoal() ? ", met" : ", MISSED");
    }
    return text + (row.remark.empty() ? "" : "  (" + row.remark + ")");
}

}  // namespace

void Table::Add(Row row)
{
    if (echo != nullptr) {
        if (rows_.empty() || rows_.back().section != row.section) {
            *echo << "\n" << row.section << "\n";
        }
        *echo << Text(row) << std::endl;
    }
    rows_.push_back(std::move(row));
}

nlohmann::json Table::Json() const
{
    auto list = nlohmann::json::array();
    for (const Row& row : rows_) {
        nlohmann::json item = {{"section", row.section}, {"name", row.name}, {"on", row.on},
                               {"value", row.value},     {"unit", row.unit}, {"exact", row.isExact}};
        if (row.goal) {
            item["goal"] = row.goal->limit;
            item["met"] = row.MeetsGoal();
        }
        if (!row.remark.empty()) {
            item["remark"] = row.remark;
        }
        list.push_back(std::move(item));
    }
    return list;
}

}  // namespace bench
