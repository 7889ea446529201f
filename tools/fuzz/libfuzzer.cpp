// libFuzzer's entry: its bytes are a life of the native driver.
#include "tools/fuzz/run.h"

#include <cstdlib>
#include <iostream>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::Life life = fuzz::Decode({data, size});
    life.mayStandStill = false;  // each such life would leave a thread behind
    life = fuzz::Playable(life);
    fuzz::Totals totals;
    const auto fails = [&](const fuzz::Life& candidate) {
        return fuzz::Run(candidate, ZEPN_NATIVE_DRIVER, totals).has_value();
    };
    if (!fails(life)) {
        return 0;
    }
    fuzz::Finding finding;
    finding.life = fuzz::Shrink(life, fails);
    finding.mismatch = fuzz::Run(finding.life, ZEPN_NATIVE_DRIVER, totals).value_or(fuzz::Mismatch{});
    std::cerr << fuzz::Report(finding) << fuzz::Scenario(finding.life, "A life that libFuzzer found", finding.mismatch);
    std::abort();
}
