// How outcomes read: the words in which model and driver are compared.
#include "tests/model/model.h"

#include <cstdio>

namespace model {
namespace {

std::string Hex(std::uint32_t value)
{
    char text[16];
    std::snprintf(text, sizeof(text), "0x%08X", value);
    return text;
}

std::string Number(std::uint64_t value)
{
    return std::to_string(value);
}

}  // namespace

namespace lines {

std::string State(unsigned subscriber, const std::string& from, std::uint64_t sizeBytes, std::uint32_t state,
                  std::uint32_t reserved, std::uint32_t response)
{
    return ClientName(subscriber) + " is told: " + from + " is in state " + Number(state) + " (size " +
           Number(sizeBytes) + ", reserved " + Number(reserved) + ", response " + Number(response) + ")";
}

std::string Command(unsigned target, std::uint32_t id, std::uint64_t sizeBytes, std::uint32_t argument,
                    const std::string& source, std::uint32_t sourceState, std::uint32_t ownState)
{
    return ClientName(target) + " gets command " + Number(id) + " from " + source + " in state " + Number(sourceState) +
           " (size " + Number(sizeBytes) + ", argument " + Number(argument) + ", own state " + Number(ownState) + ")";
}

std::string AppsState(unsigned client, std::uint32_t reason, std::uint32_t ownState)
{
    return ClientName(client) + " hears of the applications' state (reason " + Number(reason) + ", own state " +
           Number(ownState) + ")";
}

std::string Descriptor(const std::string& client, const std::string& name, const std::string& description,
                       bool wantsAppsState, bool hasEntries, unsigned entryCount)
{
    return "descriptor of " + client + ": \"" + name.substr(0, 63) + "\", \"" + description.substr(0, 127) + "\"" +
           (wantsAppsState ? ", hears" : "") + (hasEntries ? ", entries " : ", no entries ") + Number(entryCount);
}

std::string Removed(const std::string& client, const std::string& name, const std::string& description)
{
    return "withdrawal of " + client + ": \"" + name.substr(0, 63) + "\", \"" + description.substr(0, 127) + "\"";
}

}  // namespace lines

std::string FromTable(unsigned table, const std::string& line)
{
    return "crash-dump driver, table " + Number(table) + ": " + line;
}

std::string DumpLine(Kind kind, unsigned client)
{
    const std::string record = Hex(0xD0D00000u + client);
    switch (kind) {
    case Kind::kStartDump:
        return "start " + record + " 4096 8192";
    case Kind::kAddDumpData:
        return "data " + record + " 55930 2147483648 4096 1";
    case Kind::kQueryDump:
        return "query " + record + " 7 11 12";
    case Kind::kAddTriageData:
        return "triage " + record + " 2415919104 256";
    default:
        return "stop " + record + " 13";
    }
}

std::uint32_t CommandArgument(const Operation& operation)
{
    return 100 + operation.state % 16;
}

std::uint32_t ControlCode(const Operation& operation)
{
    return operation.value == 6 ? IOCTL_ZEPN_NOTIFY_APPS_STATE + 4 : IOCTL_ZEPN_NOTIFY_APPS_STATE;
}

std::uint32_t TimeoutMs(const Operation& operation)
{
    return operation.value * 50;
}

std::string Outcome::Text() const
{
    std::string text = "  " + Hex(static_cast<std::uint32_t>(status)) + ", " + Number(workItems) +
                       " work items queued" + (standsStill ? ", a thread stands still" : "") + "\n";
    for (const std::string& line : told) {
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
