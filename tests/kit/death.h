// How tests run that end a process on purpose.
#pragma once

namespace tests {

// Children that die on purpose begin anew where that is possible; an emulator cannot start itself again.
#if defined(ZEPN_EMULATED)
inline constexpr const char* kDeathTestStyle = "fast";
#else
inline constexpr const char* kDeathTestStyle = "threadsafe";
#endif

// Touches what is not there.
inline void TouchNothing()
{
    *static_cast<volatile int*>(nullptr) = 1;
}

}  // namespace tests
