// Reads the part of a scenario file that says what happens: "steps". Which fields each kind of step takes stands here.
#pragma once

#include "tools/play/reading/value_reader.h"

namespace play {

// Adds the steps to the scenario; mistakes stay with the reader.
void ReadSteps(ValueReader& reader, const JsonValue& root, Scenario& scenario);

}  // namespace play
