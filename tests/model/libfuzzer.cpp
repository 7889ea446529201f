// libFuzzer's entry: its bytes are a life of the native driver.
//
// Every life loads the driver anew, so counters compiled into it would each time count as new code. What guides the
// search on the driver's side instead is which platform calls follow one another.
#include "tests/model/run.h"
#include "tests/model/witness.h"

#include <cstdlib>
#include <iostream>

namespace {

// A test builds this entry with a model that is wrong on purpose.
#ifndef ZEPN_MISTAKE
#define ZEPN_MISTAKE kNone
#endif
constexpr fuzz::Model::Mistake kMistake = fuzz::Model::Mistake::ZEPN_MISTAKE;

constexpr std::size_t kCounters = 1 << 14;
__attribute__((section("__libfuzzer_extra_counters"), used)) std::uint8_t g_counters[kCounters];

void NoteCall(std::uintptr_t place)
{
    static std::uintptr_t before = 0;
    const std::uintptr_t pair = before * 31 + place;
    before = place;
    std::uint8_t& counter = g_counters[pair % kCounters];
    counter += counter == 0xFF ? 0 : 1;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::Life life = fuzz::Decode({data, size});
    life.mayStandStill = false;  // each such life would leave a thread behind
    life = fuzz::Playable(life);
    fuzz::onPlatformCall = NoteCall;
    fuzz::Totals totals;
    const auto fails = [&](const fuzz::Life& candidate) {
        return fuzz::Run(candidate, ZEPN_NATIVE_DRIVER, totals, kMistake).has_value();
    };
    if (!fails(life)) {
        return 0;
    }
    fuzz::Finding finding;
    finding.life = fuzz::Shrink(life, fails);
    finding.mismatch = fuzz::Run(finding.life, ZEPN_NATIVE_DRIVER, totals, kMistake).value_or(fuzz::Mismatch{});
    std::cerr << fuzz::Report(finding) << fuzz::Scenario(finding.life, "A life that libFuzzer found", finding.mismatch);
    std::abort();
}
