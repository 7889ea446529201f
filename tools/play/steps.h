// What the steps of a scenario do, by who takes them.
#pragma once

#include "tools/play/run.h"

namespace play {

// A client registers, subscribes, posts, commands or deregisters, or its dump goes to the crash-dump driver.
void DoClientStep(Run& run, const Step& step);
// The crash-dump driver attaches, detaches, or asks for the clients.
void DoCrashDumpStep(Run& run, const Step& step);
// The system loads and unloads drivers and removes the devices of real clients; and the state of a client is looked at.
void DoDriverStep(Run& run, const Step& step);
// The system lets work run, sleeps, wakes, removes the Notifier's device; an application uses the control device.
void DoSystemStep(Run& run, const Step& step);

}  // namespace play
