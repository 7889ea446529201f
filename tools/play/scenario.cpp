#include "tools/play/scenario.h"

namespace play {

std::string Scenario::StateName(std::uint32_t state) const
{
    const auto name = stateNames.find(state);
    if (name != stateNames.end()) {
        return name->second;
    }
    return state == 0 ? "none" : std::to_string(state);
}

}  // namespace play
