// What a driver reads of its stack or registers before it has written it is left there by chance, and mostly zero. The
// host sees to it that it is not, so that a forgotten initialisation shows in every test.
#pragma once

namespace host::checks {

// No status of success, no address, no handle.
inline constexpr unsigned long long kUnusedStackPattern = 0xA5A5A5A5A5A5A5A5;

// Called right before driver code: fills the 4 KiB below the stack pointer and the registers that a call may change.
// The host does it before every callback; who calls a driver through its function tables does it for itself.
void FillUnusedStack();

}  // namespace host::checks
