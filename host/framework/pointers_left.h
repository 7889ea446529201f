// Pointers into an image that is about to be unmapped, in what other drivers keep: a client whose driver goes without
// deregistering it is called there.
#pragma once

#include "host/framework/drivers.h"

#include <cstddef>
#include <span>

namespace host::framework {

class Framework;

// The driver hands this table out to whoever asks for the interface. Who keeps the table has not registered anything:
// its references say how long it may be used. The mutex is held.
void NoteHandedOut(DriverInstance& driver, std::span<const std::byte> table);

// One report for all that other drivers keep in object contexts and pool, naming each object, what it would call and
// where it was registered.
// Left out is what was handed out, and a context with a handle that is dead: what it describes is over.
void ReportPointersLeft(Framework& framework, const DriverInstance& going);

}  // namespace host::framework
