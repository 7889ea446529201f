// How outcomes read: the words in which model and driver are compared.
#include "tests/model/model.h"

namespace model {
namespace {

std::string Number(std::uint64_t value)
{
    return std::to_string(value);
}

}  // namespace

std::string Outcome::Text() const
{
    std::string text = "  " + tests::Hex(static_cast<std::uint32_t>(status)) + ", " + Number(workItems) +
                       " work items queued" + (hangs ? ", a thread hangs" : "") + "\n";
    for (const std::string& line : called) {
        text += "  " + line + "\n";
    }
    return text;
}

std::string InternalState::Text() const
{
    std::string text = "  queued: " + Number(states) + " states, " + Number(commands) + " commands, " +
                       Number(toAnnounce) + " to announce, " + Number(toWithdraw) + " to withdraw; " +
                       (attached ? "attached" : "detached") + "\n  alive: " + Number(clientObjects) + " clients, " +
                       Number(subscriptionObjects) + " subscriptions, " + Number(stateObjects) + " states, " +
                       Number(commandObjects) + " commands, " + Number(entryBytes) + " bytes of entries\n";
    for (const Client& client : clients) {
        text += "  " + ClientName(client.who) + ": state " + Number(client.state) +
                (client.announced ? ", announced" : "") + (client.refreshPending ? ", refresh pending" : "") + ", " +
                Number(client.subscriptions) + " subscriptions\n";
    }
    return text;
}

}  // namespace model
