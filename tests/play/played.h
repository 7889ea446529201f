// Scenarios as the tests play them: what is printed, and what is said of one that is wrong.
#pragma once

#include "tests/kit/texts.h"
#include "tools/play/player.h"
#include "tools/play/reading/scenario_reader.h"

namespace tests {

struct Played {
    bool isGood;
    std::string text;
};

inline Played PlayWith(const play::PlayOptions& options, const play::Scenario& scenario,
                       play::Observer* observer = nullptr, play::Timeline::Form form = play::Timeline::Form::kText)
{
    std::ostringstream out;
    play::Timeline timeline(out, form, false);
    if (observer != nullptr) {
        timeline.AddObserver(*observer);
    }
    const bool isGood = play::Play(scenario, options, timeline);
    return {isGood, out.str()};
}

// On the native driver. What is printed, of a scenario that must end so.
inline std::string TimelineOf(const std::string& scenario, bool expectGood)
{
    const Played played = PlayWith({.image = ZEPN_NATIVE_DRIVER}, play::ParseScenario(scenario, "file.json"));
    EXPECT_EQ(played.isGood, expectGood) << played.text;
    return played.text;
}

inline std::string MistakesIn(const std::string& text)
{
    return Thrown([&] { (void)play::ParseScenario(text, "file.json"); });
}

}  // namespace tests
