// Fast fails: the one instruction by which image code stops the system when it can trust nothing any more, as the check
// of a stack frame does that was overwritten.
#pragma once

namespace host::checks {

// For the fault handler, with the instruction at which the signal came and the signal's context. Reports a fast fail of
// image code as the bugcheck that it is and parks the thread; returns when the signal came of something else.
void ReportFastFail(const void* at, const void* signalContext);

}  // namespace host::checks
