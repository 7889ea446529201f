// libFuzzer's entry: its bytes are a sequence of the native driver.
//
// Every sequence loads the driver anew, so counters compiled into it would each time count as new code. What guides the
// search on the driver's side instead is which platform calls follow one another.
#include "tests/model/run.h"
#include "tests/model/observed.h"

#include <cstdlib>
#include <iostream>

namespace {

// A test builds this entry with a model that is wrong on purpose.
#ifndef ZEPN_MODEL_BUG
#define ZEPN_MODEL_BUG kNone
#endif
constexpr model::Model::ModelBug kModelBug = model::Model::ModelBug::ZEPN_MODEL_BUG;

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
    model::Sequence sequence = model::Decode({data, size});
    sequence.mayHang = false;  // each such sequence would leave a parked thread
    sequence = model::Playable(sequence);
    model::onPlatformCall = NoteCall;
    model::Totals totals;
    const auto fails = [&](const model::Sequence& candidate) {
        return model::Run(candidate, ZEPN_NATIVE_DRIVER, totals, kModelBug).has_value();
    };
    if (!fails(sequence)) {
        return 0;
    }
    model::Finding finding;
    finding.sequence = model::Shrink(sequence, fails);
    finding.mismatch = model::Run(finding.sequence, ZEPN_NATIVE_DRIVER, totals, kModelBug).value_or(model::Mismatch{});
    std::cerr << model::Report(finding)
              << model::Scenario(finding.sequence, "A sequence that libFuzzer found", finding.mismatch);
    std::abort();
}
