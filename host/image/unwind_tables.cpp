#include "host/image/unwind_tables.h"

#include <algorithm>

namespace host::image {

void DescribeFunctions(const UnwindTables& tables, std::vector<UnwindFunction> functions, CallFrames& frames,
                       const std::function<void(const UnwindFunction&)>& describe)
{
    const auto describeFrameless = [&frames](std::uint32_t begin, std::uint32_t end) {
        if (begin < end) {
            frames.BeginFunction(begin, end);
            frames.EndFunction();
        }
    };
    std::ranges::sort(functions, {}, &UnwindFunction::begin);
    auto next = functions.begin();
    for (const UnwindTables::Code& code : tables.code) {
        std::uint32_t at = code.begin;
        for (; next != functions.end() && next->begin < code.end; ++next) {
            if (next->begin < at || next->end <= next->begin || next->end > code.end) {
                continue;  // damaged
            }
            describeFrameless(at, next->begin);
            describe(*next);
            at = next->end;
        }
        describeFrameless(at, code.end);
    }
}

}  // namespace host::image
