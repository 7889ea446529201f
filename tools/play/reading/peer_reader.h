// Reads the parts of a scenario file that say how its peers answer: "clients" and "crashDump".
#pragma once

#include "tools/play/reading/value_reader.h"

namespace play {

// Adds to the scenario what its file's outermost object says of each; mistakes stay with the reader.
void ReadClients(ValueReader& reader, const JsonValue& root, Scenario& scenario);
void ReadCrashDump(ValueReader& reader, const JsonValue& root, Scenario& scenario);

}  // namespace play
