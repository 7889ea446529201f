#include "tools/play/scenario.h"

namespace play {

std::string Scenario::StateName(std::uint32_t state) const
{
    for (const auto& [name, number] : states) {
        if (number == state) {
            return name;
        }
    }
    return state == 0 ? "none" : std::to_string(state);
}

const ClientModel* Scenario::Find(const std::string& key) const
{
    for (const ClientModel& client : clients) {
        if (client.key == key) {
            return &client;
        }
    }
    return nullptr;
}

}  // namespace play
