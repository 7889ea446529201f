// What one check of an image finds.
#pragma once

#include "tools/image_check/checks.h"

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace image_check {

class Report {
public:
    Report(std::vector<Finding>& findings, std::string check) : findings_(findings), check_(std::move(check)) {}

    void Add(std::string text) { findings_.push_back({check_, std::move(text)}); }

    void Require(bool holds, std::string_view text)
    {
        if (!holds) {
            Add(std::string(text));
        }
    }

private:
    std::vector<Finding>& findings_;
    std::string check_;
};

// Two tables with a file of their own, for the list of checks in CheckStructure.
void CheckImports(const PeReader& image, Report& report);
void CheckResources(const PeReader& image, ReportResources wanted, Report& report);

}  // namespace image_check
