// How tests end a process on purpose.
#pragma once

namespace tests {

// Touches what is not there.
inline void TouchNothing()
{
    *static_cast<volatile int*>(nullptr) = 1;
}

}  // namespace tests
