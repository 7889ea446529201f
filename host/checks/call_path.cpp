#include "host/checks/call_path.h"

#include <unwind.h>

#include <algorithm>

namespace host::checks {
namespace {

struct Walk {
    const Modules& modules;
    std::vector<std::string> names;
};

_Unwind_Reason_Code OnFrame(_Unwind_Context* context, void* argument)
{
    auto& walk = *static_cast<Walk*>(argument);
    // A return address can lie after its function's last instruction.
    const auto* address = reinterpret_cast<const void*>(_Unwind_GetIP(context) - 1);
    if (walk.modules.Contains(address)) {
        walk.names.push_back(walk.modules.FunctionAt(address));
    }
    return _URC_NO_REASON;
}

}  // namespace

std::vector<std::string> CallPath(const Modules& modules)
{
    Walk walk{modules, {}};
    _Unwind_Backtrace(&OnFrame, &walk);
    std::reverse(walk.names.begin(), walk.names.end());
    return walk.names;
}

}  // namespace host::checks
