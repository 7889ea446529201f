// The system's own unwinder walks: it knows the host and native drivers by their DWARF tables, and images by what the
// loader made of theirs (host/image/call_frames.h). It trusts what lies on the stack. Where a driver has damaged that,
// the walk faults, and the fault handler brings it back here.
#include "host/checks/call_path.h"

#include <setjmp.h>
#include <unwind.h>

#include <algorithm>
#include <array>

namespace host::checks {
namespace {

// Plain values only: a fault leaves it as it is, and no destructor runs.
struct Walk {
    std::array<const void*, 256> frames;
    std::size_t count;
};

thread_local sigjmp_buf* t_walking = nullptr;

_Unwind_Reason_Code OnFrame(_Unwind_Context* context, void* argument)
{
    auto& walk = *static_cast<Walk*>(argument);
    // A return address can lie after its function's last instruction; that of a signal is the instruction itself.
    int isExact = 0;
    const std::uintptr_t address = _Unwind_GetIPInfo(context, &isExact);
    walk.frames[walk.count++] = reinterpret_cast<const void*>(address - (isExact != 0 ? 0 : 1));
    return walk.count == walk.frames.size() ? _URC_END_OF_STACK : _URC_NO_REASON;
}

[[gnu::noinline]] void WalkStack(Walk& walk)
{
    sigjmp_buf start;
    if (sigsetjmp(start, 1) == 0) {
        t_walking = &start;
        _Unwind_Backtrace(&OnFrame, &walk);
    }
    t_walking = nullptr;
}

}  // namespace

Addresses CallPath(const Modules& modules)
{
    Walk walk;
    walk.count = 0;
    WalkStack(walk);
    Addresses path;
    for (std::size_t index = walk.count; index-- > 0;) {
        if (modules.Contains(walk.frames[index])) {
            path.push_back(walk.frames[index]);
        }
    }
    return path;
}

void EndFaultingWalk()
{
    if (t_walking != nullptr) {
        siglongjmp(*t_walking, 1);
    }
}

}  // namespace host::checks
