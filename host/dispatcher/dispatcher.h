// The kernel's dispatcher: levels, spin locks and events of a driver's own, and waits for them. Their waits stand in
// one graph with those for framework objects, so it lies above the framework.
#pragma once

namespace host::dispatcher {

// Adds its functions to the exports of ntoskrnl.exe; done once per process.
void RegisterExports();

}  // namespace host::dispatcher
