// What a driver image must be before it is worth loading: as the kernel's loader, its verifier and a debugger demand.
#pragma once

#include "tools/image_check/pe_reader.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace image_check {

// One thing that is wrong, by the short name of the check that found it.
struct Finding {
    std::string check;
    std::string text;

    bool operator==(const Finding&) const = default;
};

// Whether an image must carry what its reports are read by, and its version: the driver must, a sample need not. What
// an image carries must be right in any case.
enum class ReportResources { kRequired, kNotNeeded };

// Headers, sections and tables. A table that cannot be read is a finding of the check that needs it; the other checks
// still run. Empty when all is right.
[[nodiscard]] std::vector<Finding> CheckStructure(const PeReader& image,
                                                  ReportResources resources = ReportResources::kRequired);

// The code, by a disassembly in the form of llvm-objdump: what can fault must be unwindable, and some registers are not
// the driver's to use.
[[nodiscard]] std::vector<Finding> CheckCode(const PeReader& image, std::string_view disassembly);

// How many functions of the table have their frame checked by the stack protector. Throws FormatError when the table
// cannot be read.
[[nodiscard]] std::size_t CountCheckedFrames(const PeReader& image, std::string_view disassembly);

}  // namespace image_check
