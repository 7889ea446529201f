#include "tools/play/scenario.h"

namespace play {

std::string StateName(const Scenario& scenario, const ClientModel* client, std::uint32_t state)
{
    if (client != nullptr) {
        if (const auto own = client->states.names.find(state); own != client->states.names.end()) {
            return own->second;
        }
    }
    if (const auto name = scenario.states.names.find(state); name != scenario.states.names.end()) {
        return name->second;
    }
    return state == 0 ? "none" : std::to_string(state);
}

}  // namespace play
