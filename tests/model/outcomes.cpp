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

void InternalState::AddClient(unsigned who, std::uint32_t state, bool announced, bool refreshPending,
                              std::size_t subscriptions)
{
    clients += "  " + ClientName(who) + ": state " + Number(state) + (announced ? ", announced" : "") +
               (refreshPending ? ", refresh pending" : "") + ", " + Number(subscriptions) + " subscriptions\n";
}

std::string InternalState::Text() const
{
    return "  queued: " + Number(states) + " states, " + Number(commands) + " commands, " + Number(toAnnounce) +
           " to announce, " + Number(toWithdraw) + " to withdraw; " + (attached ? "attached" : "detached") +
           "\n  alive: " + Number(clientObjects) + " clients, " + Number(subscriptionObjects) + " subscriptions, " +
           Number(stateObjects) + " states, " + Number(commandObjects) + " commands, " + Number(entryBytes) +
           " bytes of entries\n" + clients;
}

}  // namespace model
