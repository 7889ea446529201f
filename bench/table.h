// The results of the benchmark, each with its goal where it has one, as text and JSON.
#pragma once

#include <nlohmann/json.hpp>

#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace bench {

struct Goal {
    double limit;
    bool isUpper = true;  // the value may not be above the limit; otherwise not below it
};

struct Row {
    std::string section;  // "Delivery path"
    std::string name;     // "post and delivery, 16 clients"
    std::string on;       // "x64 image"
    double value;
    std::string unit;  // "instructions", "ratio", "ns"
    std::optional<Goal> goal = std::nullopt;
    std::string remark = {};
    bool isExact = false;  // repeats exactly on every machine of this kind

    [[nodiscard]] bool MeetsGoal() const
    {
        return !goal || (goal->isUpper ? value <= goal->limit : value >= goal->limit);
    }
};

class Table {
public:
    void Add(Row row);
    [[nodiscard]] const std::vector<Row>& rows() const { return rows_; }
    [[nodiscard]] nlohmann::json Json() const;

    // Prints each row as it is added.
    std::ostream* echo = nullptr;

private:
    std::vector<Row> rows_;
};

}  // namespace bench
